/*
 * The frame template: the Ethernet, IP and UDP header that every bypass
 * datagram to the socket's one peer is sent with, and the destination
 * set-up that fills it.  Per datagram only the lengths and the UDP
 * checksum seed change; the frame-access library completes both checksums.
 *
 * The set-up runs under uost_lock, held by the caller across the blocking
 * route and neighbour look-ups.  A set-up that fails part-way leaves what it
 * wrote but not uost_peer_set, so the next send runs it again.
 */
#include <errno.h>
#include <string.h>

#include "core/addr.h"
#include "ost_impl.h"

/* Pseudo-header words: sums 16-bit words as they lie in memory. */
static inline uint32_t
ost_sum16(const void *p, size_t nwords)
{
	const uint8_t *b = (const uint8_t *)p;
	uint32_t s = 0;

	for (size_t i = 0; i < nwords; i++) {
		uint16_t w;

		memcpy(&w, b + 2 * i, 2);
		s += w;
	}
	return s;
}

/* Folded, uncomplemented: the library completes the sum over the datagram. */
static inline uint16_t
ost_fold(uint32_t s)
{
	s = (s & 0xffff) + (s >> 16);
	s = s + (s >> 16);
	return (uint16_t)s;
}

void
ost_hdr_csum_v4(struct ip *iph, struct udphdr *udph)
{
	uint16_t ulen = udph->uh_ulen;

	iph->ip_len = htons((uint16_t)(sizeof (struct ip) + ulen));
	udph->uh_ulen = htons(ulen);
	/* Source and destination are adjacent in the header. */
	udph->uh_sum = ost_fold(ost_sum16(&iph->ip_src, 4) + udph->uh_ulen +
	    htons(IPPROTO_UDP));
}

void
ost_hdr_csum_v6(struct ip6_hdr *ip6h, struct udphdr *udph)
{
	uint16_t ulen = htons(udph->uh_ulen);

	udph->uh_ulen = ulen;
	ip6h->ip6_plen = ulen;
	udph->uh_sum = ost_fold(ost_sum16(&ip6h->ip6_src, 16) + ulen +
	    htons(IPPROTO_UDP));
}

/*
 * A local port for a socket that has none yet.  With do_bind the kernel
 * socket is bound to sa first (a wildcard or a link-local address); without
 * it the kernel's connect has bound it.
 */
static boolean_t
ost_learn_port(uost_t *up, const char *fn, struct sockaddr *sa,
    socklen_t salen, boolean_t do_bind)
{
	socklen_t len = salen;

	if (do_bind && libc_bind(up->uost_sd, sa, salen) != 0) {
		ost_debug("%s: bind failed: %d\n", fn, errno);
		return B_FALSE;
	}
	if (getsockname(up->uost_sd, sa, &len) != 0) {
		ost_debug("%s: getsockname failed: %d\n", fn, up->uost_sd);
		return B_FALSE;
	}
	/* Both families keep the port at the same offset. */
	up->uost_lport = ((struct sockaddr_in *)sa)->sin_port;
	up->uost_udph->uh_sport = up->uost_lport;
	up->uost_bound = B_TRUE;
	return B_TRUE;
}

/*
 * A socket bound to an address of its own (its handle already filters on
 * it) keeps that address as the source: the interface's first address may
 * be another one, and replies to it would not be the socket's.
 */
static boolean_t
ost_keeps_source(const uost_t *up)
{
	return up->uost_frio_set && !IN6_IS_ADDR_UNSPECIFIED(&up->uost_laddr_v6) ?
	    B_TRUE : B_FALSE;
}

static void
ost_set_peer_v4(uost_t *up, const struct sockaddr_in *sin)
{
	ost_map_v4(&up->uost_faddr_v6, sin->sin_addr.s_addr);
	up->uost_iph->ip_dst = sin->sin_addr;
	up->uost_fport = sin->sin_port;
	up->uost_udph->uh_dport = sin->sin_port;
	up->uost_peer_set = B_TRUE;
}

static void
ost_set_peer_v6(uost_t *up, const struct sockaddr_in6 *sin6)
{
	up->uost_faddr_v6 = sin6->sin6_addr;
	up->uost_ip6h->ip6_dst = sin6->sin6_addr;
	up->uost_fport = sin6->sin6_port;
	up->uost_udph->uh_dport = sin6->sin6_port;
	up->uost_peer_set = B_TRUE;
}

