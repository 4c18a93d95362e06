/*
 * The exec, fork and posix_spawn families: dismantle the bypass state, then
 * the real call with the application's arguments unchanged.  Nothing is
 * done after the real call, in the parent or in a child.  vfork is in
 * vfork.S: a C wrapper around it would return into a frame the parent
 * still needs.
 */
#include <errno.h>
#include <stdarg.h>
#include <stdlib.h>
#include <unistd.h>

#include "interpose/interpose.h"

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
	int ret;

	OST_ENTRY();
	ost_cleanup();
	va_start(ap, arg0);
	ret = ost_exec_list(path, arg0, ap, 'l');
	va_end(ap);
	return ret;
}

OST_EXPORT int
execle(const char *path, const char *arg0, ...)
{
	va_list ap;
	int ret;

	OST_ENTRY();
	ost_cleanup();
	va_start(ap, arg0);
	ret = ost_exec_list(path, arg0, ap, 'e');
	va_end(ap);
	return ret;
}

OST_EXPORT int
execlp(const char *file, const char *arg0, ...)
{
	va_list ap;
	int ret;

	OST_ENTRY();
	ost_cleanup();
	va_start(ap, arg0);
	ret = ost_exec_list(file, arg0, ap, 'p');
	va_end(ap);
	return ret;
}

OST_EXPORT int
execv(const char *path, char *const argv[])
{
	OST_ENTRY();
	ost_cleanup();
	return real_execv(path, argv);
}

OST_EXPORT int
execve(const char *path, char *const argv[], char *const envp[])
{
	OST_ENTRY();
	ost_cleanup();
	return real_execve(path, argv, envp);
}

OST_EXPORT int
execvp(const char *file, char *const argv[])
{
	OST_ENTRY();
	ost_cleanup();
	return real_execvp(file, argv);
}

OST_EXPORT int
execvpe(const char *file, char *const argv[], char *const envp[])
{
	OST_ENTRY();
	ost_cleanup();
	return real_execvpe(file, argv, envp);
}

OST_EXPORT int
fexecve(int fd, char *const argv[], char *const envp[])
{
	OST_ENTRY();
	ost_cleanup();
	return real_fexecve(fd, argv, envp);
}

OST_EXPORT pid_t
fork(void)
{
	OST_ENTRY();
	ost_cleanup();
	return real_fork();
}

OST_EXPORT int
posix_spawn(pid_t *pid, const char *path,
    const posix_spawn_file_actions_t *actions, const posix_spawnattr_t *attr,
    char *const argv[], char *const envp[])
{
	OST_ENTRY();
	ost_cleanup();
	return real_posix_spawn(pid, path, actions, attr, argv, envp);
}

OST_EXPORT int
posix_spawnp(pid_t *pid, const char *file,
    const posix_spawn_file_actions_t *actions, const posix_spawnattr_t *attr,
    char *const argv[], char *const envp[])
{
	OST_ENTRY();
	ost_cleanup();
	return real_posix_spawnp(pid, file, actions, attr, argv, envp);
}

/* Called from vfork.S before it jumps to the real vfork. */
extern "C" void
ost_vfork_prepare(void)
{
	OST_ENTRY();
	ost_cleanup();
}
