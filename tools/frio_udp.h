/*
 * UDP frames for programs that drive libfrio directly: the prepared
 * Ethernet/IP/UDP header as the preload library keeps it (lengths and the
 * pseudo-header checksum seed written per datagram, the rest completed by
 * frio_tx_vec), the receive filter for an address and port, and a parser
 * for received frames.  Header-only; shared by friodump, the libfrio tests
 * and the round-trip benchmark.
 */
#ifndef FRIO_UDP_H
#define FRIO_UDP_H

#include <arpa/inet.h>
#include <net/ethernet.h>
#include <netinet/in.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/uio.h>

#include "frio.h"

namespace frio_udp
{

struct addr {
	bool v6;
	struct in6_addr a; /* IPv4 in mapped form */
};

inline bool
parse_addr(const char *s, addr *out)
{
	struct in_addr v4;

	memset(out, 0, sizeof(*out));
	if (inet_pton(AF_INET, s, &v4) == 1) {
		out->a.s6_addr[10] = out->a.s6_addr[11] = 0xff;
		memcpy(&out->a.s6_addr[12], &v4, 4);
		return true;
	}
	out->v6 = true;
	return inet_pton(AF_INET6, s, &out->a) == 1;
}

inline const char *
addr_str(const addr &a, char *buf, size_t len)
{
	if (a.v6)
		return inet_ntop(AF_INET6, &a.a, buf, (socklen_t)len);
	return inet_ntop(AF_INET, &a.a.s6_addr[12], buf, (socklen_t)len);
}

/* The filter that delivers datagrams for dst:port sent to mac. */
inline frio_filter_args_t
filter(const struct ether_addr &mac, const addr &dst, uint16_t port)
{
	frio_filter_args_t f;

	memset(&f, 0, sizeof(f));
	f.uf_type = FRIO_FILTER_MAC_IP_PORT;
	memcpy(f.uf_macaddr, &mac, 6);
	f.uf_dst_ip = dst.a;
	f.uf_dst_port = htons(port);
	return f;
}

inline uint32_t
sum_words(const void *p, size_t len)
{
	const uint8_t *b = static_cast<const uint8_t *>(p);
	uint32_t s = 0;

	for (size_t i = 0; i + 1 < len; i += 2) {
		uint16_t w;

		memcpy(&w, b + i, 2);
		s += w;
	}
	return s;
}

/* One destination's prepared header. */
struct sender {
	uint8_t hdr[64];
	size_t hlen;
	bool v6;
	uint32_t addr_sum; /* pseudo-header addresses, summed once */
	frio_tx_args_t ta;
};

inline void
sender_init(sender *s, const struct ether_addr &smac,
    const struct ether_addr &dmac, const addr &src, const addr &dst,
    uint16_t sport, uint16_t dport)
{
	uint8_t *h = s->hdr, *udp;

	memset(s, 0, sizeof(*s));
	memcpy(h, &dmac, 6);
	memcpy(h + 6, &smac, 6);
	s->v6 = dst.v6;
	if (!dst.v6) {
		h[12] = 0x08;
		h[14] = 0x45;
		h[20] = 0x40; /* don't fragment */
		h[22] = 64;
		h[23] = IPPROTO_UDP;
		memcpy(h + 26, &src.a.s6_addr[12], 4);
		memcpy(h + 30, &dst.a.s6_addr[12], 4);
		s->addr_sum = sum_words(h + 26, 8);
		s->hlen = 42;
	} else {
		h[12] = 0x86;
		h[13] = 0xdd;
		h[14] = 0x60;
		h[20] = IPPROTO_UDP;
		h[21] = 64;
		memcpy(h + 22, &src.a, 16);
		memcpy(h + 38, &dst.a, 16);
		s->addr_sum = sum_words(h + 22, 32);
		s->hlen = 62;
		s->ta.ut_pkt_options = FRIO_TX_OPT_IPV6_CKSUM;
	}
	udp = h + s->hlen - 8;
	uint16_t sp = htons(sport), dp = htons(dport);
	memcpy(udp, &sp, 2);
	memcpy(udp + 2, &dp, 2);
}

/* Lengths and pseudo-header seed for a payload of len bytes. */
inline void
sender_set_len(sender *s, size_t len)
{
	uint16_t ulen = htons((uint16_t)(8 + len));
	uint16_t iplen = htons((uint16_t)(20 + 8 + len));
	uint8_t *udp = s->hdr + s->hlen - 8;
	uint32_t sum = s->addr_sum + ulen + htons(IPPROTO_UDP);

	if (s->v6)
		memcpy(s->hdr + 18, &ulen, 2);
	else
		memcpy(s->hdr + 16, &iplen, 2);
	memcpy(udp + 4, &ulen, 2);
	sum = (sum & 0xffff) + (sum >> 16);
	sum = (sum & 0xffff) + (sum >> 16);
	uint16_t seed = (uint16_t)sum;
	memcpy(udp + 6, &seed, 2);
}

inline frio_status_t
send(frio_handle_t h, sender *s, const void *payload, size_t len)
{
	struct iovec iov = { const_cast<void *>(payload), len };

	sender_set_len(s, len);
	return frio_tx_vec(h, s->v6 ? &s->ta : nullptr, s->hdr, s->hlen, &iov,
	    1);
}

/* A received UDP frame, taken apart. */
struct datagram {
	addr src, dst;
	uint16_t sport, dport;
	const uint8_t *payload;
	size_t len;
};

/* False unless frame is Ethernet, IPv4 without options or IPv6 without
 * extension headers, and UDP whose length fits in the frame. */
inline bool
parse(const void *frame, size_t flen, datagram *d)
{
	const uint8_t *f = static_cast<const uint8_t *>(frame);
	size_t off;

	memset(d, 0, sizeof(*d));
	if (flen < 14 + 20 + 8)
		return false;
	if (f[12] == 0x08 && f[13] == 0x00) {
		if (f[14] != 0x45 || f[23] != IPPROTO_UDP)
			return false;
		d->src.a.s6_addr[10] = d->src.a.s6_addr[11] = 0xff;
		d->dst.a.s6_addr[10] = d->dst.a.s6_addr[11] = 0xff;
		memcpy(&d->src.a.s6_addr[12], f + 26, 4);
		memcpy(&d->dst.a.s6_addr[12], f + 30, 4);
		off = 34;
	} else if (f[12] == 0x86 && f[13] == 0xdd) {
		if (flen < 14 + 40 + 8 || f[20] != IPPROTO_UDP)
			return false;
		d->src.v6 = d->dst.v6 = true;
		memcpy(&d->src.a, f + 22, 16);
		memcpy(&d->dst.a, f + 38, 16);
		off = 54;
	} else {
		return false;
	}
	size_t ulen = (size_t)(f[off + 4] << 8 | f[off + 5]);

	if (ulen < 8 || off + ulen > flen)
		return false;
	d->sport = (uint16_t)(f[off] << 8 | f[off + 1]);
	d->dport = (uint16_t)(f[off + 2] << 8 | f[off + 3]);
	d->payload = f + off + 8;
	d->len = ulen - 8;
	return true;
}

} // namespace frio_udp

#endif /* FRIO_UDP_H */
