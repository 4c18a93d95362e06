/*
 * IPv4 link-address resolution: the Ethernet address and interface of a
 * next hop, or of an address of this host.
 *
 * Linux keeps no neighbour entries for its own addresses, so those are
 * answered from the interface list with the interface's own address.  A
 * neighbour comes from the neighbour table; when the table has no complete
 * entry, one TCP connection attempt to port 1 makes the kernel resolve the
 * address (a refusal is as good as a connection: either way the address
 * answered), and the table is asked once more.
 */
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>

#include "os/libc.h"
#include "os/log.h"
#include "resolve/netlink.h"
#include "resolve/resolve.h"

/* How long the provoking connection attempt may take. */
#define OST_TMP_CONNECT_MS 500

typedef enum {
	OWN_NO = 0,
	OWN_YES,
	OWN_FAIL
} own_t;

/*
 * Whether addr is one of this host's addresses; if so, the owner's index,
 * name (the label cut at its colon) and own Ethernet address.
 */
static own_t
own_addr_v4(const struct in_addr *addr, struct ether_addr *ether,
    uint32_t *if_index, char *if_name)
{
	struct ifaddrs *list, *ifa;
	own_t own = OWN_NO;

	if (getifaddrs(&list) != 0) {
		/* The neighbour table may still know the address. */
		ost_debug("getifaddrs: %d\n", errno);
		return OWN_NO;
	}
	for (ifa = list; ifa != NULL; ifa = ifa->ifa_next) {
		const struct sockaddr_in *sin =
		    (const struct sockaddr_in *)ifa->ifa_addr;
		char name[OST_IFNAME_SIZE];
		struct ether_addr ea;
		uint32_t index;

		if (sin == NULL || sin->sin_family != AF_INET ||
		    sin->sin_addr.s_addr != addr->s_addr)
			continue;
		ost_if_name_copy(name, ifa->ifa_name);
		/* Frames through an interface that is down go nowhere. */
		if (!(ifa->ifa_flags & IFF_UP)) {
			ost_debug("%s is down\n", name);
			own = OWN_FAIL;
			break;
		}
		index = if_nametoindex(name);
		if (index == 0) {
			ost_debug("if_nametoindex: %s: %d\n", name, errno);
			own = OWN_FAIL;
			break;
		}
		if (!ost_if_ether(list, index, &ea)) {
			own = OWN_FAIL;
			break;
		}
		*if_index = index;
		if (if_name != NULL)
			memcpy(if_name, name, sizeof(name));
		*ether = ea;
		own = OWN_YES;
		break;
	}
	freeifaddrs(list);
	return own;
}

static bool
get_eaddr_v4(const struct in_addr *addr, struct ether_addr *ether,
    uint32_t *if_index, char *if_name)
{
	bool provoked = false;
	char name[IF_NAMESIZE];
	ost_nl_neigh_t nb;
	ost_nl_t nl;

	if (addr == NULL || ether == NULL || if_index == NULL)
		return false;
	switch (own_addr_v4(addr, ether, if_index, if_name)) {
	case OWN_YES:
		return true;
	case OWN_FAIL:
		return false;
	case OWN_NO:
		break;
	}
	if (!ost_nl_open(&nl)) {
		ost_debug("socket: %d\n", errno);
		return false;
	}
	for (;;) {
		if (ost_nl_neigh_query(&nl, AF_INET, addr, 0, &nb) ==
		    OST_NL_ERROR) {
			ost_debug("RTM_GETNEIGH: %d\n", nb.nn_error);
			goto fail;
		}
		if (nb.nn_complete)
			break;
		if (!nb.nn_found) {
			char text[INET_ADDRSTRLEN];

			ost_debug("no neighbour entry: %s\n",
			    inet_ntop(AF_INET, addr, text, sizeof(text)));
			if (provoked)
				goto fail;
		} else if (provoked) {
			ost_debug("neighbour entry incomplete\n");
			goto fail;
		}
		if (!ost_tmp_connect(AF_INET, addr))
			goto fail;
		provoked = true;
	}
	ost_nl_close(&nl);
	/* Never more than the 6 bytes the output holds. */
	if (nb.nn_lladdr_len != ETHER_ADDR_LEN) {
		ost_debug("mismatched MAC address length: %d\n",
		    (int)nb.nn_lladdr_len);
		return false;
	}
	*if_index = nb.nn_ifindex;
	if (if_name != NULL) {
		if (if_indextoname(nb.nn_ifindex, name) == NULL)
			return false;
		ost_if_name_copy(if_name, name);
	}
	memcpy(ether->ether_addr_octet, nb.nn_lladdr, ETHER_ADDR_LEN);
	return true;
fail:
	ost_nl_close(&nl);
	return false;
}

