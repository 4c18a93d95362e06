/*
 * socket, close and the descriptor-flag calls; bind and connect.  The
 * decisions live in the core (core/socket_calls.cc); these only route.
 */
#include <fcntl.h>
#include <stdarg.h>
#include <sys/ioctl.h>

#include "interpose/interpose.h"

OST_EXPORT int
socket(int domain, int type, int protocol)
{
	ost_call call;

	if (call.nested())
		return call.ret(real_socket(domain, type, protocol));
	return call.ret(ost_socket(domain, type, protocol));
}

OST_EXPORT int
close(int fd)
{
	ost_call call;

	if (OST_FROM_FRIO())
		return call.ret(real_close(fd));
	if (call.nested())
		return call.ret(ost_close_nested(fd));
	return call.ret(ost_close(fd));
}

/*
 * fcntl and fcntl64: the non-blocking mark follows F_SETFL.  real is the
 * table's slot, read only once start-up has filled it.
 */
static int
ost_fcntl(int (*const *real)(int, int, ...), int fd, int cmd, unsigned long arg)
{
	ost_call call;
	int ret;

	if (call.nested())
		return call.ret((*real)(fd, cmd, arg));
	ost_note_fl_change(fd, cmd, arg);
	ret = (*real)(fd, cmd, arg);
	if (ret >= 0 && (cmd == F_DUPFD || cmd == F_DUPFD_CLOEXEC))
		ost_note_dup(fd);
	return call.ret(ret);
}

/* The one optional argument is an int or a pointer; both fit a long. */
OST_EXPORT int
fcntl(int fd, int cmd, ...)
{
	unsigned long arg;
	va_list ap;

	va_start(ap, cmd);
	arg = va_arg(ap, unsigned long);
	va_end(ap);
	return ost_fcntl(&real_fcntl, fd, cmd, arg);
}

/* What programs built with _FILE_OFFSET_BITS=64 call. */
OST_EXPORT int
fcntl64(int fd, int cmd, ...)
{
	unsigned long arg;
	va_list ap;

	va_start(ap, cmd);
	arg = va_arg(ap, unsigned long);
	va_end(ap);
	return ost_fcntl(&real_fcntl64, fd, cmd, arg);
}

OST_EXPORT int
dup(int fd)
{
	ost_call call;

	if (call.nested())
		return call.ret(real_dup(fd));
	return call.ret(ost_dup_call(fd, -1, 0, NULL));
}

OST_EXPORT int
dup2(int fd, int newfd)
{
	ost_call call;

	if (call.nested() || newfd < 0)
		return call.ret(real_dup2(fd, newfd));
	return call.ret(ost_dup_call(fd, newfd, 0, NULL));
}

OST_EXPORT int
dup3(int fd, int newfd, int flags)
{
	ost_call call;

	if (call.nested() || newfd < 0)
		return call.ret(real_dup3(fd, newfd, flags));
	return call.ret(ost_dup_call(fd, newfd, flags, real_dup3));
}

OST_EXPORT int
ioctl(int fd, unsigned long request, ...)
{
	ost_call call;
	void *argp;
	va_list ap;

	va_start(ap, request);
	argp = va_arg(ap, void *);
	va_end(ap);
	if (call.nested())
		return call.ret(real_ioctl(fd, request, argp));
	/* The next datagram's length, when the ring holds it. */
	if (request == FIONREAD && argp != NULL &&
	    ost_next_len(fd, (int *)argp))
		return call.ret(0);
	ost_note_fionbio(fd, request, argp);
	return call.ret(real_ioctl(fd, request, argp));
}

OST_EXPORT int
shutdown(int fd, int how)
{
	ost_call call;

	if (call.nested())
		return call.ret(real_shutdown(fd, how));
	return call.ret(ost_shutdown_call(fd, how));
}

OST_EXPORT int
bind(int fd, const struct sockaddr *addr, socklen_t len)
{
	ost_call call;

	if (call.nested())
		return call.ret(real_bind(fd, addr, len));
	return call.ret(ost_bind_call(fd, addr, len));
}

OST_EXPORT int
connect(int fd, const struct sockaddr *addr, socklen_t len)
{
	ost_call call;

	if (call.nested())
		return call.ret(real_connect(fd, addr, len));
	return call.ret(ost_connect_call(fd, addr, len));
}
