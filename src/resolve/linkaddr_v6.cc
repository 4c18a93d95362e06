/*
 * IPv6 interface and link-address resolution: an interface's addresses
 * and name, the interface that owns an address, and the link-layer address
 * of a neighbour or of an address of this host.
 *
 * The interface list is getifaddrs(), in the kernel's order; its AF_INET6
 * entries carry the interface's flags and its name, from which
 * if_nametoindex() gives the index.  Unlike IPv4, nothing here provokes
 * neighbour discovery: an address the neighbour table does not hold simply
 * fails, and the transmit set-up falls back to the kernel, which resolves
 * it as it sends.
 */
#include <arpa/inet.h>
#include <errno.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <string.h>

#include "os/libc.h"
#include "os/log.h"
#include "resolve/netlink.h"
#include "resolve/resolve.h"

/* The IPv6 address of a list entry, or null for other families. */
static const struct in6_addr *
entry_v6(const struct ifaddrs *ifa)
{
	if (ifa->ifa_addr == NULL || ifa->ifa_addr->sa_family != AF_INET6)
		return NULL;
	return &((const struct sockaddr_in6 *)ifa->ifa_addr)->sin6_addr;
}

static bool
get_if_info_v6(uint32_t if_index, const bool *link_local, struct in6_addr *addr,
    char *if_name)
{
	struct ifaddrs *list;
	const struct ifaddrs *chosen = NULL;

	if (getifaddrs(&list) != 0) {
		ost_debug("getifaddrs: %d\n", errno);
		return false;
	}
	for (const struct ifaddrs *ifa = list; ifa != NULL;
	     ifa = ifa->ifa_next) {
		const struct in6_addr *a = entry_v6(ifa);
		char name[OST_IFNAME_SIZE];
		uint32_t index;
		bool ll;

		if (a == NULL)
			continue;
		ost_if_name_copy(name, ifa->ifa_name);
		index = if_nametoindex(name);
		if (index == 0) {
			ost_debug("if_nametoindex: %s: %d\n", ifa->ifa_name,
			    errno);
			continue;
		}
		if (index != if_index || IN6_IS_ADDR_UNSPECIFIED(a) ||
		    IN6_IS_ADDR_LOOPBACK(a))
			continue;
		ll = IN6_IS_ADDR_LINKLOCAL(a);
		if (link_local != NULL) {
			if (ll == (*link_local)) {
				chosen = ifa;
				break;
			}
			continue;
		}
		/* Any address that is not link-local wins at once; otherwise
		 * the last link-local one stands. */
		chosen = ifa;
		if (!ll)
			break;
	}
	if (chosen != NULL) {
		*addr = *entry_v6(chosen);
		ost_if_name_copy(if_name, chosen->ifa_name);
	}
	freeifaddrs(list);
	return chosen != NULL;
}

bool
ost_get_if_info_v6(uint32_t if_index, const bool *link_local,
    struct in6_addr *addr, char *if_name)
{
	ost_errno_keep keep;

	return get_if_info_v6(if_index, link_local, addr, if_name);
}

static bool
find_if_v6(const struct in6_addr *addr, uint32_t scope_id, ost_ifref_t *ifr)
{
	struct ifaddrs *list;
	bool found = false;

	if (getifaddrs(&list) != 0) {
		ost_debug("getifaddrs: %d\n", errno);
		return false;
	}
	for (const struct ifaddrs *ifa = list; ifa != NULL;
	     ifa = ifa->ifa_next) {
		const struct in6_addr *a = entry_v6(ifa);
		char name[OST_IFNAME_SIZE];
		uint32_t index;

		if (a == NULL)
			continue;
		if (memcmp(a, addr, sizeof(*a)) != 0) {
			ost_debug("mismatched address: %s\n", ost_ntoa_v6(a));
			continue;
		}
		ost_if_name_copy(name, ifa->ifa_name);
		/* A carrier that is down ends the search: the address is not
		 * usable here even if another interface has it too. */
		if (!(ifa->ifa_flags & IFF_UP)) {
			ost_debug("addr not up\n");
			break;
		}
		index = if_nametoindex(name);
		if (index == 0) {
			ost_debug("cannot get %s index: %d\n", name, errno);
			break;
		}
		/* The same link-local address may sit on several links. */
		if (scope_id != 0 && index != scope_id) {
			ost_debug("mismatched scope_id: %u != %u\n", scope_id,
			    index);
			continue;
		}
		memcpy(ifr->ir_name, name, sizeof(name));
		ifr->ir_index = index;
		found = true;
		break;
	}
	freeifaddrs(list);
	return found;
}

