/* Socket options. */
#include "interpose/interpose.h"

OST_EXPORT int
setsockopt(int fd, int level, int name, const void *val, socklen_t len)
{
	OST_ENTRY();
	if (OST_FROM_FRIO())
		return real_setsockopt(fd, level, name, val, len);
	return ost_setsockopt(fd, level, name, val, len);
}

OST_EXPORT int
getsockopt(int fd, int level, int name, void *val, socklen_t *lenp)
{
	OST_ENTRY();
	if (OST_FROM_FRIO())
		return real_getsockopt(fd, level, name, val, lenp);
	return ost_getsockopt(fd, level, name, val, lenp);
}
