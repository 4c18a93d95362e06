/* poll, select and epoll; __poll_chk is poll under -D_FORTIFY_SOURCE. */
#include <sys/epoll.h>

#include "interpose/interpose.h"

extern "C" [[noreturn]] void __chk_fail(void);

OST_EXPORT int
poll(struct pollfd *fds, nfds_t nfds, int timeout)
{
	ost_call call;

	if (call.nested())
		return call.ret(real_poll(fds, nfds, timeout));
	return call.ret(ost_poll(fds, nfds, timeout));
}

OST_EXPORT int
select(int nfds, fd_set *rfds, fd_set *wfds, fd_set *efds,
    struct timeval *timeout)
{
	ost_call call;

	if (call.nested())
		return call.ret(real_select(nfds, rfds, wfds, efds, timeout));
	return call.ret(ost_select(nfds, rfds, wfds, efds, timeout));
}

OST_EXPORT int
ppoll(struct pollfd *fds, nfds_t nfds, const struct timespec *timeout,
    const sigset_t *mask)
{
	ost_call call;

	if (call.nested())
		return call.ret(real_ppoll(fds, nfds, timeout, mask));
	return call.ret(ost_ppoll(fds, nfds, timeout, mask));
}

OST_EXPORT int
pselect(int nfds, fd_set *rfds, fd_set *wfds, fd_set *efds,
    const struct timespec *timeout, const sigset_t *mask)
{
	ost_call call;

	if (call.nested())
		return call.ret(
		    real_pselect(nfds, rfds, wfds, efds, timeout, mask));
	return call.ret(ost_pselect(nfds, rfds, wfds, efds, timeout, mask));
}

OST_EXPORT int
__ppoll_chk(struct pollfd *fds, nfds_t nfds, const struct timespec *timeout,
    const sigset_t *mask, size_t fdslen)
{
	if (fdslen / sizeof(*fds) < nfds)
		__chk_fail();
	return ppoll(fds, nfds, timeout, mask);
}

OST_EXPORT int
__poll_chk(struct pollfd *fds, nfds_t nfds, int timeout, size_t fdslen)
{
	if (fdslen / sizeof(*fds) < nfds)
		__chk_fail();
	return poll(fds, nfds, timeout);
}

OST_EXPORT int
epoll_ctl(int epfd, int op, int fd, struct epoll_event *event)
{
	ost_call call;

	if (call.nested())
		return call.ret(real_epoll_ctl(epfd, op, fd, event));
	return call.ret(ost_epoll_ctl(epfd, op, fd, event));
}

static hrtime_t
ost_ms_to_ns(int ms)
{
	return ms < 0 ? -1 : (hrtime_t)ms * 1000000;
}

OST_EXPORT int
epoll_wait(int epfd, struct epoll_event *evs, int max, int timeout)
{
	ost_call call;

	if (call.nested() || !ost_epoll_watched(epfd))
		return call.ret(
		    real_epoll_pwait(epfd, evs, max, timeout, NULL));
	return call.ret(
	    ost_epoll_wait(epfd, evs, max, ost_ms_to_ns(timeout), NULL));
}

OST_EXPORT int
epoll_pwait(int epfd, struct epoll_event *evs, int max, int timeout,
    const sigset_t *mask)
{
	ost_call call;

	if (call.nested() || !ost_epoll_watched(epfd))
		return call.ret(
		    real_epoll_pwait(epfd, evs, max, timeout, mask));
	return call.ret(
	    ost_epoll_wait(epfd, evs, max, ost_ms_to_ns(timeout), mask));
}

OST_EXPORT int
epoll_pwait2(int epfd, struct epoll_event *evs, int max,
    const struct timespec *timeout, const sigset_t *mask)
{
	ost_call call;

	if (real_epoll_pwait2 == NULL) {
		errno = ENOSYS;
		return -1;
	}
	if (call.nested() || !ost_epoll_watched(epfd) ||
	    (timeout != NULL &&
		(timeout->tv_sec < 0 || timeout->tv_nsec < 0 ||
		    timeout->tv_nsec >= NANOSEC)))
		return call.ret(
		    real_epoll_pwait2(epfd, evs, max, timeout, mask));
	return call.ret(ost_epoll_wait(epfd, evs, max,
	    timeout == NULL ?
		-1 :
		(hrtime_t)timeout->tv_sec * NANOSEC + timeout->tv_nsec,
	    mask));
}
