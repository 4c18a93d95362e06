/*
 * Which sockets get a bypass record, when it goes away, and the one
 * descriptor flag the receive path needs: non-blocking mode.
 */
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "core/ost.h"

/*
 * A UDP socket of either family.  Modern runtimes ask for SOCK_CLOEXEC
 * (python3) and SOCK_NONBLOCK (libuv) with every socket, so those two flags
 * are accepted; any other flag leaves the socket to the kernel.
 */
static bool
ost_wants_record(int domain, int type, int protocol)
{
	if (domain != AF_INET && domain != AF_INET6)
		return false;
	if ((type & ~(SOCK_CLOEXEC | SOCK_NONBLOCK)) != SOCK_DGRAM)
		return false;
	return protocol == 0 || protocol == IPPROTO_UDP;
}

int
ost_socket(int domain, int type, int protocol)
{
	int sd = real_socket(domain, type, protocol);

	if (sd == -1 || !ost_wants_record(domain, type, protocol))
		return sd;
	if (!ost_add(sd, domain)) {
		(void)real_close(sd);
		ost_debug("bypass socket creation failed\n");
		errno = ENOMEM;
		return -1;
	}
	if (type & SOCK_NONBLOCK) {
		uost_t *up = ost_find_sd(sd);

		if (up != NULL) {
			(void)pthread_mutex_lock(&up->uost_lock);
			__atomic_store_n(&up->uost_nonblock, true,
			    __ATOMIC_RELAXED);
			ost_release_locked(up);
			(void)pthread_mutex_unlock(&up->uost_lock);
		}
	}
	return sd;
}

int
ost_close(int fd)
{
	uost_t *up = ost_find_sd(fd);
	int ret, saved_errno;

	/* The kernel descriptor goes first; the record after every user left. */
	ret = real_close(fd);
	if (ret == 0) {
		saved_errno = errno;
		ost_epoll_forget(fd);
		errno = saved_errno;
	}
	if (up != NULL) {
		saved_errno = errno;
		ost_del(up, false);
		errno = saved_errno;
	}
	return ret;
}

static void
ost_set_nonblock(int fd, bool on)
{
	uost_t *up = ost_find_sd(fd);

	if (up == NULL)
		return;
	(void)pthread_mutex_lock(&up->uost_lock);
	__atomic_store_n(&up->uost_nonblock, on, __ATOMIC_RELAXED);
	ost_release_locked(up);
	(void)pthread_mutex_unlock(&up->uost_lock);
}

/*
 * F_SETFL before the real call.  Clearing O_NONBLOCK clears the mark too:
 * the receive path reads it as "the descriptor is non-blocking", and a
 * program that switches back to blocking expects its receives to wait.
 */
void
ost_note_fl_change(int fd, int cmd, unsigned long arg)
{
	if (cmd != F_SETFL)
		return;
	ost_set_nonblock(fd, (arg & (O_NONBLOCK | O_NDELAY)) != 0);
}

/* ioctl(FIONBIO) is how python3 and others switch non-blocking mode. */
void
ost_note_fionbio(int fd, unsigned long request, const void *argp)
{
	int on;

	if (request != FIONBIO || argp == NULL)
		return;
	on = *(const int *)argp;
	ost_set_nonblock(fd, on != 0);
}

/*
 * The kernel socket keeps the state: a receive sees a shut reading side
 * there, and a send after the sending side was shut goes to the kernel,
 * which answers EPIPE.
 */
int
ost_shutdown_call(int fd, int how)
{
	int r = real_shutdown(fd, how);
	uost_t *up;

	/* An unconnected socket is shut all the same, with ENOTCONN. */
	if ((r != 0 && errno != ENOTCONN) || (up = ost_find_sd(fd)) == NULL)
		return r;
	/* The kernel socket now answers with more than datagrams. */
	ost_kcount_drop(up);
	if (how != SHUT_WR && how != SHUT_RDWR) {
		ost_release(up);
		return r;
	}
	(void)pthread_mutex_lock(&up->uost_lock);
	up->uost_shut_wr = true;
	ost_release_locked(up);
	(void)pthread_mutex_unlock(&up->uost_lock);
	return r;
}

/*
 * A bypass socket that gets a second descriptor leaves the bypass: its
 * record is one descriptor's, and every copy must keep working whichever
 * is closed first.  What its handle still holds goes back to the kernel
 * socket, which all the copies share.
 */
void
ost_note_dup(int oldfd)
{
	uost_t *up = ost_find_sd(oldfd);

	if (up == NULL)
		return;
	ost_debug("%d leaves the bypass: duplicated\n", oldfd);
	ost_del(up, true);
}

