/*
 * rtnetlink buffers, at any alignment, against the route and neighbour
 * answer parsers, and getifaddrs-style lists against the link readers.
 * Input: c0: bit 0 IPv6, bits 1-2 the reader (route, neighbour, neighbour
 * on interface 2, interface list), bit 3 misalign; then the buffer.
 * Requests are sequence 7 of port 4242, for 192.0.2.1 or 2001:db8::1.
 */
#include <arpa/inet.h>
#include <errno.h>
#include <ifaddrs.h>
#include <linux/netlink.h>
#include <net/if_arp.h>
#include <netpacket/packet.h>
#include <string.h>

#include <algorithm>
#include <vector>

#include "fuzz.h"
#include "resolve/netlink.h"

namespace
{

const uint32_t kSeq = 7, kPort = 4242;

/* Whether a whole message of the request's comes before a broken one. */
bool
ours(const uint8_t *buf, size_t len)
{
	struct nlmsghdr h;

	for (size_t at = 0; at + sizeof(h) <= len;
	     at += NLMSG_ALIGN(h.nlmsg_len)) {
		memcpy(&h, buf + at, sizeof(h));
		if (h.nlmsg_len < sizeof(h) || h.nlmsg_len > len - at)
			return false;
		if (h.nlmsg_seq == kSeq && h.nlmsg_pid == kPort)
			return true;
	}
	return false;
}

void
route(int family, const uint8_t *buf, size_t len)
{
	ost_nl_route_t rt, before;

	memset(&rt, 0x5a, sizeof(rt));
	before = rt;
	static const uint8_t zero[16] = {};
	size_t alen = family == AF_INET ? 4 : 16;
	ost_nl_status_t st =
	    ost_nl_route_parse(buf, len, kSeq, kPort, family, &rt);

	FUZZ_CHECK(st == OST_NL_MORE || ours(buf, len));
	if (st == OST_NL_MORE) /* written only when the answer is found */
		FUZZ_CHECK(memcmp(&rt, &before, sizeof(rt)) == 0);
	else if (st == OST_NL_ERROR)
		FUZZ_CHECK(rt.nr_error > 0 && rt.nr_oif == 0 && !rt.nr_has_gw);
	else /* no gateway reads as on-link: nothing of one may show */
		FUZZ_CHECK(st == OST_NL_ANSWER && rt.nr_error == 0 &&
		    (rt.nr_has_gw || memcmp(rt.nr_gw, zero, 16) == 0) &&
		    memcmp(rt.nr_gw + alen, zero, 16 - alen) == 0);
}

void
neigh(int family, uint32_t ifindex, const uint8_t *buf, size_t len)
{
	struct in6_addr dst;
	ost_nl_neigh_t nb;

	inet_pton(AF_INET6, "2001:db8::1", &dst);
	if (family == AF_INET)
		inet_pton(AF_INET, "192.0.2.1", &dst);
	memset(&nb, 0, sizeof(nb));
	ost_nl_status_t st = ost_nl_neigh_parse(buf, len, kSeq, kPort, family,
	    &dst, ifindex, &nb);
	FUZZ_CHECK(st == OST_NL_MORE ||
	    ((st == OST_NL_ANSWER || st == OST_NL_ERROR) && ours(buf, len)));
	FUZZ_CHECK(st != OST_NL_ERROR || nb.nn_error > 0);
	FUZZ_CHECK(!nb.nn_complete || nb.nn_found);
	FUZZ_CHECK(!nb.nn_found ||
	    ((int)nb.nn_ifindex > 0 &&
		(ifindex == 0 || nb.nn_ifindex == ifindex)));
	/* The dump stops at a complete entry. */
	FUZZ_CHECK(!nb.nn_complete || st != OST_NL_MORE);
}

/* A getifaddrs() list of records: index, family, hardware type, address
 * length and 8 bytes, no-address flag, name. */
void
links(const uint8_t *buf, size_t len)
{
	struct entry {
		struct ifaddrs ifa;
		struct sockaddr_ll sll;
		char name[8];
	};
	std::vector<entry> e(len / 16 + 1);
	fuzz_in in = { buf, len };
	size_t n = 0;

	while (in.left != 0 && n < e.size()) {
		entry &x = e[n];

		memset(&x, 0, sizeof(x));
		x.sll.sll_ifindex = in.byte() % 8;
		x.sll.sll_family = (in.byte() & 1) ? AF_PACKET : AF_INET;
		x.sll.sll_hatype =
		    (in.byte() & 1) ? ARPHRD_ETHER : ARPHRD_LOOPBACK;
		x.sll.sll_halen = in.byte();
		for (int i = 0; i < 8; i++)
			x.sll.sll_addr[i] = in.byte();
		x.ifa.ifa_addr =
		    (in.byte() & 1) ? nullptr : (struct sockaddr *)&x.sll;
		for (int i = 0; i < 7; i++)
			x.name[i] = (char)in.byte();
		x.ifa.ifa_name = x.name;
		if (n != 0)
			e[n - 1].ifa.ifa_next = &x.ifa;
		n++;
	}
	for (uint32_t index = 0; index < 8; index++) {
		struct ether_addr mac;
		const struct sockaddr_ll *first = nullptr;

		memset(&mac, 0x5a, sizeof(mac));
		for (size_t i = 0; i < n && first == nullptr; i++) {
			if (e[i].ifa.ifa_addr != nullptr &&
			    e[i].sll.sll_family == AF_PACKET &&
			    (uint32_t)e[i].sll.sll_ifindex == index)
				first = &e[i].sll;
		}
		bool ok =
		    ost_if_ether(n != 0 ? &e[0].ifa : nullptr, index, &mac);
		/* The interface's first entry decides; only Ethernet. */
		FUZZ_CHECK(ok ==
		    (first != nullptr && first->sll_hatype == ARPHRD_ETHER &&
			first->sll_halen == ETHER_ADDR_LEN));
		if (ok)
			FUZZ_CHECK(memcmp(&mac, first->sll_addr, 6) == 0);
	}
	for (size_t i = 0; i < n; i++) {
		char out[OST_IFNAME_SIZE];
		size_t k = std::min(strcspn(e[i].name, ":"),
		    (size_t)OST_IFNAME_SIZE - 1);

		ost_if_name_copy(out, e[i].name);
		FUZZ_CHECK(strlen(out) == k && memcmp(out, e[i].name, k) == 0);
	}
}

} // namespace

extern "C" int
LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	if (size == 0)
		return 0;
	uint8_t c0 = data[0];
	int family = (c0 & 1) ? AF_INET6 : AF_INET;
	size_t len = size - 1;
	/* Its own allocation, so that a read past it is caught. */
	uint8_t *mem = (uint8_t *)malloc(len + 1);
	uint8_t *buf = mem + ((c0 & 8) ? 1 : 0);

	if (!(c0 & 8))
		mem = (uint8_t *)realloc(mem, len == 0 ? 1 : len), buf = mem;
	memcpy(buf, data + 1, len);
	int which = (c0 >> 1) & 3;
	if (which == 0)
		route(family, buf, len);
	else if (which < 3)
		neigh(family, which == 2 ? 2 : 0, buf, len);
	else
		links(buf, len);
	free(mem);
	return 0;
}
