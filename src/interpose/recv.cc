/*
 * The receive calls, and the checked forms that glibc's fortified headers
 * (-D_FORTIFY_SOURCE) route recv, recvfrom and read through: the buffer
 * check glibc makes, then the call itself.
 */
#include "interpose/interpose.h"

extern "C" [[noreturn]] void __chk_fail(void);

OST_EXPORT ssize_t
recvfrom(int fd, void *buf, size_t len, int flags, struct sockaddr *from,
    socklen_t *fromlen)
{
	ost_call call;

	if (call.nested())
		return call.ret(
		    real_recvfrom(fd, buf, len, flags, from, fromlen));
	return call.ret(ost_recvfrom_call(fd, buf, len, flags, from, fromlen));
}

OST_EXPORT ssize_t
recv(int fd, void *buf, size_t len, int flags)
{
	ost_call call;

	if (call.nested())
		return call.ret(real_recvfrom(fd, buf, len, flags, NULL, NULL));
	return call.ret(ost_recvfrom_call(fd, buf, len, flags, NULL, NULL));
}

OST_EXPORT ssize_t
read(int fd, void *buf, size_t len)
{
	ost_call call;

	if (call.nested())
		return call.ret(real_read(fd, buf, len));
	return call.ret(ost_read_call(fd, buf, len));
}

OST_EXPORT ssize_t
recvmsg(int fd, struct msghdr *msg, int flags)
{
	ost_call call;

	if (call.nested())
		return call.ret(real_recvmsg(fd, msg, flags));
	return call.ret(ost_recvmsg_call(fd, msg, flags));
}

OST_EXPORT int
recvmmsg(int fd, struct mmsghdr *vec, unsigned int vlen, int flags,
    struct timespec *timeout)
{
	ost_call call;

	if (call.nested())
		return call.ret(real_recvmmsg(fd, vec, vlen, flags, timeout));
	return call.ret(ost_recvmmsg_call(fd, vec, vlen, flags, timeout));
}

OST_EXPORT ssize_t
readv(int fd, const struct iovec *iov, int iovcnt)
{
	ost_call call;

	if (call.nested())
		return call.ret(real_readv(fd, iov, iovcnt));
	return call.ret(ost_readv_call(fd, iov, iovcnt));
}

OST_EXPORT ssize_t
__recv_chk(int fd, void *buf, size_t len, size_t buflen, int flags)
{
	if (len > buflen)
		__chk_fail();
	return recv(fd, buf, len, flags);
}

OST_EXPORT ssize_t
__recvfrom_chk(int fd, void *buf, size_t len, size_t buflen, int flags,
    struct sockaddr *from, socklen_t *fromlen)
{
	if (len > buflen)
		__chk_fail();
	return recvfrom(fd, buf, len, flags, from, fromlen);
}

OST_EXPORT ssize_t
__read_chk(int fd, void *buf, size_t len, size_t buflen)
{
	if (len > buflen)
		__chk_fail();
	return read(fd, buf, len);
}
