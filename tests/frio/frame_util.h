/*
 * Frames for the libfrio tests, and a checksum of their own: byte by byte
 * in network order, nothing shared with the library's word-at-a-time sum.
 */
#ifndef FRIO_TEST_FRAME_UTIL_H
#define FRIO_TEST_FRAME_UTIL_H

#include <arpa/inet.h>
#include <stdint.h>
#include <string.h>

#include <vector>

namespace frio_test {

typedef std::vector<uint8_t> bytes;

inline uint32_t
sum_be(const uint8_t *p, size_t n, uint32_t s = 0)
{
	for (size_t i = 0; i + 1 < n; i += 2)
		s += static_cast<uint32_t>(p[i] << 8 | p[i + 1]);
	if (n % 2)
		s += static_cast<uint32_t>(p[n - 1] << 8);
	return s;
}

inline uint16_t
fold(uint32_t s)
{
	while (s >> 16)
		s = (s & 0xffff) + (s >> 16);
	return static_cast<uint16_t>(s);
}

inline uint16_t
get16(const uint8_t *p)
{
	return static_cast<uint16_t>(p[0] << 8 | p[1]);
}

inline void
put16(uint8_t *p, uint16_t v)
{
	p[0] = static_cast<uint8_t>(v >> 8);
	p[1] = static_cast<uint8_t>(v);
}

/* The pseudo-header of the frame's UDP datagram: addresses, protocol and
 * UDP length, summed and folded, not complemented. */
inline uint16_t
pseudo_seed(const uint8_t *f, uint16_t udp_len)
{
	bool v6 = f[12] == 0x86;
	size_t off = v6 ? 22 : 26, alen = v6 ? 32 : 8;

	return fold(sum_be(f + off, alen) + 17 + udp_len);
}

/* The UDP checksum the frame should carry, from scratch. */
inline uint16_t
udp_csum_expected(const bytes &frame)
{
	bool v6 = frame[12] == 0x86;
	size_t u = v6 ? 54 : 14 + (frame[14] & 0xf) * 4;
	bytes udp(frame.begin() + u, frame.end());
	uint16_t c;

	udp[6] = udp[7] = 0;
	c = static_cast<uint16_t>(~fold(sum_be(udp.data(), udp.size(),
	    pseudo_seed(frame.data(), static_cast<uint16_t>(udp.size())))));
	return c == 0 ? 0xffff : c;
}

/* Ethernet + IPv4 (or IPv6) + UDP headers as ostrel prepares them: lengths
 * for payload_len bytes and the pseudo-header seed in the UDP checksum. */
inline bytes
udp_hdr(bool v6, size_t payload_len, uint16_t dport = 5678)
{
	static const uint8_t dst_mac[6] = { 0x02, 0, 0, 0, 0, 0x02 };
	static const uint8_t src_mac[6] = { 0x02, 0, 0, 0, 0, 0x01 };
	size_t ip_len = v6 ? 40 : 20;
	bytes h(14 + ip_len + 8, 0);
	uint8_t *ip = h.data() + 14, *udp = ip + ip_len;
	uint16_t ulen = static_cast<uint16_t>(8 + payload_len);

	memcpy(h.data(), dst_mac, 6);
	memcpy(h.data() + 6, src_mac, 6);
	if (v6) {
		put16(h.data() + 12, 0x86dd);
		ip[0] = 0x60;
		put16(ip + 4, ulen);
		ip[6] = 17;
		ip[7] = 64;
		inet_pton(AF_INET6, "fd00:200::1", ip + 8);
		inet_pton(AF_INET6, "fd00:200::2", ip + 24);
	} else {
		put16(h.data() + 12, 0x0800);
		ip[0] = 0x45;
		put16(ip + 2, static_cast<uint16_t>(20 + ulen));
		put16(ip + 6, 0x4000);
		ip[8] = 64;
		ip[9] = 17;
		inet_pton(AF_INET, "10.200.0.1", ip + 12);
		inet_pton(AF_INET, "10.200.0.2", ip + 16);
	}
	put16(udp, 1234);
	put16(udp + 2, dport);
	put16(udp + 4, ulen);
	put16(udp + 6, pseudo_seed(h.data(), ulen));
	return h;
}

inline bytes
pattern(size_t n, unsigned seed)
{
	bytes b(n);

	for (size_t i = 0; i < n; i++)
		b[i] = static_cast<uint8_t>(seed * 131 + i * 7 + (i >> 8));
	return b;
}

} // namespace frio_test

#endif