int
ost_dup_call(int oldfd, int newfd, int flags, int (*dup3fn)(int, int, int))
{
	uost_t *target = NULL;
	int ret, saved_errno;

	/* dup2 and dup3 close newfd first, as close would. */
	if (newfd >= 0 && newfd != oldfd)
		target = ost_find_sd(newfd);
	if (newfd < 0)
		ret = real_dup(oldfd);
	else if (dup3fn != NULL)
		ret = dup3fn(oldfd, newfd, flags);
	else
		ret = real_dup2(oldfd, newfd);
	saved_errno = errno;
	if (target != NULL && ret >= 0)
		ost_del(target, false);
	else if (target != NULL)
		ost_release(target);
	if (ret >= 0 && ret != oldfd)
		ost_note_dup(oldfd);
	errno = saved_errno;
	return ret;
}

/*
 * close() from a signal handler that interrupted this thread inside one of
 * our calls.  Tearing the record down here could wait for a lock that the
 * interrupted call holds; closing only the descriptor would let its number
 * be reused while the registry or an epoll set still names it.  So a
 * descriptor that may have either, an IPv4 or IPv6 UDP socket or an epoll
 * instance, stays open until the outermost call unwinds and closes it the
 * ordinary way (ost_run_deferred_closes), and the handler's close returns
 * 0 at once, as it would have.  Until then the handler and the interrupted
 * call still see it open: the interrupted call ends as it would on a kernel
 * socket, by EINTR from its wait or by its own result.  Anything else
 * closes now, since holding back a pipe's close could hang a program that
 * waits for its end.  Only system calls and this thread's own slots: safe
 * in a signal handler.
 */
#define OST_DEFERRED_MAX 16

/* Descriptor + 1 in each slot, 0 when free; claimed and emptied with
 * single atomic instructions, so that a nested handler sees either. */
static __thread int ost_deferred[OST_DEFERRED_MAX]
    __attribute__((tls_model("initial-exec")));
static __thread volatile int ost_deferred_any
    __attribute__((tls_model("initial-exec")));

static bool
ost_may_be_recorded(int fd)
{
	static const char want[] = "anon_inode:[eventpoll]";
	char path[32] = "/proc/self/fd/", link[sizeof(want)], digits[12];
	int domain, proto, n = 0, at = 14;
	socklen_t len = sizeof(int);
	ssize_t got;

	if (real_getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &len) == 0) {
		len = sizeof(int);
		return (domain == AF_INET || domain == AF_INET6) &&
		    real_getsockopt(fd, SOL_SOCKET, SO_PROTOCOL, &proto,
			&len) == 0 &&
		    proto == IPPROTO_UDP;
	}
	/* Not a socket: is it an epoll instance?  (No /proc: take it as
	 * not; the epoll sets then keep a stale number.) */
	for (unsigned v = (unsigned)fd; n == 0 || v != 0; v /= 10)
		digits[n++] = (char)('0' + v % 10);
	while (n > 0)
		path[at++] = digits[--n];
	path[at] = '\0';
	got = readlink(path, link, sizeof(link));
	return got == (ssize_t)sizeof(want) - 1 &&
	    memcmp(link, want, sizeof(want) - 1) == 0;
}

int
ost_close_nested(int fd)
{
	int saved_errno = errno, *free_slot = NULL;
	bool maybe;

	if (fd < 0)
		return real_close(fd);
	for (int i = 0; i < OST_DEFERRED_MAX; i++) {
		if (ost_deferred[i] == fd + 1) {
			errno = EBADF; /* closed once already */
			return -1;
		}
	}
	maybe = ost_may_be_recorded(fd);
	errno = saved_errno;
	if (!maybe)
		return real_close(fd);
	for (int i = 0; i < OST_DEFERRED_MAX && free_slot == NULL; i++) {
		int expect = 0;

		if (__atomic_compare_exchange_n(&ost_deferred[i], &expect,
			fd + 1, false, __ATOMIC_RELAXED, __ATOMIC_RELAXED))
			free_slot = &ost_deferred[i];
	}
	if (free_slot == NULL) {
		/* POSIX lets an interrupted close leave the descriptor open;
		 * better a leak than a registry naming a reused number. */
		errno = EINTR;
		return -1;
	}
	__atomic_signal_fence(__ATOMIC_SEQ_CST);
	ost_deferred_any = 1;
	return 0;
}

bool
ost_closes_deferred(void)
{
	return ost_deferred_any != 0;
}

/* By the outermost call as it returns, holding no lock; keeps errno. */
void
ost_run_deferred_closes(void)
{
	int saved_errno = errno;

	while (ost_deferred_any != 0) {
		ost_deferred_any = 0;
		__atomic_signal_fence(__ATOMIC_SEQ_CST);
		for (int i = 0; i < OST_DEFERRED_MAX; i++) {
			int v = __atomic_exchange_n(&ost_deferred[i], 0,
			    __ATOMIC_RELAXED);

			if (v != 0)
				(void)ost_close(v - 1);
		}
	}
	errno = saved_errno;
}
