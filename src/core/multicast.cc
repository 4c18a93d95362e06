/*
 * Multicast on the bypass path: one handle per socket on one interface, the
 * groups joined on it, and the interface that group datagrams leave by.  A
 * join or interface choice the handle cannot follow returns -1, and the
 * caller takes the socket off the bypass.  The filters themselves are
 * attach's to install: a group joined before bind gets its filter when the
 * bind gives the socket a port.
 */
#include <net/if.h>
#include <string.h>

#include "core/addr.h"
#include "core/ost.h"

/* Records the group once; false when the table is full. */
static bool
ost_record_group(uost_t *up, const struct in6_addr *group)
{
	for (uint32_t i = 0; i < up->uost_ngroups; i++) {
		if (IN6_ARE_ADDR_EQUAL(&up->uost_groups[i], group))
			return true;
	}
	if (up->uost_ngroups == OST_MAX_GROUPS)
		return false;
	up->uost_groups[up->uost_ngroups++] = *group;
	return true;
}

/* The interface of a join on a socket without a handle: its name. */
static bool
ost_join_if_name(uost_t *up, uint32_t if_index, const char *if_name)
{
	static const bool want_ll = true;
	struct in6_addr scratch;

	if (if_name != NULL) {
		memcpy(up->uost_if_name, if_name, OST_IFNAME_SIZE);
		return true;
	}
	/* IPv6 groups live on links that have a link-local address. */
	if (!ost_get_if_info_v6(if_index, &want_ll, &scratch,
		up->uost_if_name)) {
		ost_debug("cannot get IPv6 multicast interface: idx %d\n",
		    (int)if_index);
		return false;
	}
	return true;
}

static bool
ost_multicast_join_locked(uost_t *up, uint32_t if_index, const char *if_name,
    const struct in6_addr *group)
{
	if (up->uost_frio_set) {
		if (if_index != up->uost_if_index)
			return false;
	} else {
		if (!ost_join_if_name(up, if_index, if_name))
			return false;
		up->uost_if_index = if_index;
	}
	if (!ost_record_group(up, group)) {
		ost_debug("%d: more than %d groups\n", up->uost_sd,
		    OST_MAX_GROUPS);
		return false;
	}
	up->uost_ip_maddr_v6 = *group;
	return ost_attach_locked(up);
}

int
ost_multicast_join(uost_t *up, uint32_t if_index, const char *if_name,
    const struct in6_addr *group)
{
	bool ok;

	(void)pthread_mutex_lock(&up->uost_lock);
	ok = ost_multicast_join_locked(up, if_index, if_name, group);
	(void)pthread_mutex_unlock(&up->uost_lock);
	return ok ? 0 : -1;
}

/*
 * Leaving a group the handle filters on ends the socket's bypass life (-1):
 * a filter cannot be taken off a handle, and the handle may be in use by a
 * receiver or a poll that holds only a reference, which only the record's
 * teardown waits for.  Leaving anything else changes nothing.
 */
int
ost_multicast_leave(uost_t *up, uint32_t if_index, const struct in6_addr *group)
{
	bool recorded = false;

	(void)pthread_mutex_lock(&up->uost_lock);
	if (up->uost_frio_set && if_index == up->uost_if_index) {
		for (uint32_t i = 0; i < up->uost_ngroups && !recorded; i++)
			recorded =
			    IN6_ARE_ADDR_EQUAL(group, &up->uost_groups[i]);
	}
	(void)pthread_mutex_unlock(&up->uost_lock);
	return recorded ? -1 : 0;
}

/*
 * The interface of an IPv4 multicast choice: by index (ip_mreqn), else by
 * one of its addresses.  Writes the index, name and the address that
 * frames leave with.
 */
static bool
ost_mcast_if_v4(const ost_mcast_if_t *want, uint32_t *if_index, char *name,
    struct in6_addr *addr)
{
	struct ether_addr scratch;
	struct in_addr a;

	if (want->omi_index != 0) {
		if (if_indextoname(want->omi_index, name) == NULL ||
		    !ost_if_addr_v4(name, &a))
			return false;
		*if_index = want->omi_index;
		ost_map_v4(addr, a.s_addr);
		return true;
	}
	if (!ost_get_eaddr_v4(&want->omi_addr, &scratch, if_index, name))
		return false;
	ost_map_v4(addr, want->omi_addr.s_addr);
	return true;
}

static bool
ost_mcast_if_locked(uost_t *up, uint32_t if_index, const char *name,
    const struct in6_addr *addr)
{
	if (!up->uost_frio_set || up->uost_if_index != if_index) {
		if (up->uost_frio_set) {
			/* Filters cannot follow to another interface. */
			if (up->uost_filter_set || up->uost_bound) {
				ost_debug("receive filter set on different "
					  "interface (%d vs %d)\n",
				    (int)up->uost_if_index, (int)if_index);
				return false;
			}
			ost_detach_handle_locked(up);
		}
		ost_tpl_set_saddr(up, addr);
		memcpy(up->uost_if_name, name, OST_IFNAME_SIZE);
		up->uost_if_index = if_index;
	} else if (IN6_IS_ADDR_UNSPECIFIED(&up->uost_laddr_v6)) {
		/* A join opened the handle: frames still need a source. */
		ost_tpl_set_saddr(up, addr);
	}
	up->uost_mc_bind = true;
	/* A group peer the kernel had for want of an interface may now
	 * take the handle: the next send resolves it again. */
	up->uost_dst_gen--;
	return ost_attach_locked(up);
}

int
ost_process_mcast_if(uost_t *up, int optname, const void *optval)
{
	char name[OST_IFNAME_SIZE];
	struct in6_addr addr;
	uint32_t if_index;
	bool ok;

	OST_VERIFY(optname == IP_MULTICAST_IF || optname == IPV6_MULTICAST_IF);
	memset(name, 0, sizeof(name));
	if (optname == IP_MULTICAST_IF) {
		ok = ost_mcast_if_v4((const ost_mcast_if_t *)optval, &if_index,
		    name, &addr);
	} else {
		if_index = *(const uint32_t *)optval;
		ok = ost_get_if_info_v6(if_index, NULL, &addr, name);
	}
	if (!ok)
		return -1;
	(void)pthread_mutex_lock(&up->uost_lock);
	ok = ost_mcast_if_locked(up, if_index, name, &addr);
	(void)pthread_mutex_unlock(&up->uost_lock);
	return ok ? 0 : -1;
}