bool
ost_find_if_v6(const struct in6_addr *addr, uint32_t scope_id, ost_ifref_t *ifr)
{
	ost_errno_keep keep;

	return find_if_v6(addr, scope_id, ifr);
}

typedef enum {
	OWN_NO = 0,
	OWN_YES,
	OWN_FAIL
} own_t;

/*
 * Linux keeps no neighbour entries for its own addresses: when addr is one
 * of interface name's, the answer is the interface's own address.
 */
static own_t
own_addr_v6(const struct in6_addr *addr, const char *name, uint32_t index,
    struct ether_addr *ether)
{
	struct ifaddrs *list;
	own_t own = OWN_NO;

	if (getifaddrs(&list) != 0) {
		ost_debug("getifaddrs: %d\n", errno);
		return OWN_FAIL;
	}
	for (const struct ifaddrs *ifa = list; ifa != NULL;
	     ifa = ifa->ifa_next) {
		const struct in6_addr *a = entry_v6(ifa);
		char n[OST_IFNAME_SIZE];

		if (a == NULL || memcmp(a, addr, sizeof(*a)) != 0)
			continue;
		ost_if_name_copy(n, ifa->ifa_name);
		if (strcmp(n, name) != 0)
			continue;
		own = ost_if_ether(list, index, ether) ? OWN_YES : OWN_FAIL;
		break;
	}
	freeifaddrs(list);
	return own;
}

static bool
get_eaddr_v6(const struct in6_addr *addr, struct ether_addr *ether,
    uint32_t *if_index, char *if_name)
{
	char name[OST_IFNAME_SIZE];
	bool given;
	struct ether_addr ea;
	ost_nl_neigh_t nb;
	ost_nl_t nl;
	uint32_t index;
	ost_nl_status_t st;

	if (addr == NULL || ether == NULL || if_name == NULL)
		return false;
	given = if_name[0] != '\0';
	if (given) {
		ost_if_name_copy(name, if_name);
		ost_debug("given %s\n", name);
		index = if_nametoindex(name);
		if (index == 0) {
			ost_debug("if_nametoindex: %s: %d\n", name, errno);
			return false;
		}
	} else {
		ost_ifref_t ifr;

		if (!ost_find_if_v6(addr, if_index != NULL ? *if_index : 0,
			&ifr))
			return false;
		ost_debug("use %s (%d)\n", ifr.ir_name, (int)ifr.ir_index);
		memcpy(name, ifr.ir_name, sizeof(name));
		index = ifr.ir_index;
	}
	switch (own_addr_v6(addr, name, index, &ea)) {
	case OWN_YES:
		goto done;
	case OWN_FAIL:
		return false;
	case OWN_NO:
		break;
	}
	if (!ost_nl_open(&nl)) {
		ost_debug("socket: %d\n", errno);
		return false;
	}
	st = ost_nl_neigh_query(&nl, AF_INET6, addr, index, &nb);
	ost_nl_close(&nl);
	if (st == OST_NL_ERROR) {
		ost_debug("RTM_GETNEIGH: %d\n", nb.nn_error);
		return false;
	}
	/* The kernel reports a link-layer address only for entries that
	 * hold one; an entry still being resolved counts as none. */
	if (!nb.nn_complete) {
		ost_debug("RTM_GETNEIGH: %d\n", ENOENT);
		return false;
	}
	if (nb.nn_lladdr_len != ETHER_ADDR_LEN) {
		ost_debug("mismatched MAC address length: %d\n",
		    (int)nb.nn_lladdr_len);
		return false;
	}
	memcpy(ea.ether_addr_octet, nb.nn_lladdr, ETHER_ADDR_LEN);
done:
	if (!given) {
		memcpy(if_name, name, sizeof(name));
		if (if_index != NULL)
			*if_index = index;
	}
	*ether = ea;
	return true;
}

bool
ost_get_eaddr_v6(const struct in6_addr *addr, struct ether_addr *ether,
    uint32_t *if_index, char *if_name)
{
	ost_errno_keep keep;

	return get_eaddr_v6(addr, ether, if_index, if_name);
}
