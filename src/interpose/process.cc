/*
 * The exec, fork and posix_spawn families, system and popen: dismantle the
 * bypass state, then the real call with the application's arguments
 * unchanged.  After the real call only errno is put back, in the parent or
 * in a child.  vfork is in vfork.S: a C wrapper around it would return into
 * a frame the parent still needs.
 */
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "interpose/interpose.h"

/*
 * The hand-off takes our locks, so a call nested in one of ours (a signal
 * handler's fork or exec) skips it: the new process or image then keeps
 * the preload, as it would have without us.
 */
static void
ost_hand_off(const ost_call &call)
{
	if (!call.nested())
		ost_cleanup();
	call.restore_errno();
}

static int
ost_exec_list(const char *path, const char *arg0, va_list ap, int kind)
{
	char *const *envp = environ;
	char **argv;
	int ret, saved_errno;

	argv = ost_list_argv(arg0, ap, kind == 'e' ? &envp : NULL);
	if (argv == NULL)
		return -1;
	ret = kind == 'p' ? real_execvp(path, argv) :
			    real_execve(path, argv, envp);
	saved_errno = errno;
	free(argv);
	errno = saved_errno;
	return ret;
}

OST_EXPORT int
execl(const char *path, const char *arg0, ...)
{
	va_list ap;
	ost_call call;
	int ret;

	ost_hand_off(call);
	va_start(ap, arg0);
	ret = ost_exec_list(path, arg0, ap, 'l');
	va_end(ap);
	return call.ret(ret);
}

OST_EXPORT int
execle(const char *path, const char *arg0, ...)
{
	va_list ap;
	ost_call call;
	int ret;

	ost_hand_off(call);
	va_start(ap, arg0);
	ret = ost_exec_list(path, arg0, ap, 'e');
	va_end(ap);
	return call.ret(ret);
}

OST_EXPORT int
execlp(const char *file, const char *arg0, ...)
{
	va_list ap;
	ost_call call;
	int ret;

	ost_hand_off(call);
	va_start(ap, arg0);
	ret = ost_exec_list(file, arg0, ap, 'p');
	va_end(ap);
	return call.ret(ret);
}

OST_EXPORT int
execv(const char *path, char *const argv[])
{
	ost_call call;

	ost_hand_off(call);
	return call.ret(real_execv(path, argv));
}

OST_EXPORT int
execve(const char *path, char *const argv[], char *const envp[])
{
	ost_call call;

	ost_hand_off(call);
	return call.ret(real_execve(path, argv, envp));
}

OST_EXPORT int
execvp(const char *file, char *const argv[])
{
	ost_call call;

	ost_hand_off(call);
	return call.ret(real_execvp(file, argv));
}

OST_EXPORT int
execvpe(const char *file, char *const argv[], char *const envp[])
{
	ost_call call;

	ost_hand_off(call);
	return call.ret(real_execvpe(file, argv, envp));
}

OST_EXPORT int
fexecve(int fd, char *const argv[], char *const envp[])
{
	ost_call call;

	ost_hand_off(call);
	return call.ret(real_fexecve(fd, argv, envp));
}

OST_EXPORT pid_t
fork(void)
{
	ost_call call;

	pid_t pid;

	ost_hand_off(call);
	ost_fork_in_handler = call.nested();
	pid = real_fork();
	ost_fork_in_handler = false;
	return call.ret(pid);
}

OST_EXPORT int
posix_spawn(pid_t *pid, const char *path,
    const posix_spawn_file_actions_t *actions, const posix_spawnattr_t *attr,
    char *const argv[], char *const envp[])
{
	ost_call call;

	ost_hand_off(call);
	return real_posix_spawn(pid, path, actions, attr, argv, envp);
}

OST_EXPORT int
posix_spawnp(pid_t *pid, const char *file,
    const posix_spawn_file_actions_t *actions, const posix_spawnattr_t *attr,
    char *const argv[], char *const envp[])
{
	ost_call call;

	ost_hand_off(call);
	return real_posix_spawnp(pid, file, actions, attr, argv, envp);
}

/* Called from vfork.S before it jumps to the real vfork. */
extern "C" void
ost_vfork_prepare(void)
{
	ost_call call;

	ost_hand_off(call);
}

/*
 * system and popen start their child with the C library's own posix_spawn,
 * which does not come through ours: the same hand-off here, so that the
 * shell and what it runs start without the preload, as a posix_spawn child
 * does, and no handle of ours lives on in them.
 */
OST_EXPORT int
system(const char *command)
{
	ost_call call;

	ost_hand_off(call);
	return call.ret(real_system(command));
}

OST_EXPORT FILE *
popen(const char *command, const char *type)
{
	ost_call call;

	ost_hand_off(call);
	return call.ret(real_popen(command, type));
}
