/*
 * The frame template: the Ethernet, IP and UDP header that every bypass
 * datagram to the socket's one peer is sent with.  This file is its only
 * writer; the setters keep the record's copies of the addresses and ports
 * in step with the header.  Per datagram only the lengths and the UDP
 * checksum seed change; the frame-access library completes both checksums.
 * Every setter runs under uost_lock (or before the record is published).
 */
#include <string.h>

#include "core/addr.h"
#include "core/ost.h"

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

	iph->ip_len = htons((uint16_t)(sizeof(struct ip) + ulen));
	udph->uh_ulen = htons(ulen);
	/* Source and destination are adjacent in the header. */
	udph->uh_sum = ost_fold(
	    ost_sum16(&iph->ip_src, 4) + udph->uh_ulen + htons(IPPROTO_UDP));
}

void
ost_hdr_csum_v6(struct ip6_hdr *ip6h, struct udphdr *udph)
{
	uint16_t ulen = htons(udph->uh_ulen);

	udph->uh_ulen = ulen;
	ip6h->ip6_plen = ulen;
	udph->uh_sum =
	    ost_fold(ost_sum16(&ip6h->ip6_src, 16) + ulen + htons(IPPROTO_UDP));
}

/* The constant fields; addresses and ports come later. */
void
ost_tpl_init(uost_t *up, int family)
{
	uint8_t *eth = up->uost_hdr + OST_ETH_OFFSET;
	uint8_t *ip = eth + sizeof(struct ether_header);

	up->uost_eth = (struct ether_header *)eth;
	if (family == AF_INET6) {
		struct ip6_hdr *ip6 = (struct ip6_hdr *)ip;

		up->uost_eth->ether_type = htons(ETHERTYPE_IPV6);
		up->uost_ip6h = ip6;
		up->uost_iph = NULL;
		ip6->ip6_flow = htonl(6U << 28);
		ip6->ip6_nxt = IPPROTO_UDP;
		ip6->ip6_hlim = 64;
		up->uost_udph = (struct udphdr *)(ip + sizeof(struct ip6_hdr));
		up->uost_is_v6 = true;
	} else {
		struct ip *ip4 = (struct ip *)ip;

		up->uost_eth->ether_type = htons(ETHERTYPE_IP);
		up->uost_iph = ip4;
		up->uost_ip6h = NULL;
		ip4->ip_v = 4;
		ip4->ip_hl = 5;
		ip4->ip_off = htons(IP_DF);
		ip4->ip_ttl = 64;
		ip4->ip_p = IPPROTO_UDP;
		up->uost_udph = (struct udphdr *)(ip + sizeof(struct ip));
		up->uost_is_v6 = false;
	}
	up->uost_ip_hdr_len = (size_t)((uint8_t *)(up->uost_udph + 1) - ip);
	up->uost_hdr_len = up->uost_ip_hdr_len + sizeof(struct ether_header);
}

void
ost_tpl_set_src_mac(uost_t *up, const struct ether_addr *mac)
{
	memcpy(up->uost_eth->ether_shost, mac, ETHER_ADDR_LEN);
}

void
ost_tpl_set_dst_mac(uost_t *up, const struct ether_addr *mac)
{
	memcpy(up->uost_eth->ether_dhost, mac, ETHER_ADDR_LEN);
}

/* The socket's own address, the frames' source. */
void
ost_tpl_set_saddr(uost_t *up, const struct in6_addr *addr)
{
	up->uost_laddr_v6 = *addr;
	if (up->uost_is_v6)
		up->uost_ip6h->ip6_src = *addr;
	else
		up->uost_iph->ip_src.s_addr = ost_unmap_v4(addr);
}

void
ost_tpl_set_sport(uost_t *up, in_port_t port)
{
	up->uost_lport = port;
	up->uost_udph->uh_sport = port;
	up->uost_bound = true;
}

/* The cached peer: IPv6, or IPv4-mapped. */
void
ost_tpl_set_peer(uost_t *up, const struct in6_addr *addr, in_port_t port)
{
	up->uost_faddr_v6 = *addr;
	if (up->uost_is_v6)
		up->uost_ip6h->ip6_dst = *addr;
	else
		up->uost_iph->ip_dst.s_addr = ost_unmap_v4(addr);
	up->uost_fport = port;
	up->uost_udph->uh_dport = port;
	up->uost_peer_set = true;
}

/* The TTL or hop limit. */
void
ost_tpl_set_hops(uost_t *up, uint32_t hops)
{
	if (up->uost_is_v6)
		up->uost_ip6h->ip6_hlim = (uint8_t)hops;
	else
		up->uost_iph->ip_ttl = (uint8_t)hops;
}

/*
 * The TTL or hop limit the kernel socket itself would send with, as its
 * getsockopt reports it: the option's value, or for -1 the kernel's
 * default (the ip_default_ttl and hop_limit settings, 1 for groups).
 */
void
ost_tpl_sync_hops(uost_t *up)
{
	int level = up->uost_is_v6 ? IPPROTO_IPV6 : IPPROTO_IP;
	int name = up->uost_peer_group ?
	    (up->uost_is_v6 ? IPV6_MULTICAST_HOPS : IP_MULTICAST_TTL) :
	    (up->uost_is_v6 ? IPV6_UNICAST_HOPS : IP_TTL);
	int hops = 0;
	socklen_t len = sizeof(hops);
	ost_errno_keep keep;

	if (real_getsockopt(up->uost_sd, level, name, &hops, &len) != 0 ||
	    len != sizeof(hops) || hops < 0 || hops > 255)
		hops = up->uost_peer_group ? 1 : 64;
	ost_tpl_set_hops(up, (uint32_t)hops);
}

void
ost_tpl_set_tos(uost_t *up, uint8_t tos)
{
	if (!up->uost_is_v6)
		up->uost_iph->ip_tos = tos;
}

void
ost_tpl_set_payload(uost_t *up, size_t payload)
{
	up->uost_udph->uh_ulen = (uint16_t)(payload + sizeof(struct udphdr));
	if (up->uost_is_v6)
		ost_hdr_csum_v6(up->uost_ip6h, up->uost_udph);
	else
		ost_hdr_csum_v4(up->uost_iph, up->uost_udph);
}
