/*
 * The destination set-up: the first datagram to a destination (or connect)
 * finds the route, the next hop's link-layer address and the source
 * address, puts the socket on the bypass on the route's interface, and
 * caches the destination as the socket's peer in the frame template.
 *
 * The set-up runs under uost_lock, held by the caller across the blocking
 * route and neighbour look-ups.  A set-up that fails part-way leaves what it
 * wrote but not uost_peer_set, so the next send runs it again.
 */
#include <arpa/inet.h>
#include <errno.h>
#include <string.h>

#include "core/addr.h"
#include "core/ost.h"

/*
 * A local port for a socket that has none yet.  With do_bind the kernel
 * socket is bound to sa first (a wildcard or a link-local address); without
 * it the kernel's connect has bound it.
 */
static bool
ost_learn_port(uost_t *up, struct sockaddr *sa, socklen_t salen, bool do_bind)
{
	socklen_t len = salen;

	if (do_bind && real_bind(up->uost_sd, sa, salen) != 0) {
		ost_debug("bind failed: %d\n", errno);
		return false;
	}
	if (getsockname(up->uost_sd, sa, &len) != 0) {
		ost_debug("getsockname failed: %d\n", up->uost_sd);
		return false;
	}
	/* Both families keep the port at the same offset. */
	ost_tpl_set_sport(up, ((struct sockaddr_in *)sa)->sin_port);
	return true;
}

/*
 * A socket bound to an address of its own (its handle already filters on
 * it) keeps that address as the source: the interface's first address may
 * be another one, and replies to it would not be the socket's.
 */
static bool
ost_keeps_source(const uost_t *up)
{
	return up->uost_frio_set &&
	    !IN6_IS_ADDR_UNSPECIFIED(&up->uost_laddr_v6);
}

/* A group destination: handle, source MAC and address came with the
 * interface chosen for groups. */
static bool
ost_set_group_peer(uost_t *up, const struct in6_addr *group, in_port_t port)
{
	struct ether_addr mac;

	if (!up->uost_mc_bind)
		return false;
	ost_maddr_ip2e(group, &mac);
	ost_tpl_set_dst_mac(up, &mac);
	ost_tpl_set_peer(up, group, port);
	ost_tpl_set_hops(up, up->uost_mc_hops != 0 ? up->uost_mc_hops : 1);
	up->uost_peer_group = true;
	return true;
}

/* The common end of a unicast set-up: the socket on the bypass, the peer. */
static bool
ost_set_unicast_peer(uost_t *up, const struct in6_addr *dst, in_port_t port)
{
	if (!ost_attach_locked(up))
		return false;
	ost_tpl_set_peer(up, dst, port);
	up->uost_peer_group = false;
	if (up->uost_uc_hops != 0)
		ost_tpl_set_hops(up, up->uost_uc_hops);
	return true;
}

bool
ost_sendto_frio_set_v4(uost_t *up, const struct sockaddr_in *sin, bool do_bind)
{
	in_addr_t dst = sin->sin_addr.s_addr;
	struct in_addr gw, next_hop, src;
	struct in6_addr mapped;
	struct ether_addr mac;
	uint32_t route_if, eaddr_if;

	if (ost_is_loopback_v4(dst) || dst == INADDR_ANY ||
	    ost_is_broadcast_v4(dst)) {
		ost_debug("%d loopback/unspec/broadcast addr\n", up->uost_sd);
		return false;
	}
	if (!up->uost_bound) {
		struct sockaddr_in any;

		memset(&any, 0, sizeof(any));
		any.sin_family = AF_INET;
		if (!ost_learn_port(up, (struct sockaddr *)&any, sizeof(any),
			do_bind))
			return false;
	}
	ost_map_v4(&mapped, dst);
	if (ost_is_multicast_v4(dst))
		return ost_set_group_peer(up, &mapped, sin->sin_port);

	if (!ost_get_route_v4(&sin->sin_addr, &route_if, &gw)) {
		ost_debug("cannot get route: %s\n", inet_ntoa(sin->sin_addr));
		return false;
	}
	if (up->uost_frio_set && up->uost_if_index != route_if) {
		ost_debug("bound if (%d) != gw if (%d)\n",
		    (int)up->uost_if_index, (int)route_if);
		return false;
	}
	next_hop = gw.s_addr != INADDR_ANY ? gw : sin->sin_addr;
	if (!ost_get_eaddr_v4(&next_hop, &mac, &eaddr_if, up->uost_if_name))
		return false;
	/*
	 * The neighbour's interface must be the route's; if they differ the
	 * tables changed under us, and the kernel knows better.
	 */
	if (eaddr_if != route_if) {
		ost_debug("neighbour if (%d) != route if (%d)\n", (int)eaddr_if,
		    (int)route_if);
		return false;
	}
	ost_tpl_set_dst_mac(up, &mac);
	up->uost_if_index = route_if;
	if (!ost_if_addr_v4(up->uost_if_name, &src)) {
		ost_debug("no source addr\n");
		return false;
	}
	if (!ost_keeps_source(up)) {
		struct in6_addr s6;

		ost_map_v4(&s6, src.s_addr);
		ost_tpl_set_saddr(up, &s6);
	}
	return ost_set_unicast_peer(up, &mapped, sin->sin_port);
}

