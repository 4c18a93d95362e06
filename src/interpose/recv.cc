/* The receive calls. */
#include "interpose/interpose.h"

OST_EXPORT ssize_t
recvfrom(int fd, void *buf, size_t len, int flags, struct sockaddr *from,
    socklen_t *fromlen)
{
	OST_ENTRY();
	if (OST_FROM_FRIO())
		return real_recvfrom(fd, buf, len, flags, from, fromlen);
	return ost_recvfrom_call(fd, buf, len, flags, from, fromlen);
}

OST_EXPORT ssize_t
recv(int fd, void *buf, size_t len, int flags)
{
	OST_ENTRY();
	if (OST_FROM_FRIO())
		return real_recvfrom(fd, buf, len, flags, NULL, NULL);
	return ost_recvfrom_call(fd, buf, len, flags, NULL, NULL);
}

OST_EXPORT ssize_t
read(int fd, void *buf, size_t len)
{
	OST_ENTRY();
	if (OST_FROM_FRIO())
		return real_read(fd, buf, len);
	return ost_read_call(fd, buf, len);
}

OST_EXPORT ssize_t
recvmsg(int fd, struct msghdr *msg, int flags)
{
	OST_ENTRY();
	if (OST_FROM_FRIO())
		return real_recvmsg(fd, msg, flags);
	return ost_recvmsg_call(fd, msg, flags);
}

OST_EXPORT int
recvmmsg(int fd, struct mmsghdr *vec, unsigned int vlen, int flags,
    struct timespec *timeout)
{
	OST_ENTRY();
	if (OST_FROM_FRIO())
		return real_recvmmsg(fd, vec, vlen, flags, timeout);
	return ost_recvmmsg_call(fd, vec, vlen, flags, timeout);
}
