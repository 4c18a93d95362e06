#include "platform/libc.h"

#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>

int (*libc_socket)(int, int, int);
int (*libc_bind)(int, const struct sockaddr *, socklen_t);
int (*libc_connect)(int, const struct sockaddr *, socklen_t);
int (*libc_setsockopt)(int, int, int, const void *, socklen_t);
int (*libc_getsockopt)(int, int, int, void *, socklen_t *);
ssize_t (*libc_send)(int, const void *, size_t, int);
ssize_t (*libc_sendto)(int, const void *, size_t, int,
    const struct sockaddr *, socklen_t);
ssize_t (*libc_sendmsg)(int, const struct msghdr *, int);
ssize_t (*libc_recvfrom)(int, void *, size_t, int, struct sockaddr *,
    socklen_t *);
ssize_t (*libc_recvmsg)(int, struct msghdr *, int);

void *
ost_libc_lookup(const char *name, const char *missing_fmt)
{
	void *fn;

	(void) dlerror();
	fn = dlsym(RTLD_NEXT, name);
	if (fn == NULL) {
		const char *why = dlerror();

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
		(void) fprintf(stderr, missing_fmt, why != NULL ? why : name);
#pragma GCC diagnostic pop
		exit(1);
	}
	return fn;
}

template <typename Fn>
static void
lookup(Fn *slot, const char *name, const char *missing_fmt)
{
	*slot = reinterpret_cast<Fn>(ost_libc_lookup(name, missing_fmt));
}

void
ost_libc_init(void)
{
	lookup(&libc_socket, "socket", "socket() not found: %s\n");
	lookup(&libc_bind, "bind", "bind() not found: %s\n");
	lookup(&libc_connect, "connect", "connect() not found: %s\n");
	lookup(&libc_setsockopt, "setsockopt", "setsockopt() not found: %s\n");
	lookup(&libc_getsockopt, "getsockopt", "getsockopt() not found: %s\n");
	lookup(&libc_send, "send", "send() not found: %s\n");
	lookup(&libc_sendto, "sendto", "sendto() not found: %s\n");
	lookup(&libc_sendmsg, "sendmsg", "sendmsg() not found: %s\n");
	lookup(&libc_recvfrom, "recvfrom", "recvfrom() not found: %s\n");
	lookup(&libc_recvmsg, "recvmsg", "recvmsg() not found: %s\n");
}
