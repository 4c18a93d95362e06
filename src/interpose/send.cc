/* The transmit calls. */
#include "interpose/interpose.h"

OST_EXPORT ssize_t
send(int fd, const void *buf, size_t len, int flags)
{
	OST_ENTRY();
	if (OST_FROM_FRIO())
		return real_send(fd, buf, len, flags);
	return ost_send_call(fd, buf, len, flags);
}

OST_EXPORT ssize_t
sendto(int fd, const void *buf, size_t len, int flags,
    const struct sockaddr *to, socklen_t tolen)
{
	OST_ENTRY();
	if (OST_FROM_FRIO())
		return real_sendto(fd, buf, len, flags, to, tolen);
	return ost_sendto(fd, buf, len, flags, to, tolen);
}

OST_EXPORT ssize_t
write(int fd, const void *buf, size_t len)
{
	OST_ENTRY();
	if (OST_FROM_FRIO())
		return real_write(fd, buf, len);
	return ost_write_call(fd, buf, len);
}

OST_EXPORT ssize_t
sendmsg(int fd, const struct msghdr *msg, int flags)
{
	OST_ENTRY();
	if (OST_FROM_FRIO())
		return real_sendmsg(fd, msg, flags);
	return ost_sendmsg_call(fd, msg, flags);
}

OST_EXPORT int
sendmmsg(int fd, struct mmsghdr *vec, unsigned int vlen, int flags)
{
	OST_ENTRY();
	if (OST_FROM_FRIO())
		return real_sendmmsg(fd, vec, vlen, flags);
	return ost_sendmmsg_call(fd, vec, vlen, flags);
}

OST_EXPORT ssize_t
writev(int fd, const struct iovec *iov, int iovcnt)
{
	OST_ENTRY();
	if (OST_FROM_FRIO())
		return real_writev(fd, iov, iovcnt);
	return ost_writev_call(fd, iov, iovcnt);
}
