/*
 * The C library's own socket functions, for calls the library makes on its
 * own behalf (the routing socket, address resolution, the implicit bind,
 * the kernel calls behind an interposed call).  glibc has no internal entry
 * names that an interposer leaves alone, so these are the next definitions
 * after ours, found once at start-up with dlsym(RTLD_NEXT).
 */
#ifndef OST_PLATFORM_LIBC_H
#define OST_PLATFORM_LIBC_H

#include <sys/socket.h>
#include <sys/types.h>

/* Filled by ost_libc_init(); immutable after start-up. */
extern int (*libc_socket)(int, int, int);
extern int (*libc_bind)(int, const struct sockaddr *, socklen_t);
extern int (*libc_connect)(int, const struct sockaddr *, socklen_t);
extern int (*libc_setsockopt)(int, int, int, const void *, socklen_t);
extern int (*libc_getsockopt)(int, int, int, void *, socklen_t *);
extern ssize_t (*libc_send)(int, const void *, size_t, int);
extern ssize_t (*libc_sendto)(int, const void *, size_t, int,
    const struct sockaddr *, socklen_t);
extern ssize_t (*libc_sendmsg)(int, const struct msghdr *, int);
extern ssize_t (*libc_recvfrom)(int, void *, size_t, int, struct sockaddr *,
    socklen_t *);
extern ssize_t (*libc_recvmsg)(int, struct msghdr *, int);

/*
 * Looks every function up; a missing one prints "<name>() not found: <why>"
 * on standard error and ends the process with status 1.
 */
void ost_libc_init(void);

/*
 * dlsym(RTLD_NEXT, name), or the same failure as above.  Also used for the
 * real-function tables of the interposed calls.
 */
void *ost_libc_lookup(const char *name, const char *missing_fmt);

#endif /* OST_PLATFORM_LIBC_H */
