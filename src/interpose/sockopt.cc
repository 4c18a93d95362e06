/* Socket options. */
#include "interpose/interpose.h"

OST_EXPORT int
setsockopt(int fd, int level, int name, const void *val, socklen_t len)
{
	ost_call call;

	if (call.nested())
		return call.ret(real_setsockopt(fd, level, name, val, len));
	return call.ret(ost_setsockopt(fd, level, name, val, len));
}

OST_EXPORT int
getsockopt(int fd, int level, int name, void *val, socklen_t *lenp)
{
	ost_call call;

	if (call.nested())
		return call.ret(real_getsockopt(fd, level, name, val, lenp));
	return call.ret(ost_getsockopt(fd, level, name, val, lenp));
}
