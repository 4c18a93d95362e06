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

#include "sub/netlink.h"
#include "sub/resolve.h"

/* The IPv6 address of a list entry, or null for other families. */
static const struct in6_addr *
entry_v6(const struct ifaddrs *ifa)
{
	if (ifa->ifa_addr == NULL || ifa->ifa_addr->sa_family != AF_INET6)
		return NULL;
	return &((const struct sockaddr_in6 *)ifa->ifa_addr)->sin6_addr;
}

static boolean_t
get_if_info_v6(uint32_t if_index, const boolean_t *link_local,
    struct in6_addr *addr, char *if_name)
{
	const char *fn = "ost_get_if_info_v6";
	struct ifaddrs *list;
	const struct ifaddrs *chosen = NULL;

	if (getifaddrs(&list) != 0) {
		ost_debug("%s: getallifs\n", fn);
		return B_FALSE;
	}
	for (const struct ifaddrs *ifa = list; ifa != NULL;
	    ifa = ifa->ifa_next) {
		const struct in6_addr *a = entry_v6(ifa);
		char name[OST_IFNAME_SIZE];
		uint32_t index;
		boolean_t ll;

		if (a == NULL)
			continue;
		ost_if_name_copy(name, ifa->ifa_name);
		index = if_nametoindex(name);
		if (index == 0) {
			ost_debug("%s: ioctl(SIOCGIFINDEX): %s(%d): %d\n", fn,
			    ifa->ifa_name, 0, errno);
			continue;
		}
		if (index != if_index || IN6_IS_ADDR_UNSPECIFIED(a) ||
		    IN6_IS_ADDR_LOOPBACK(a))
			continue;
		ll = IN6_IS_ADDR_LINKLOCAL(a) ? B_TRUE : B_FALSE;
		if (link_local != NULL) {
			if (ll == (*link_local ? B_TRUE : B_FALSE)) {
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
	return chosen != NULL ? B_TRUE : B_FALSE;
}

boolean_t
ost_get_if_info_v6(uint32_t if_index, const boolean_t *link_local,
    struct in6_addr *addr, char *if_name)
{
	ost_errno_keep keep;

	return get_if_info_v6(if_index, link_local, addr, if_name);
}

static boolean_t
find_if_v6(const struct in6_addr *addr, uint32_t scope_id,
    ost_lifreq_t *lifr)
{
	const char *fn = "ost_find_if_v6";
	struct ifaddrs *list;
	boolean_t found = B_FALSE;

	if (getifaddrs(&list) != 0) {
		ost_debug("%s: getallifs\n", fn);
		return B_FALSE;
	}
	for (const struct ifaddrs *ifa = list; ifa != NULL;
	    ifa = ifa->ifa_next) {
		const struct in6_addr *a = entry_v6(ifa);
		char name[OST_IFNAME_SIZE];
		uint32_t index;

		if (a == NULL)
			continue;
		if (memcmp(a, addr, sizeof (*a)) != 0) {
			if (ost_debug_flag != 0) {
				char text[INET6_ADDRSTRLEN];

				ost_debug("%s: mismatched address: %s\n", fn,
				    inet_ntop(AF_INET6, a, text,
				    sizeof (text)));
			}
			continue;
		}
		ost_if_name_copy(name, ifa->ifa_name);
		/* A carrier that is down ends the search: the address is not
		 * usable here even if another interface has it too. */
		if (!(ifa->ifa_flags & IFF_UP)) {
			ost_debug("%s: addr not up\n", fn);
			break;
		}
		index = if_nametoindex(name);
		if (index == 0) {
			ost_debug("%s: cannot get %s index: %d\n", fn, name,
			    errno);
			break;
		}
		/* The same link-local address may sit on several links. */
		if (scope_id != 0 && index != scope_id) {
			ost_debug("%s: mismatched scope_id: %u != %u\n", fn,
			    scope_id, index);
			continue;
		}
		memcpy(lifr->lifr_name, name, sizeof (name));
		lifr->lifr_index = index;
		found = B_TRUE;
		break;
	}
	freeifaddrs(list);
	return found;
}

boolean_t
ost_find_if_v6(const struct in6_addr *addr, uint32_t scope_id,
    ost_lifreq_t *lifr)
{
	ost_errno_keep keep;

	return find_if_v6(addr, scope_id, lifr);
}

typedef enum { OWN_NO = 0, OWN_YES, OWN_FAIL } own_t;

/*
 * Linux keeps no neighbour entries for its own addresses: when addr is one
 * of interface name's, the answer is the interface's own address.
 */
static own_t
own_addr_v6(const char *fn, const struct in6_addr *addr, const char *name,
    uint32_t index, struct ether_addr *ether)
{
	struct ifaddrs *list;
	own_t own = OWN_NO;

	if (getifaddrs(&list) != 0) {
		ost_debug("%s: getallifs\n", fn);
		return OWN_FAIL;
	}
	for (const struct ifaddrs *ifa = list; ifa != NULL;
	    ifa = ifa->ifa_next) {
		const struct in6_addr *a = entry_v6(ifa);
		char n[OST_IFNAME_SIZE];

		if (a == NULL || memcmp(a, addr, sizeof (*a)) != 0)
			continue;
		ost_if_name_copy(n, ifa->ifa_name);
		if (strcmp(n, name) != 0)
			continue;
		own = ost_if_ether(list, index, fn, ether) ? OWN_YES : OWN_FAIL;
		break;
	}
	freeifaddrs(list);
	return own;
}

static boolean_t
get_eaddr_v6(const struct in6_addr *addr, struct ether_addr *ether,
    uint32_t *if_index, char *if_name)
{
	const char *fn = "ost_get_eaddr_v6";
	char name[OST_IFNAME_SIZE];
	boolean_t given;
	struct ether_addr ea;
	ost_nl_neigh_t nb;
	ost_nl_t nl;
	uint32_t index;
	ost_nl_status_t st;

	if (addr == NULL || ether == NULL || if_name == NULL)
		return B_FALSE;
	given = if_name[0] != '\0' ? B_TRUE : B_FALSE;
	if (given) {
		ost_if_name_copy(name, if_name);
		ost_debug("%s: given %s\n", fn, name);
		index = if_nametoindex(name);
		if (index == 0) {
			ost_debug("%s: ioctl: %d\n", fn, errno);
			return B_FALSE;
		}
	} else {
		ost_lifreq_t lifr;

		if (!ost_find_if_v6(addr, if_index != NULL ? *if_index : 0,
		    &lifr))
			return B_FALSE;
		ost_debug("%s: use %s (%d)\n", fn, lifr.lifr_name,
		    (int)lifr.lifr_index);
		memcpy(name, lifr.lifr_name, sizeof (name));
		index = lifr.lifr_index;
	}
	switch (own_addr_v6(fn, addr, name, index, &ea)) {
	case OWN_YES:
		goto done;
	case OWN_FAIL:
		return B_FALSE;
	case OWN_NO:
		break;
	}
	if (!ost_nl_open(&nl)) {
		ost_debug("%s: socket: %d\n", fn, errno);
		return B_FALSE;
	}
	st = ost_nl_neigh_query(&nl, AF_INET6, addr, index, &nb);
	ost_nl_close(&nl);
	if (st == OST_NL_ERROR) {
		ost_debug("%s: ioctl: %d\n", fn, nb.nn_error);
		return B_FALSE;
	}
	/* The kernel reports a link-layer address only for entries that
	 * hold one; an entry still being resolved counts as none. */
	if (!nb.nn_complete) {
		ost_debug("%s: ioctl: %d\n", fn, ENOENT);
		return B_FALSE;
	}
	if (nb.nn_lladdr_len != ETHER_ADDR_LEN) {
		ost_debug("%s: mismatched MAC address length: %d\n", fn,
		    (int)nb.nn_lladdr_len);
		return B_FALSE;
	}
	memcpy(ea.ether_addr_octet, nb.nn_lladdr, ETHER_ADDR_LEN);
done:
	if (!given) {
		memcpy(if_name, name, sizeof (name));
		if (if_index != NULL)
			*if_index = index;
	}
	*ether = ea;
	return B_TRUE;
}

boolean_t
ost_get_eaddr_v6(const struct in6_addr *addr, struct ether_addr *ether,
    uint32_t *if_index, char *if_name)
{
	ost_errno_keep keep;

	return get_eaddr_v6(addr, ether, if_index, if_name);
}
