/* poll and select; __poll_chk is poll under -D_FORTIFY_SOURCE. */
#include "interpose/interpose.h"

extern "C" [[noreturn]] void __chk_fail(void);

OST_EXPORT int
poll(struct pollfd *fds, nfds_t nfds, int timeout)
{
	OST_ENTRY();
	if (OST_FROM_FRIO())
		return real_poll(fds, nfds, timeout);
	return ost_poll(fds, nfds, timeout);
}

OST_EXPORT int
select(int nfds, fd_set *rfds, fd_set *wfds, fd_set *efds,
    struct timeval *timeout)
{
	OST_ENTRY();
	if (OST_FROM_FRIO())
		return real_select(nfds, rfds, wfds, efds, timeout);
	return ost_select(nfds, rfds, wfds, efds, timeout);
}

OST_EXPORT int
__poll_chk(struct pollfd *fds, nfds_t nfds, int timeout, size_t fdslen)
{
	if (fdslen / sizeof(*fds) < nfds)
		__chk_fail();
	return poll(fds, nfds, timeout);
}
