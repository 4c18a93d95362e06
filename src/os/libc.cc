#include "os/libc.h"

#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>

extern "C" {
int (*real_socket)(int, int, int);
int (*real_bind)(int, const struct sockaddr *, socklen_t);
int (*real_connect)(int, const struct sockaddr *, socklen_t);
int (*real_setsockopt)(int, int, int, const void *, socklen_t);
int (*real_getsockopt)(int, int, int, void *, socklen_t *);
ssize_t (*real_send)(int, const void *, size_t, int);
ssize_t (*real_sendto)(int, const void *, size_t, int, const struct sockaddr *,
    socklen_t);
ssize_t (*real_sendmsg)(int, const struct msghdr *, int);
int (*real_sendmmsg)(int, struct mmsghdr *, unsigned int, int);
ssize_t (
    *real_recvfrom)(int, void *, size_t, int, struct sockaddr *, socklen_t *);
ssize_t (*real_recvmsg)(int, struct msghdr *, int);
int (*real_recvmmsg)(int, struct mmsghdr *, unsigned int, int,
    struct timespec *);
int (*real_close)(int);
int (*real_dup)(int);
int (*real_dup2)(int, int);
int (*real_dup3)(int, int, int);
int (*real_fcntl)(int, int, ...);
int (*real_fcntl64)(int, int, ...);
int (*real_ioctl)(int, unsigned long, ...);
int (*real_poll)(struct pollfd *, nfds_t, int);
int (*real_ppoll)(struct pollfd *, nfds_t, const struct timespec *,
    const sigset_t *);
ssize_t (*real_read)(int, void *, size_t);
ssize_t (*real_readv)(int, const struct iovec *, int);
ssize_t (*real_writev)(int, const struct iovec *, int);
int (*real_select)(int, fd_set *, fd_set *, fd_set *, struct timeval *);
ssize_t (*real_write)(int, const void *, size_t);
int (*real_epoll_ctl)(int, int, int, struct epoll_event *);
int (*real_epoll_pwait)(int, struct epoll_event *, int, int, const sigset_t *);
int (*real_epoll_pwait2)(int, struct epoll_event *, int,
    const struct timespec *, const sigset_t *);
int (*real_pselect)(int, fd_set *, fd_set *, fd_set *, const struct timespec *,
    const sigset_t *);
int (*real_execv)(const char *, char *const[]);
int (*real_execve)(const char *, char *const[], char *const[]);
int (*real_execvp)(const char *, char *const[]);
int (*real_execvpe)(const char *, char *const[], char *const[]);
int (*real_fexecve)(int, char *const[], char *const[]);
pid_t (*real_fork)(void);
pid_t (*real_vfork)(void);
int (*real_posix_spawn)(pid_t *, const char *,
    const posix_spawn_file_actions_t *, const posix_spawnattr_t *,
    char *const[], char *const[]);
int (*real_posix_spawnp)(pid_t *, const char *,
    const posix_spawn_file_actions_t *, const posix_spawnattr_t *,
    char *const[], char *const[]);
int (*real_system)(const char *);
FILE *(*real_popen)(const char *, const char *);
int (*real_shutdown)(int, int);
int (*real_sigaction)(int, const struct sigaction *, struct sigaction *);
}

template <typename Fn>
static void
lookup(Fn *slot, const char *name)
{
	void *fn;

	(void)dlerror();
	fn = dlsym(RTLD_NEXT, name);
	if (fn == NULL) {
		const char *why = dlerror();

		(void)fprintf(stderr, "%s() not found: %s\n", name,
		    why != NULL ? why : name);
		exit(1);
	}
	*slot = reinterpret_cast<Fn>(fn);
}

void
ost_libc_init(void)
{
	lookup(&real_socket, "socket");
	lookup(&real_bind, "bind");
	lookup(&real_connect, "connect");
	lookup(&real_setsockopt, "setsockopt");
	lookup(&real_getsockopt, "getsockopt");
	lookup(&real_send, "send");
	lookup(&real_sendto, "sendto");
	lookup(&real_sendmsg, "sendmsg");
	lookup(&real_sendmmsg, "sendmmsg");
	lookup(&real_recvfrom, "recvfrom");
	lookup(&real_recvmsg, "recvmsg");
	lookup(&real_recvmmsg, "recvmmsg");
	lookup(&real_close, "close");
	lookup(&real_dup, "dup");
	lookup(&real_dup2, "dup2");
	lookup(&real_dup3, "dup3");
	lookup(&real_fcntl, "fcntl");
	lookup(&real_fcntl64, "fcntl64");
	lookup(&real_ioctl, "ioctl");
	lookup(&real_poll, "poll");
	lookup(&real_ppoll, "ppoll");
	lookup(&real_read, "read");
	lookup(&real_readv, "readv");
	lookup(&real_writev, "writev");
	lookup(&real_select, "select");
	lookup(&real_write, "write");
	lookup(&real_pselect, "pselect");
	lookup(&real_epoll_ctl, "epoll_ctl");
	lookup(&real_epoll_pwait, "epoll_pwait");
	/* glibc 2.35 and later; null before. */
	real_epoll_pwait2 = reinterpret_cast<decltype(real_epoll_pwait2)>(
	    dlsym(RTLD_NEXT, "epoll_pwait2"));
	lookup(&real_execv, "execv");
	lookup(&real_execve, "execve");
	lookup(&real_execvp, "execvp");
	lookup(&real_execvpe, "execvpe");
	lookup(&real_fexecve, "fexecve");
	lookup(&real_fork, "fork");
	lookup(&real_vfork, "vfork");
	lookup(&real_posix_spawn, "posix_spawn");
	lookup(&real_posix_spawnp, "posix_spawnp");
	lookup(&real_system, "system");
	lookup(&real_popen, "popen");
	lookup(&real_shutdown, "shutdown");
	lookup(&real_sigaction, "sigaction");
}