bool
ost_get_eaddr_v4(const struct in_addr *addr, struct ether_addr *ether,
    uint32_t *if_index, char *if_name)
{
	ost_errno_keep keep;

	return get_eaddr_v4(addr, ether, if_index, if_name);
}

/* The outcome of the attempt on fd, waiting until deadline. */
static int
tmp_connect_wait(int fd, hrtime_t deadline)
{
	for (;;) {
		struct pollfd pfd = { fd, POLLOUT, 0 };
		hrtime_t left = deadline - gethrtime();
		socklen_t len = sizeof(int);
		int err = 0, n;

		if (left <= 0)
			return ETIMEDOUT;
		n = real_poll(&pfd, 1, (int)((left + 999999) / 1000000));
		if (n < 0 && errno != EINTR)
			return errno;
		if (n <= 0)
			continue;
		if (real_getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) < 0)
			return errno;
		return err;
	}
}

static bool
tmp_connect(int family, const void *addr)
{
	struct sockaddr_storage ss;
	socklen_t sslen;
	struct linger lg = { 1, 0 };
	hrtime_t deadline;
	int fd, err;

	memset(&ss, 0, sizeof(ss));
	if (family == AF_INET) {
		struct sockaddr_in *sin = (struct sockaddr_in *)&ss;

		sin->sin_family = AF_INET;
		sin->sin_port = htons(1);
		memcpy(&sin->sin_addr, addr, sizeof(sin->sin_addr));
		sslen = sizeof(*sin);
	} else if (family == AF_INET6) {
		struct sockaddr_in6 *sin6 = (struct sockaddr_in6 *)&ss;

		sin6->sin6_family = AF_INET6;
		sin6->sin6_port = htons(1);
		memcpy(&sin6->sin6_addr, addr, sizeof(sin6->sin6_addr));
		sslen = sizeof(*sin6);
	} else {
		return false;
	}
	/* Non-blocking, so that the wait below is what bounds the attempt. */
	fd = real_socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC,
	    IPPROTO_TCP);
	if (fd < 0) {
		ost_debug("socket: %d\n", errno);
		return false;
	}
	/* Closing then aborts whatever the attempt reached, leaving nothing
	 * behind on either side. */
	if (real_setsockopt(fd, SOL_SOCKET, SO_LINGER, &lg, sizeof(lg)) < 0) {
		ost_debug("setsockopt: %d\n", errno);
		(void)real_close(fd);
		return false;
	}
	deadline = gethrtime() + (hrtime_t)OST_TMP_CONNECT_MS * 1000000;
	err = real_connect(fd, (struct sockaddr *)&ss, sslen) == 0 ? 0 : errno;
	if (err == EINPROGRESS)
		err = tmp_connect_wait(fd, deadline);
	(void)real_close(fd);
	if (err == 0 || err == ECONNREFUSED)
		return true;
	ost_debug("connect: %d\n", err);
	return false;
}

bool
ost_tmp_connect(int family, const void *addr)
{
	ost_errno_keep keep;

	return tmp_connect(family, addr);
}

bool
ost_if_addr_v4(const char *if_name, struct in_addr *addr)
{
	ost_errno_keep keep;
	struct ifaddrs *list, *ifa;
	bool found = false;

	if (getifaddrs(&list) != 0)
		return false;
	for (ifa = list; ifa != NULL; ifa = ifa->ifa_next) {
		char name[OST_IFNAME_SIZE];

		if (ifa->ifa_addr == NULL ||
		    ifa->ifa_addr->sa_family != AF_INET ||
		    !(ifa->ifa_flags & IFF_UP))
			continue;
		ost_if_name_copy(name, ifa->ifa_name);
		if (strcmp(name, if_name) != 0)
			continue;
		*addr = ((const struct sockaddr_in *)ifa->ifa_addr)->sin_addr;
		found = true;
		break;
	}
	freeifaddrs(list);
	return found;
}
