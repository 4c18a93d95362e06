#include "support.h"

#include "os/frio_loader.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

void
ost_test_init()
{
	/* The test build of libfrio, already loaded: its mem double's hooks
	 * and the library's handles are one copy. */
	ost_frio_set_path("libfrio_testing.so");
	setenv("FRIO_BACKEND", "mem", 0);
	ost_init();
}

bool
attach_to_mem(uost_t *up, const char *if_name, const struct in6_addr *addr,
    in_port_t port, uint32_t if_index)
{
	pthread_mutex_lock(&up->uost_lock);
	snprintf(up->uost_if_name, sizeof(up->uost_if_name), "%s", if_name);
	up->uost_if_index = if_index;
	ost_tpl_set_saddr(up, addr);
	ost_tpl_set_sport(up, port);
	bool ok = ost_attach_locked(up);
	pthread_mutex_unlock(&up->uost_lock);
	return ok;
}

uint32_t
refcnt_of(uost_t *up)
{
	pthread_mutex_lock(&up->uost_lock);
	uint32_t n = __atomic_load_n(&up->uost_refcnt, __ATOMIC_RELAXED) &
	    ~OST_REF_DRAIN;
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
count_fds()
{
	DIR *d = opendir("/proc/self/fd");
	int n = 0;
	while (d != nullptr && readdir(d) != nullptr)
		n++;
	if (d != nullptr)
		closedir(d);
	return n;
}

const char *
env(const char *name)
{
	const char *v = getenv(name);
	return v != nullptr ? v : "";
}

std::string
mac_str(const void *octets)
{
	const uint8_t *o = (const uint8_t *)octets;
	char buf[20];
	snprintf(buf, sizeof(buf), "%02x:%02x:%02x:%02x:%02x:%02x", o[0], o[1],
	    o[2], o[3], o[4], o[5]);
	return buf;
}

int
bind_loopback(int fd, int family, struct sockaddr_storage *addr)
{
	socklen_t len = sizeof(*addr);
	memset(addr, 0, sizeof(*addr));
	addr->ss_family = (sa_family_t)family;
	if (family == AF_INET)
		((struct sockaddr_in *)addr)->sin_addr.s_addr =
		    htonl(INADDR_LOOPBACK);
	else
		((struct sockaddr_in6 *)addr)->sin6_addr = in6addr_loopback;
	if (real_bind(fd, (struct sockaddr *)addr,
		family == AF_INET ? sizeof(struct sockaddr_in) :
				    sizeof(struct sockaddr_in6)) != 0 ||
	    getsockname(fd, (struct sockaddr *)addr, &len) != 0)
		return -1;
	return 0;
}

int
bound_udp_socket(int family, struct sockaddr_storage *addr)
{
	int sd = real_socket(family, SOCK_DGRAM, 0);
	if (bind_loopback(sd, family, addr) != 0) {
		close(sd);
		return -1;
	}
	return sd;
}

bool
delivered(int sd, const struct sockaddr_storage &addr, size_t len)
{
	std::string buf(len, 'd');
	int tx = real_socket(addr.ss_family, SOCK_DGRAM, 0);
	struct pollfd pfd = { sd, POLLIN, 0 };

	real_sendto(tx, buf.data(), len, 0, (const struct sockaddr *)&addr,
	    addr.ss_family == AF_INET ? sizeof(struct sockaddr_in) :
					sizeof(struct sockaddr_in6));
	close(tx);
	return poll(&pfd, 1, 200) == 1 &&
	    real_recvfrom(sd, &buf[0], len, MSG_DONTWAIT, NULL, NULL) ==
	    (ssize_t)len;
}