boolean_t
ost_sendto_frio_set_v4(uost_t *up, const struct sockaddr_in *sin,
    boolean_t do_bind)
{
	static const char fn[] = "ost_sendto_frio_set_v4";
	in_addr_t dst = sin->sin_addr.s_addr;
	struct in_addr gw, next_hop, src;
	uint32_t route_if, eaddr_if;

	if (ost_is_loopback_v4(dst) || dst == INADDR_ANY ||
	    ost_is_broadcast_v4(dst)) {
		ost_debug("%s: %d loopback/unspec/broadcast addr\n", fn,
		    up->uost_sd);
		return B_FALSE;
	}
	if (!up->uost_bound) {
		struct sockaddr_in any;

		memset(&any, 0, sizeof (any));
		any.sin_family = AF_INET;
		if (!ost_learn_port(up, fn, (struct sockaddr *)&any,
		    sizeof (any), do_bind))
			return B_FALSE;
	}

	if (ost_is_multicast_v4(dst)) {
		/* Handle, source MAC and address came with the interface. */
		if (!up->uost_mc_bind)
			return B_FALSE;
		ost_maddr_ip2e_v4(dst, (struct ether_addr *)
		    up->uost_eth->ether_dhost);
		ost_set_peer_v4(up, sin);
		up->uost_iph->ip_ttl = (uint8_t)(up->uost_mc_hops != 0 ?
		    up->uost_mc_hops : 1);
		return B_TRUE;
	}

	if (!ost_get_route_v4(&sin->sin_addr, &route_if, &gw)) {
		ost_debug("%s: cannot get route: %s\n", fn,
		    inet_ntoa(sin->sin_addr));
		return B_FALSE;
	}
	if (up->uost_frio_set && up->uost_if_index != route_if) {
		ost_debug("%s: bound if (%d) != gw if (%d)\n", fn,
		    (int)up->uost_if_index, (int)route_if);
		return B_FALSE;
	}
	next_hop = gw.s_addr != INADDR_ANY ? gw : sin->sin_addr;
	if (!ost_get_eaddr_v4(&next_hop, (struct ether_addr *)
	    up->uost_eth->ether_dhost, &eaddr_if, up->uost_if_name))
		return B_FALSE;
	/*
	 * The neighbour's interface must be the route's; if they differ the
	 * tables changed under us, and the kernel knows better.
	 */
	if (eaddr_if != route_if) {
		ost_debug("%s: neighbour if (%d) != route if (%d)\n", fn,
		    (int)eaddr_if, (int)route_if);
		return B_FALSE;
	}
	up->uost_if_index = route_if;
	if (!ost_if_addr_v4(up->uost_if_name, &src)) {
		ost_debug("%s: no source addr\n", fn);
		return B_FALSE;
	}
	if (!ost_keeps_source(up)) {
		ost_map_v4(&up->uost_laddr_v6, src.s_addr);
		up->uost_iph->ip_src = src;
	}
	if (!up->uost_frio_set && !ost_frio_bind(up))
		return B_FALSE;
	ost_set_peer_v4(up, sin);
	if (up->uost_uc_hops != 0)
		up->uost_iph->ip_ttl = (uint8_t)up->uost_uc_hops;
	return B_TRUE;
}

boolean_t
ost_sendto_frio_set_v6(uost_t *up, const struct sockaddr_in6 *sin6,
    boolean_t do_bind)
{
	static const char fn[] = "ost_sendto_frio_set_v6";
	const struct in6_addr *dst = &sin6->sin6_addr;
	boolean_t link_local = ost_is_link_local_v6(dst);
	struct in6_addr gw, src;
	const struct in6_addr *next_hop;
	uint32_t out_if;

	if (IN6_IS_ADDR_LOOPBACK(dst) || IN6_IS_ADDR_UNSPECIFIED(dst) ||
	    IN6_IS_ADDR_V4MAPPED(dst)) {
		ost_debug("%s: loopback/unspec/v4mapped addr\n", fn);
		return B_FALSE;
	}
	if (!up->uost_bound) {
		struct sockaddr_in6 local;

		memset(&local, 0, sizeof (local));
		local.sin6_family = AF_INET6;
		if (do_bind && ost_is_scoped_v6(dst) &&
		    sin6->sin6_scope_id != 0) {
			static const boolean_t want_ll = B_TRUE;
			char scratch[OST_IFNAME_SIZE];

			if (!ost_get_if_info_v6(sin6->sin6_scope_id, &want_ll,
			    &local.sin6_addr, scratch)) {
				ost_debug("%s: cannot find link local address "
				    "on scope id: %u\n", fn,
				    sin6->sin6_scope_id);
				return B_FALSE;
			}
			local.sin6_scope_id = sin6->sin6_scope_id;
		}
		if (!ost_learn_port(up, fn, (struct sockaddr *)&local,
		    sizeof (local), do_bind))
			return B_FALSE;
	}

	if (IN6_IS_ADDR_MULTICAST(dst)) {
		if (!up->uost_mc_bind)
			return B_FALSE;
		ost_maddr_ip2e_v6(dst, (struct ether_addr *)
		    up->uost_eth->ether_dhost);
		ost_set_peer_v6(up, sin6);
		up->uost_ip6h->ip6_hlim = (uint8_t)(up->uost_mc_hops != 0 ?
		    up->uost_mc_hops : 1);
		return B_TRUE;
	}

	/* A scoped link-local destination is its own next hop. */
	if (link_local && sin6->sin6_scope_id != 0) {
		out_if = sin6->sin6_scope_id;
		gw = *dst;
	} else if (!ost_get_route_v6(dst, &out_if, &gw)) {
		ost_debug("%s: cannot get route\n", fn);
		return B_FALSE;
	}
	if (up->uost_frio_set) {
		uint32_t want = link_local ? sin6->sin6_scope_id : out_if;

		if (up->uost_if_index != want) {
			ost_debug("%s: bound if (%d) != gw if (%d)\n", fn,
			    (int)up->uost_if_index, (int)want);
			return B_FALSE;
		}
	}
	next_hop = IN6_IS_ADDR_UNSPECIFIED(&gw) ? dst : &gw;
	up->uost_if_index = out_if;
	if (!ost_get_if_info_v6(out_if, &link_local, &src,
	    up->uost_if_name)) {
		ost_debug("%s: cannot get if info\n", fn);
		return B_FALSE;
	}
	if (!ost_keeps_source(up))
		up->uost_laddr_v6 = src;
	if (!ost_get_eaddr_v6(next_hop, (struct ether_addr *)
	    up->uost_eth->ether_dhost, NULL, up->uost_if_name)) {
		ost_debug("%s: cannot get eaddr: %s\n", fn, up->uost_if_name);
		return B_FALSE;
	}
	up->uost_ip6h->ip6_src = up->uost_laddr_v6;
	if (!up->uost_frio_set && !ost_frio_bind(up))
		return B_FALSE;
	ost_set_peer_v6(up, sin6);
	if (up->uost_uc_hops != 0)
		up->uost_ip6h->ip6_hlim = (uint8_t)up->uost_uc_hops;
	return B_TRUE;
}
