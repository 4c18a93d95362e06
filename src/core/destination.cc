/*
 * The destination set-up: the first datagram to a destination (or connect)
 * finds the route, the next hop's link-layer address and the source
 * address, puts the socket on the bypass on the route's interface, and
 * caches the destination as the socket's peer in the frame template.
 *
 * What it found holds until the kernel's tables change: the set-up notes
 * the watch's generation it started at, and the transmit path runs it
 * again for the same peer once the generation has moved.  A peer that
 * cannot take the bypass now (no route, a next hop not yet resolved, a
 * route through another interface) is still the peer; its datagrams go
 * through the kernel, which resolves the next hop as it delivers them,
 * until a change of the tables lets a set-up succeed.
 *
 * The set-up runs under uost_lock, held by the caller across the route and
 * neighbour look-ups (answered by the kernel at once; nothing here waits
 * for the network), and takes no bucket lock.
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

/* The handle's interface may have had its MTU changed since it opened. */
static void
ost_refresh_mtu(uost_t *up)
{
	uint32_t mtu = ost_if_mtu(up->uost_if_name);

	up->uost_mtu = mtu == 0 || mtu > ETH_DATA_LEN ? ETH_DATA_LEN : mtu;
}

/* A group destination: handle, source MAC and address came with the
 * interface chosen for groups. */
static ost_dst_t
ost_set_group_peer(uost_t *up, const struct in6_addr *group, in_port_t port)
{
	struct ether_addr mac;

	ost_tpl_set_peer(up, group, port);
	up->uost_peer_group = true;
	if (!up->uost_mc_bind || !up->uost_frio_set)
		return OST_DST_NEVER;
	ost_maddr_ip2e(group, &mac);
	ost_tpl_set_dst_mac(up, &mac);
	ost_tpl_sync_hops(up);
	ost_refresh_mtu(up);
	return OST_DST_OK;
}

/* The common end of a unicast set-up: the socket on the bypass. */
static ost_dst_t
ost_set_unicast_peer(uost_t *up)
{
	if (!ost_attach_locked(up))
		return OST_DST_NEVER;
	ost_tpl_sync_hops(up);
	ost_refresh_mtu(up);
	return OST_DST_OK;
}

static ost_dst_t
ost_dst_v4(uost_t *up, const struct sockaddr_in *sin, bool do_bind)
{
	in_addr_t dst = sin->sin_addr.s_addr;
	struct in_addr gw, next_hop, src;
	struct in6_addr mapped;
	struct ether_addr mac;
	uint32_t route_if, eaddr_if;

	ost_map_v4(&mapped, dst);
	ost_tpl_set_peer(up, &mapped, sin->sin_port);
	up->uost_peer_group = false;
	if (ost_is_loopback_v4(dst) || dst == INADDR_ANY ||
	    ost_is_broadcast_v4(dst)) {
		ost_debug("%d loopback/unspec/broadcast addr\n", up->uost_sd);
		return OST_DST_NEVER;
	}
	if (!up->uost_bound) {
		struct sockaddr_in any;

		memset(&any, 0, sizeof(any));
		any.sin_family = AF_INET;
		if (!ost_learn_port(up, (struct sockaddr *)&any, sizeof(any),
			do_bind))
			return OST_DST_NEVER;
	}
	if (ost_is_multicast_v4(dst))
		return ost_set_group_peer(up, &mapped, sin->sin_port);

	if (!ost_get_route_v4(&sin->sin_addr, &route_if, &gw)) {
		ost_debug("cannot get route: %s\n", inet_ntoa(sin->sin_addr));
		return OST_DST_LATER;
	}
	if (up->uost_frio_set && up->uost_if_index != route_if) {
		ost_debug("bound if (%d) != gw if (%d)\n",
		    (int)up->uost_if_index, (int)route_if);
		return OST_DST_LATER;
	}
	next_hop = gw.s_addr != INADDR_ANY ? gw : sin->sin_addr;
	if (!ost_get_eaddr_v4(&next_hop, &mac, &eaddr_if, up->uost_if_name))
		return OST_DST_LATER;
	/*
	 * The neighbour's interface must be the route's; if they differ the
	 * tables changed under us, and the kernel knows better.
	 */
	if (eaddr_if != route_if) {
		ost_debug("neighbour if (%d) != route if (%d)\n", (int)eaddr_if,
		    (int)route_if);
		return OST_DST_LATER;
	}
	ost_watch_note_neigh(AF_INET, route_if, &next_hop, &mac);
	ost_tpl_set_dst_mac(up, &mac);
	up->uost_if_index = route_if;
	if (!ost_if_addr_v4(up->uost_if_name, &src)) {
		ost_debug("no source addr\n");
		return OST_DST_LATER;
	}
	if (!ost_keeps_source(up)) {
		struct in6_addr s6;

		ost_map_v4(&s6, src.s_addr);
		ost_tpl_set_saddr(up, &s6);
	}
	return ost_set_unicast_peer(up);
}