bool
ost_sendto_frio_set_v6(uost_t *up, const struct sockaddr_in6 *sin6,
    bool do_bind)
{
	const struct in6_addr *dst = &sin6->sin6_addr;
	bool link_local = ost_is_link_local_v6(dst);
	struct in6_addr gw, src;
	const struct in6_addr *next_hop;
	struct ether_addr mac;
	uint32_t out_if;

	if (IN6_IS_ADDR_LOOPBACK(dst) || IN6_IS_ADDR_UNSPECIFIED(dst) ||
	    IN6_IS_ADDR_V4MAPPED(dst)) {
		ost_debug("loopback/unspec/v4mapped addr\n");
		return false;
	}
	if (!up->uost_bound) {
		struct sockaddr_in6 local;

		memset(&local, 0, sizeof(local));
		local.sin6_family = AF_INET6;
		if (do_bind && ost_is_scoped_v6(dst) &&
		    sin6->sin6_scope_id != 0) {
			static const bool want_ll = true;
			char scratch[OST_IFNAME_SIZE];

			if (!ost_get_if_info_v6(sin6->sin6_scope_id, &want_ll,
				&local.sin6_addr, scratch)) {
				ost_debug("cannot find link local address "
					  "on scope id: %u\n",
				    sin6->sin6_scope_id);
				return false;
			}
			local.sin6_scope_id = sin6->sin6_scope_id;
		}
		if (!ost_learn_port(up, (struct sockaddr *)&local,
			sizeof(local), do_bind))
			return false;
	}
	if (IN6_IS_ADDR_MULTICAST(dst))
		return ost_set_group_peer(up, dst, sin6->sin6_port);

	/* A scoped link-local destination is its own next hop. */
	if (link_local && sin6->sin6_scope_id != 0) {
		out_if = sin6->sin6_scope_id;
		gw = *dst;
	} else if (!ost_get_route_v6(dst, &out_if, &gw)) {
		ost_debug("cannot get route\n");
		return false;
	}
	if (up->uost_frio_set) {
		uint32_t want = link_local ? sin6->sin6_scope_id : out_if;

		if (up->uost_if_index != want) {
			ost_debug("bound if (%d) != gw if (%d)\n",
			    (int)up->uost_if_index, (int)want);
			return false;
		}
	}
	next_hop = IN6_IS_ADDR_UNSPECIFIED(&gw) ? dst : &gw;
	up->uost_if_index = out_if;
	if (!ost_get_if_info_v6(out_if, &link_local, &src, up->uost_if_name)) {
		ost_debug("cannot get if info\n");
		return false;
	}
	if (!ost_get_eaddr_v6(next_hop, &mac, NULL, up->uost_if_name)) {
		ost_debug("cannot get eaddr: %s\n", up->uost_if_name);
		return false;
	}
	ost_tpl_set_dst_mac(up, &mac);
	ost_tpl_set_saddr(up, ost_keeps_source(up) ? &up->uost_laddr_v6 : &src);
	return ost_set_unicast_peer(up, dst, sin6->sin6_port);
}

/* The set-up for a whole address of the socket's family. */
bool
ost_set_destination(uost_t *up, const struct sockaddr *to, bool do_bind)
{
	return up->uost_is_v6 ?
	    ost_sendto_frio_set_v6(up, (const struct sockaddr_in6 *)to,
		do_bind) :
	    ost_sendto_frio_set_v4(up, (const struct sockaddr_in *)to, do_bind);
}
