/*
 * Which sockets get a bypass record, when it goes away, and the one
 * descriptor flag the receive path needs: non-blocking mode.
 */
#include <errno.h>
#include <fcntl.h>
#include <sys/ioctl.h>

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
