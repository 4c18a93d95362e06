#include "support.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

void
ost_test_init()
{
	ost_init();
}

std::string
capture_stderr(void (*fn)(void *), void *arg)
{
	char path[] = "/tmp/ost_stderr_XXXXXX";
	int fd = mkstemp(path);
	int saved = dup(2);
	std::string out;
	char buf[4096];
	ssize_t n;

	fflush(stderr);
	dup2(fd, 2);
	fn(arg);
	fflush(stderr);
	dup2(saved, 2);
	close(saved);
	lseek(fd, 0, SEEK_SET);
	while ((n = read(fd, buf, sizeof (buf))) > 0)
		out.append(buf, (size_t)n);
	close(fd);
	unlink(path);
	return out;
}

uint32_t
refcnt_of(uost_t *up)
{
	pthread_mutex_lock(&up->uost_lock);
	uint32_t n = up->uost_refcnt;
	pthread_mutex_unlock(&up->uost_lock);
	return n;
}

uost_t *
record(int fd)
{
	uost_t *up = ost_find_sd(fd);

	if (up != NULL)
		ost_release(up);
	return up;
}

int
registry_size()
{
	int n = 0;

	for (auto &ft : fd_tbl_array) {
		pthread_mutex_lock(&ft.ft_lock);
		for (void *p = list_head(&ft.ft_head); p != NULL;
		    p = list_next(&ft.ft_head, p))
			n++;
		pthread_mutex_unlock(&ft.ft_lock);
	}
	return n;
}

int
bound_udp_socket(int family, struct sockaddr_storage *addr)
{
	int sd = libc_socket(family, SOCK_DGRAM, 0);
	socklen_t len = sizeof (*addr);

	memset(addr, 0, sizeof (*addr));
	if (family == AF_INET) {
		auto *sin = (struct sockaddr_in *)addr;
		sin->sin_family = AF_INET;
		sin->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
	} else {
		auto *sin6 = (struct sockaddr_in6 *)addr;
		sin6->sin6_family = AF_INET6;
		sin6->sin6_addr = in6addr_loopback;
	}
	if (libc_bind(sd, (struct sockaddr *)addr,
	    family == AF_INET ? sizeof (struct sockaddr_in) :
	    sizeof (struct sockaddr_in6)) != 0 ||
	    getsockname(sd, (struct sockaddr *)addr, &len) != 0) {
		close(sd);
		return -1;
	}
	return sd;
}
