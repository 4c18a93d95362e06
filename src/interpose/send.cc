/* The transmit calls. */
#include "interpose/interpose.h"

OST_EXPORT ssize_t
send(int fd, const void *buf, size_t len, int flags)
{
	ost_call call;

	if (call.nested())
		return call.ret(real_send(fd, buf, len, flags));
	return call.ret(ost_send_call(fd, buf, len, flags));
}

OST_EXPORT ssize_t
sendto(int fd, const void *buf, size_t len, int flags,
    const struct sockaddr *to, socklen_t tolen)
{
	ost_call call;

	if (call.nested())
		return call.ret(real_sendto(fd, buf, len, flags, to, tolen));
	return call.ret(ost_sendto(fd, buf, len, flags, to, tolen));
}

OST_EXPORT ssize_t
write(int fd, const void *buf, size_t len)
{
	ost_call call;

	if (call.nested())
		return call.ret(real_write(fd, buf, len));
	return call.ret(ost_write_call(fd, buf, len));
}

OST_EXPORT ssize_t
sendmsg(int fd, const struct msghdr *msg, int flags)
{
	ost_call call;

	if (call.nested())
		return call.ret(real_sendmsg(fd, msg, flags));
	return call.ret(ost_sendmsg_call(fd, msg, flags));
}

OST_EXPORT int
sendmmsg(int fd, struct mmsghdr *vec, unsigned int vlen, int flags)
{
	ost_call call;

	if (call.nested())
		return call.ret(real_sendmmsg(fd, vec, vlen, flags));
	return call.ret(ost_sendmmsg_call(fd, vec, vlen, flags));
}

OST_EXPORT ssize_t
writev(int fd, const struct iovec *iov, int iovcnt)
{
	ost_call call;

	if (call.nested())
		return call.ret(real_writev(fd, iov, iovcnt));
	return call.ret(ost_writev_call(fd, iov, iovcnt));
}
