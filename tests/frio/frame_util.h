/* Test frames and a byte-at-a-time checksum independent of libfrio's. */
#ifndef FRIO_TEST_FRAME_UTIL_H
#define FRIO_TEST_FRAME_UTIL_H

#include <arpa/inet.h>
#include <stdint.h>
#include <string.h>

#include <string>
#include <vector>

namespace frio_test
{

typedef std::vector<uint8_t> bytes;

inline uint32_t
sum_be(const uint8_t *p, size_t n, uint32_t s = 0)
{
	for (size_t i = 0; i < n; i++)
		s += static_cast<uint32_t>(i % 2 ? p[i] : p[i] << 8);
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
	return uint16_t(p[0] << 8 | p[1]);
}
inline void
put16(uint8_t *p, uint16_t v)
{
	p[0] = uint8_t(v >> 8), p[1] = uint8_t(v);
}

/* Folded, uncomplemented sum of the frame's UDP pseudo-header. */
inline uint16_t
pseudo_seed(const uint8_t *f, uint16_t udp_len)
{
	bool v6 = f[12] == 0x86;
	return fold(sum_be(f + (v6 ? 22 : 26), v6 ? 32 : 8) + 17 + udp_len);
}

/* Ethernet, IPv4 or IPv6 and UDP headers for payload_len bytes, the UDP
 * checksum field holding the pseudo-header seed. */
inline bytes
udp_hdr(bool v6, size_t payload_len, uint16_t dport = 5678)
{
	size_t ip_len = v6 ? 40 : 20;
	bytes h(14 + ip_len + 8, 0);
	uint8_t *ip = h.data() + 14, *udp = ip + ip_len;
	uint16_t ulen = uint16_t(8 + payload_len);

	h[0] = h[6] = h[5] = 0x02, h[11] = 0x01;
	put16(&h[12], v6 ? 0x86dd : 0x0800);
	if (v6) {
		ip[0] = 0x60, ip[6] = 17, ip[7] = 64;
		put16(ip + 4, ulen);
		inet_pton(AF_INET6, "fd00:200::1", ip + 8);
		inet_pton(AF_INET6, "fd00:200::2", ip + 24);
	} else {
		ip[0] = 0x45, ip[8] = 64, ip[9] = 17;
		put16(ip + 2, uint16_t(20 + ulen));
		put16(ip + 6, 0x4000);
		inet_pton(AF_INET, "10.200.0.1", ip + 12);
		inet_pton(AF_INET, "10.200.0.2", ip + 16);
	}
	put16(udp, 1234);
	put16(udp + 2, dport);
	put16(udp + 4, ulen);
	put16(udp + 6, pseudo_seed(h.data(), ulen));
	return h;
}

/* Fills in f's IPv4 header checksum and its UDP checksum, a UDP sum of
 * zero sent as 0xffff. */
inline void
complete(bytes &f)
{
	bool v6 = f[12] == 0x86;
	size_t u = v6 ? 54 : 34;
	uint16_t ulen = get16(&f[u + 4]), sum;

	if (!v6) {
		put16(&f[24], 0);
		put16(&f[24], uint16_t(~fold(sum_be(&f[14], 20))));
	}
	put16(&f[u + 6], 0);
	sum = uint16_t(~fold(sum_be(&f[u], ulen, pseudo_seed(f.data(), ulen))));
	put16(&f[u + 6], sum != 0 ? sum : 0xffff);
}

/* udp_hdr's frame from src to dst (IPv6 or IPv4-mapped addresses, ports in
 * network order) carrying payload, complete as a kernel sends it. */
inline bytes
udp_frame(bool v6, const std::string &payload, const struct in6_addr &src,
    uint16_t sport, const struct in6_addr &dst, uint16_t dport)
{
	bytes f = udp_hdr(v6, payload.size());
	size_t a = v6 ? 22 : 26, n = v6 ? 16 : 4, u = v6 ? 54 : 34;

	memcpy(&f[a], &src.s6_addr[16 - n], n);
	memcpy(&f[a + n], &dst.s6_addr[16 - n], n);
	memcpy(&f[u], &sport, 2);
	memcpy(&f[u + 2], &dport, 2);
	f.insert(f.end(), payload.begin(), payload.end());
	complete(f);
	return f;
}

inline bytes
pattern(size_t n, unsigned seed)
{
	bytes b(n);
	for (size_t i = 0; i < n; i++)
		b[i] = uint8_t(seed * 131 + i * 7 + (i >> 8));
	return b;
}

} // namespace frio_test

#endif
