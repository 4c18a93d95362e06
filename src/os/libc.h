/*
 * The C library's own functions behind every call the library interposes,
 * and behind the calls it makes on its own behalf (the routing socket,
 * address resolution, the implicit bind, the kernel socket switch).  glibc
 * has no internal entry names that an interposer leaves alone, so these are
 * the next definitions after ours, found once at start-up with
 * dlsym(RTLD_NEXT).  glibc's socket calls already have the X/Open shape.
 */
#ifndef OST_OS_LIBC_H
#define OST_OS_LIBC_H

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <sys/epoll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/types.h>

/* Filled by ost_libc_init(); immutable after start-up. */
extern "C" {
extern int (*real_socket)(int, int, int);
extern int (*real_bind)(int, const struct sockaddr *, socklen_t);
extern int (*real_connect)(int, const struct sockaddr *, socklen_t);
extern int (*real_setsockopt)(int, int, int, const void *, socklen_t);
extern int (*real_getsockopt)(int, int, int, void *, socklen_t *);
extern ssize_t (*real_send)(int, const void *, size_t, int);
extern ssize_t (*real_sendto)(int, const void *, size_t, int,
    const struct sockaddr *, socklen_t);
extern ssize_t (*real_sendmsg)(int, const struct msghdr *, int);
extern int (*real_sendmmsg)(int, struct mmsghdr *, unsigned int, int);
extern ssize_t (
    *real_recvfrom)(int, void *, size_t, int, struct sockaddr *, socklen_t *);
extern ssize_t (*real_recvmsg)(int, struct msghdr *, int);
extern int (*real_recvmmsg)(int, struct mmsghdr *, unsigned int, int,
    struct timespec *);
extern int (*real_close)(int);
extern int (*real_dup)(int);
extern int (*real_dup2)(int, int);
extern int (*real_dup3)(int, int, int);
extern int (*real_fcntl)(int, int, ...);
extern int (*real_fcntl64)(int, int, ...);
extern int (*real_ioctl)(int, unsigned long, ...);
extern int (*real_poll)(struct pollfd *, nfds_t, int);
extern int (*real_ppoll)(struct pollfd *, nfds_t, const struct timespec *,
    const sigset_t *);
extern ssize_t (*real_read)(int, void *, size_t);
extern ssize_t (*real_readv)(int, const struct iovec *, int);
extern ssize_t (*real_writev)(int, const struct iovec *, int);
extern int (*real_select)(int, fd_set *, fd_set *, fd_set *, struct timeval *);
extern ssize_t (*real_write)(int, const void *, size_t);
extern int (*real_epoll_ctl)(int, int, int, struct epoll_event *);
extern int (
    *real_epoll_pwait)(int, struct epoll_event *, int, int, const sigset_t *);
extern int (*real_epoll_pwait2)(int, struct epoll_event *, int,
    const struct timespec *, const sigset_t *); /* null before glibc 2.35 */
extern int (*real_pselect)(int, fd_set *, fd_set *, fd_set *,
    const struct timespec *, const sigset_t *);
extern int (*real_execv)(const char *, char *const[]);
extern int (*real_execve)(const char *, char *const[], char *const[]);
extern int (*real_execvp)(const char *, char *const[]);
extern int (*real_execvpe)(const char *, char *const[], char *const[]);
extern int (*real_fexecve)(int, char *const[], char *const[]);
extern pid_t (*real_fork)(void);
extern pid_t (*real_vfork)(void); /* jumped to from vfork.S */
extern int (*real_posix_spawn)(pid_t *, const char *,
    const posix_spawn_file_actions_t *, const posix_spawnattr_t *,
    char *const[], char *const[]);
extern int (*real_posix_spawnp)(pid_t *, const char *,
    const posix_spawn_file_actions_t *, const posix_spawnattr_t *,
    char *const[], char *const[]);
extern int (*real_system)(const char *);
extern FILE *(*real_popen)(const char *, const char *);
extern int (*real_shutdown)(int, int);
extern int (*real_sigaction)(int, const struct sigaction *, struct sigaction *);
}

/*
 * Looks every function up; a missing one prints "<name>() not found: <why>"
 * on standard error and ends the process with status 1.
 */
void ost_libc_init(void);

/* Keeps the caller's errno across a scope. */
struct ost_errno_keep {
	int ek_saved = errno;
	~ost_errno_keep() { errno = ek_saved; }
};

#endif /* OST_OS_LIBC_H */
