/*
 * IPv4 header and UDP checksums of frames built by frio_tx_vec.
 *
 * Every sum here is taken over 16-bit words as they lie in memory, never
 * byte-swapped: the one's-complement sum is byte-order independent, so a
 * result stored back the same way is right in network order.  The caller's
 * pseudo-header seed is built the same way.
 */
#include "frio_csum.h"

#include <string.h>

#define ETH_HLEN_       14
#define ETHERTYPE_IP_   0x0800
#define ETHERTYPE_IPV6_ 0x86dd
#define IPPROTO_UDP_    17
#define UDP_HLEN        8
#define UDP_CSUM_OFF    6

uint64_t
frio_csum_add(uint64_t sum, const void *data, size_t len)
{
	const uint8_t *p = static_cast<const uint8_t *>(data);
	uint64_t w;
	uint32_t v;
	uint16_t h;

	/* 32-bit halves: each addition stays far below 2^64 for any frame. */
	while (len >= 8) {
		memcpy(&w, p, 8);
		sum += (w & 0xffffffffu) + (w >> 32);
		p += 8;
		len -= 8;
	}
	if (len >= 4) {
		memcpy(&v, p, 4);
		sum += v;
		p += 4;
		len -= 4;
	}
	if (len >= 2) {
		memcpy(&h, p, 2);
		sum += h;
		p += 2;
		len -= 2;
	}
	if (len == 1) {
		/* The odd byte is the first of a word whose second is zero. */
		uint8_t last[2] = { p[0], 0 };
		memcpy(&h, last, 2);
		sum += h;
	}
	return sum;
}

uint16_t
frio_csum_fold(uint64_t sum)
{
	while (sum >> 16)
		sum = (sum & 0xffff) + (sum >> 16);
	return static_cast<uint16_t>(sum);
}

frio_status_t
frio_tx_plan(const void *hdr, size_t hdr_len, bool v6_udp_csum,
    frio_tx_plan_t *plan)
{
	const uint8_t *h = static_cast<const uint8_t *>(hdr);
	uint16_t type;

	plan->tp_ip4_off = plan->tp_ip4_len = plan->tp_udp_off = 0;
	if (hdr_len < ETH_HLEN_)
		return FRIO_STATUS_BADHDR;
	type = static_cast<uint16_t>(h[12] << 8 | h[13]);
	if (type == ETHERTYPE_IP_) {
		size_t ihl;

		if (hdr_len < ETH_HLEN_ + 20 + UDP_HLEN)
			return FRIO_STATUS_BADHDR;
		ihl = (h[ETH_HLEN_] & 0x0fu) * 4;
		if ((h[ETH_HLEN_] >> 4) != 4 || ihl < 20 ||
		    hdr_len < ETH_HLEN_ + ihl + UDP_HLEN)
			return FRIO_STATUS_BADHDR;
		/* The UDP checksum of a fragment would need the other ones. */
		if (h[ETH_HLEN_ + 9] != IPPROTO_UDP_ ||
		    ((h[ETH_HLEN_ + 6] & 0x3f) | h[ETH_HLEN_ + 7]) != 0)
			return FRIO_STATUS_BADHDR;
		plan->tp_ip4_off = ETH_HLEN_;
		plan->tp_ip4_len = static_cast<uint16_t>(ihl);
		plan->tp_udp_off = static_cast<uint16_t>(ETH_HLEN_ + ihl);
		return FRIO_STATUS_OK;
	}
	if (type == ETHERTYPE_IPV6_) {
		if (hdr_len < ETH_HLEN_ + 40 + UDP_HLEN ||
		    (h[ETH_HLEN_] >> 4) != 6)
			return FRIO_STATUS_BADHDR;
		if (v6_udp_csum) {
			if (h[ETH_HLEN_ + 6] != IPPROTO_UDP_)
				return FRIO_STATUS_BADHDR;
			plan->tp_udp_off = ETH_HLEN_ + 40;
		}
		return FRIO_STATUS_OK;
	}
	return FRIO_STATUS_BADHDR;
}

void
frio_tx_finish(void *frame, size_t len, const frio_tx_plan_t *plan)
{
	uint8_t *f = static_cast<uint8_t *>(frame);
	uint16_t c;

	if (plan->tp_ip4_off != 0) {
		uint8_t *ip = f + plan->tp_ip4_off;

		memset(ip + 10, 0, 2);
		c = static_cast<uint16_t>(
		    ~frio_csum_fold(frio_csum_add(0, ip, plan->tp_ip4_len)));
		memcpy(ip + 10, &c, 2);
	}
	if (plan->tp_udp_off != 0) {
		uint8_t *udp = f + plan->tp_udp_off;
		uint16_t seed;

		memcpy(&seed, udp + UDP_CSUM_OFF, 2);
		memset(udp + UDP_CSUM_OFF, 0, 2);
		c = static_cast<uint16_t>(~frio_csum_fold(
		    frio_csum_add(seed, udp, len - plan->tp_udp_off)));
		/* Zero on the wire means "no checksum" (and is invalid for
		 * IPv6); its one's-complement twin is sent instead. */
		if (c == 0)
			c = 0xffff;
		memcpy(udp + UDP_CSUM_OFF, &c, 2);
	}
}