static ost_dst_t
ost_dst_v6(uost_t *up, const struct sockaddr_in6 *sin6, bool do_bind)
{
	const struct in6_addr *dst = &sin6->sin6_addr;
	bool link_local = ost_is_link_local_v6(dst);
	struct in6_addr gw, src;
	const struct in6_addr *next_hop;
	struct ether_addr mac;
	uint32_t out_if;

	ost_tpl_set_peer(up, dst, sin6->sin6_port);
	up->uost_peer_group = false;
	if (IN6_IS_ADDR_LOOPBACK(dst) || IN6_IS_ADDR_UNSPECIFIED(dst) ||
	    IN6_IS_ADDR_V4MAPPED(dst)) {
		ost_debug("loopback/unspec/v4mapped addr\n");
		return OST_DST_NEVER;
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
				return OST_DST_NEVER;
			}
			local.sin6_scope_id = sin6->sin6_scope_id;
		}
		if (!ost_learn_port(up, (struct sockaddr *)&local,
			sizeof(local), do_bind))
			return OST_DST_NEVER;
	}
	if (IN6_IS_ADDR_MULTICAST(dst))
		return ost_set_group_peer(up, dst, sin6->sin6_port);

	/* A scoped link-local destination is its own next hop. */
	if (link_local && sin6->sin6_scope_id != 0) {
		out_if = sin6->sin6_scope_id;
		gw = *dst;
	} else if (!ost_get_route_v6(dst, &out_if, &gw)) {
		ost_debug("cannot get route\n");
		return OST_DST_LATER;
	}
	if (up->uost_frio_set) {
		uint32_t want = link_local ? sin6->sin6_scope_id : out_if;

		if (up->uost_if_index != want) {
			ost_debug("bound if (%d) != gw if (%d)\n",
			    (int)up->uost_if_index, (int)want);
			return OST_DST_LATER;
		}
	}
	next_hop = IN6_IS_ADDR_UNSPECIFIED(&gw) ? dst : &gw;
	up->uost_if_index = out_if;
	if (!ost_get_if_info_v6(out_if, &link_local, &src, up->uost_if_name)) {
		ost_debug("cannot get if info\n");
		return OST_DST_LATER;
	}
	if (!ost_get_eaddr_v6(next_hop, &mac, NULL, up->uost_if_name)) {
		ost_debug("cannot get eaddr: %s\n", up->uost_if_name);
		return OST_DST_LATER;
	}
	ost_watch_note_neigh(AF_INET6, out_if, next_hop, &mac);
	ost_tpl_set_dst_mac(up, &mac);
	ost_tpl_set_saddr(up, ost_keeps_source(up) ? &up->uost_laddr_v6 : &src);
	return ost_set_unicast_peer(up);
}

ost_dst_t
ost_set_destination(uost_t *up, const struct sockaddr *to, bool do_bind)
{
	/* Read first: a change during the look-ups sends us here again. */
	uint32_t gen = ost_watch_gen();
	ost_dst_t r = up->uost_is_v6 ?
	    ost_dst_v6(up, (const struct sockaddr_in6 *)to, do_bind) :
	    ost_dst_v4(up, (const struct sockaddr_in *)to, do_bind);

	up->uost_dst_gen = gen;
	up->uost_dst_ok = r == OST_DST_OK;
	return r;
}

void
ost_dst_refresh_locked(uost_t *up, uint32_t gen)
{
	struct sockaddr_storage ss;

	memset(&ss, 0, sizeof(ss));
	if (up->uost_is_v6) {
		struct sockaddr_in6 *sin6 = (struct sockaddr_in6 *)&ss;

		sin6->sin6_family = AF_INET6;
		sin6->sin6_addr = up->uost_faddr_v6;
		sin6->sin6_port = up->uost_fport;
		/* A link-local peer is known on the handle's link only. */
		if (ost_is_scoped_v6(&up->uost_faddr_v6) && up->uost_frio_set)
			sin6->sin6_scope_id = up->uost_if_index;
	} else {
		struct sockaddr_in *sin = (struct sockaddr_in *)&ss;

		sin->sin_family = AF_INET;
		sin->sin_addr.s_addr = ost_unmap_v4(&up->uost_faddr_v6);
		sin->sin_port = up->uost_fport;
	}
	ost_debug("%d: tables changed (%u -> %u): the peer again\n",
	    up->uost_sd, up->uost_dst_gen, gen);
	(void)ost_set_destination(up, (const struct sockaddr *)&ss, false);
}
