/*
 * IPv4 link-address resolution: the Ethernet address and interface of a
 * next hop, or of an address of this host.
 *
 * Linux keeps no neighbour entries for its own addresses, so those are
 * answered from the interface list with the interface's own address.  A
 * neighbour comes from the neighbour table's complete entry, or not at
 * all: nothing here makes the kernel resolve it.  The transmit path sends
 * through the kernel meanwhile, which resolves the next hop as it
 * delivers, and takes the bypass once the entry appears.
 */
#include <arpa/inet.h>
#include <errno.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>

#include "os/libc.h"
#include "os/log.h"
#include "resolve/netlink.h"
#include "resolve/resolve.h"

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
	char name[IF_NAMESIZE];
	ost_nl_neigh_t nb;
	ost_nl_t nl;
	ost_nl_status_t st;

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
	st = ost_nl_neigh_query(&nl, AF_INET, addr, 0, &nb);
	ost_nl_close(&nl);
	if (st == OST_NL_ERROR) {
		ost_debug("RTM_GETNEIGH: %d\n", nb.nn_error);
		return false;
	}
	if (!nb.nn_complete) {
		char text[INET_ADDRSTRLEN];

		ost_debug("neighbour %s: %s\n",
		    inet_ntop(AF_INET, addr, text, sizeof(text)),
		    nb.nn_found ? "incomplete" : "no entry");
		return false;
	}
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
}

bool
ost_get_eaddr_v4(const struct in_addr *addr, struct ether_addr *ether,
    uint32_t *if_index, char *if_name)
{
	ost_errno_keep keep;

	return get_eaddr_v4(addr, ether, if_index, if_name);
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
