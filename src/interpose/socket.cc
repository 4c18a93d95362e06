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
	OST_ENTRY();
	if (OST_FROM_FRIO())
		return real_socket(domain, type, protocol);
	return ost_socket(domain, type, protocol);
}

OST_EXPORT int
close(int fd)
{
	OST_ENTRY();
	if (OST_FROM_FRIO())
		return real_close(fd);
	return ost_close(fd);
}

/*
 * fcntl and fcntl64: the non-blocking mark follows F_SETFL.  real is the
 * table's slot, read only once start-up has filled it.
 */
static int
ost_fcntl(int (*const *real)(int, int, ...), int fd, int cmd, unsigned long arg)
{
	int ret, saved_errno;

	OST_ENTRY();
	if (OST_FROM_FRIO())
		return (*real)(fd, cmd, arg);
	ost_note_fl_change(fd, cmd, arg);
	ret = (*real)(fd, cmd, arg);
	if (ret >= 0 && (cmd == F_DUPFD || cmd == F_DUPFD_CLOEXEC)) {
		saved_errno = errno;
		ost_note_dup(fd);
		errno = saved_errno;
	}
	return ret;
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
	OST_ENTRY();
	if (OST_FROM_FRIO())
		return real_dup(fd);
	return ost_dup_call(fd, -1, 0, NULL);
}

OST_EXPORT int
dup2(int fd, int newfd)
{
	OST_ENTRY();
	if (OST_FROM_FRIO() || newfd < 0)
		return real_dup2(fd, newfd);
	return ost_dup_call(fd, newfd, 0, NULL);
}

OST_EXPORT int
dup3(int fd, int newfd, int flags)
{
	OST_ENTRY();
	if (OST_FROM_FRIO() || newfd < 0)
		return real_dup3(fd, newfd, flags);
	return ost_dup_call(fd, newfd, flags, real_dup3);
}

OST_EXPORT int
ioctl(int fd, unsigned long request, ...)
{
	void *argp;
	va_list ap;

	OST_ENTRY();
	va_start(ap, request);
	argp = va_arg(ap, void *);
	va_end(ap);
	if (OST_FROM_FRIO())
		return real_ioctl(fd, request, argp);
	/* The next datagram's length, when the ring holds it. */
	if (request == FIONREAD && argp != NULL &&
	    ost_next_len(fd, (int *)argp))
		return 0;
	ost_note_fionbio(fd, request, argp);
	return real_ioctl(fd, request, argp);
}

OST_EXPORT int
bind(int fd, const struct sockaddr *addr, socklen_t len)
{
	OST_ENTRY();
	if (OST_FROM_FRIO())
		return real_bind(fd, addr, len);
	return ost_bind_call(fd, addr, len);
}

OST_EXPORT int
connect(int fd, const struct sockaddr *addr, socklen_t len)
{
	OST_ENTRY();
	if (OST_FROM_FRIO())
		return real_connect(fd, addr, len);
	return ost_connect_call(fd, addr, len);
}
