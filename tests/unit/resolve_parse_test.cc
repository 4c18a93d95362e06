/*
 * The rtnetlink answer parsers of path resolution, fed hand-made buffers:
 * which message is the answer, what it says, and that no buffer, however
 * malformed, makes them read outside it.
 */
#include <arpa/inet.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <stdlib.h>
#include <string.h>

#include "sub/netlink.h"

namespace {

constexpr uint32_t kSeq = 7, kPort = 0x1234;
const uint8_t kDst4[4] = { 10, 201, 1, 2 };
const uint8_t kGw4[4] = { 10, 201, 1, 254 };
const uint8_t kMac[6] = { 0x02, 0, 0, 0, 0x01, 0x02 };

/* Netlink messages laid out as the kernel lays them out. */
struct NlBuf {
	alignas(4) uint8_t b[OST_NL_BUF_SIZE] = {};
	size_t len = 0, hdr = 0;

	NlBuf &begin(uint16_t type, uint32_t seq = kSeq, uint32_t pid = kPort)
	{
		struct nlmsghdr h = {};
		h.nlmsg_type = type;
		h.nlmsg_seq = seq;
		h.nlmsg_pid = pid;
		hdr = len;
		return put(&h, sizeof (h));
	}
	NlBuf &put(const void *p, size_t n)
	{
		memcpy(b + len, p, n);
		len += NLMSG_ALIGN(n);
		return *this;
	}
	NlBuf &attr(uint16_t type, const void *p, size_t n)
	{
		struct rtattr a = { (uint16_t)RTA_LENGTH(n), type };
		memcpy(b + len, &a, sizeof (a));
		memcpy(b + len + sizeof (a), p, n);
		len += RTA_SPACE(n);
		return *this;
	}
	NlBuf &end()
	{
		uint32_t n = (uint32_t)(len - hdr);
		memcpy(b + hdr, &n, sizeof (n));
		return *this;
	}
	/* A route answer's head: attributes follow, then end(). */
	NlBuf &route(uint8_t family, uint8_t type = RTN_UNICAST,
	    uint32_t seq = kSeq, uint32_t pid = kPort)
	{
		struct rtmsg rtm = {};
		uint32_t table = RT_TABLE_MAIN;
		rtm.rtm_family = family;
		rtm.rtm_type = type;
		return begin(RTM_NEWROUTE, seq, pid).put(&rtm, sizeof (rtm))
		    .attr(RTA_TABLE, &table, 4).attr(RTA_DST, kDst4, 4);
	}
	NlBuf &oif(uint32_t i) { return attr(RTA_OIF, &i, sizeof (i)); }
	NlBuf &error(int err, uint16_t type = NLMSG_ERROR, uint32_t seq = kSeq)
	{
		return begin(type, seq).put(&err, sizeof (err)).end();
	}
	NlBuf &neigh(int ifindex, uint16_t state, const void *ll = nullptr,
	    size_t lllen = 0, uint8_t flags = 0, uint8_t family = AF_INET,
	    const void *dst = kDst4, size_t dlen = 4)
	{
		struct ndmsg ndm = {};
		ndm.ndm_family = family;
		ndm.ndm_ifindex = ifindex;
		ndm.ndm_state = state;
		ndm.ndm_flags = flags;
		begin(RTM_NEWNEIGH).put(&ndm, sizeof (ndm)).attr(NDA_DST, dst,
		    dlen);
		if (ll != nullptr)
			attr(NDA_LLADDR, ll, lllen);
		return end();
	}
	ost_nl_status_t parse(ost_nl_route_t *rt, int family = AF_INET) const
	{
		return ost_nl_route_parse(b, len, kSeq, kPort, family, rt);
	}
	ost_nl_status_t parse(ost_nl_neigh_t *nb, uint32_t ifindex = 0) const
	{
		return ost_nl_neigh_parse(b, len, kSeq, kPort, AF_INET, kDst4,
		    ifindex, nb);
	}
};

TEST(ResolveRouteParse, AnswerFoundAmongOtherMessages)
{
	NlBuf b;
	ost_nl_route_t rt;

	memset(&rt, 0xa5, sizeof (rt));
	b.route(AF_INET, RTN_UNICAST, kSeq + 1).oif(9).end();	/* old query */
	b.route(AF_INET, RTN_UNICAST, kSeq, kPort + 1).oif(9).end();
	b.error(-ENETUNREACH, NLMSG_ERROR, kSeq - 1);
	b.begin(RTM_NEWLINK).put("abcd", 4).end();	/* ours, other type */
	EXPECT_EQ(OST_NL_MORE, b.parse(&rt));
	size_t before = b.len;
	b.route(AF_INET).oif(3).attr(RTA_GATEWAY, kGw4, 4).end();
	/* Cut short by the buffer's end, the answer is not seen at all. */
	b.len -= 4;
	EXPECT_EQ(OST_NL_MORE, b.parse(&rt));
	EXPECT_EQ(0xa5a5a5a5u, rt.nr_oif);
	b.len += 4;
	ASSERT_EQ(OST_NL_ANSWER, b.parse(&rt));
	EXPECT_EQ(3u, rt.nr_oif);
	EXPECT_TRUE(rt.nr_has_gw);
	EXPECT_EQ(0, memcmp(rt.nr_gw, kGw4, 4));

	b.len = before;		/* on-link: no gateway */
	b.route(AF_INET).oif(4).end();
	ASSERT_EQ(OST_NL_ANSWER, b.parse(&rt));
	EXPECT_EQ(4u, rt.nr_oif);
	EXPECT_FALSE(rt.nr_has_gw);
}

const uint8_t kVia6[18] = { AF_INET6 & 0xff, AF_INET6 >> 8 };

TEST(ResolveRouteParse, RefusedAndUnusableAnswers)
{
	/* st OST_NL_ERROR: err is the errno; else nr_oif must be 0. */
	const struct {
		const char *what;
		void (*build)(NlBuf &);
		ost_nl_status_t st;
		int err;
	} cases[] = {
		{ "no route", [](NlBuf &b) { b.error(-ENETUNREACH); },
		    OST_NL_ERROR, ENETUNREACH },
		{ "error without number", [](NlBuf &b) {
		    b.begin(NLMSG_ERROR).end(); }, OST_NL_ERROR, EPROTO },
		{ "unreachable", [](NlBuf &b) {
		    b.route(AF_INET, RTN_UNREACHABLE).oif(1).end(); },
		    OST_NL_ERROR, EHOSTUNREACH },
		{ "prohibit", [](NlBuf &b) {
		    b.route(AF_INET, RTN_PROHIBIT).oif(1).end(); },
		    OST_NL_ERROR, EACCES },
		{ "blackhole", [](NlBuf &b) {
		    b.route(AF_INET, RTN_BLACKHOLE).oif(1).end(); },
		    OST_NL_ERROR, EINVAL },
		{ "no interface", [](NlBuf &b) { b.route(AF_INET).end(); },
		    OST_NL_ANSWER, 0 },
		{ "short gateway", [](NlBuf &b) {
		    b.route(AF_INET).oif(3).attr(RTA_GATEWAY, kGw4, 3).end(); },
		    OST_NL_ANSWER, 0 },
		{ "other family", [](NlBuf &b) {
		    b.route(AF_INET6).oif(3).end(); }, OST_NL_ANSWER, 0 },
		{ "IPv6 next hop", [](NlBuf &b) {
		    b.route(AF_INET).oif(3).attr(RTA_VIA, kVia6, 18).end(); },
		    OST_NL_ANSWER, 0 },
		{ "bare acknowledgement", [](NlBuf &b) { b.error(0); },
		    OST_NL_ANSWER, 0 },
	};

	for (const auto &c : cases) {
		NlBuf b;
		ost_nl_route_t rt;

		c.build(b);
		ASSERT_EQ(c.st, b.parse(&rt)) << c.what;
		EXPECT_EQ(c.err, c.st == OST_NL_ERROR ? rt.nr_error :
		    (int)rt.nr_oif) << c.what;
	}
}

TEST(ResolveRouteParse, IPv6GatewayByEitherAttribute)
{
	uint8_t via[18];
	ost_nl_route_t rt;

	memcpy(via, kVia6, 2);
	inet_pton(AF_INET6, "fe80::1", via + 2);
	for (int use_via = 0; use_via < 2; use_via++) {
		NlBuf b;
		b.route(AF_INET6).oif(5);
		if (use_via)
			b.attr(RTA_VIA, via, sizeof (via));
		else
			b.attr(RTA_GATEWAY, via + 2, 16);
		b.end();
		ASSERT_EQ(OST_NL_ANSWER, b.parse(&rt, AF_INET6));
		EXPECT_EQ(5u, rt.nr_oif);
		EXPECT_TRUE(rt.nr_has_gw);
		EXPECT_EQ(0, memcmp(rt.nr_gw, via + 2, 16));
	}
}

TEST(ResolveNeighParse, StatesThatHoldAnAddress)
{
	static const struct {
		uint16_t state;
		bool complete;
	} states[] = {
		{ NUD_REACHABLE, true }, { NUD_STALE, true },
		{ NUD_DELAY, true }, { NUD_PROBE, true },
		{ NUD_PERMANENT, true }, { NUD_NOARP, true },
		{ NUD_INCOMPLETE, false }, { NUD_FAILED, false },
		{ NUD_NONE, false },
	};

	for (const auto &s : states) {
		for (bool with_ll : { true, false }) {
			ost_nl_neigh_t nb = {};
			NlBuf b;

			b.neigh(2, s.state, with_ll ? kMac : nullptr, 6);
			b.error(0, NLMSG_DONE);
			ASSERT_EQ(OST_NL_ANSWER, b.parse(&nb)) << s.state;
			EXPECT_TRUE(nb.nn_found);
			EXPECT_EQ(s.complete && with_ll, (bool)nb.nn_complete)
			    << s.state;
			EXPECT_EQ(s.state, nb.nn_state);
		}
	}
}

TEST(ResolveNeighParse, WhichEntryIsTaken)
{
	const uint8_t other[4] = { 10, 201, 1, 3 }, dst6[16] = { 10, 201, 1, 2 };
	uint8_t longll[40];
	ost_nl_neigh_t nb = {};
	NlBuf b1, b2, b3;

	b1.neigh(2, NUD_REACHABLE, kMac, 6, 0, AF_INET, other, 4);
	b1.neigh(2, NUD_REACHABLE, kMac, 6, 0, AF_INET6, dst6, 16);
	b1.neigh(2, NUD_REACHABLE, kMac, 6, NTF_PROXY);
	b1.neigh(2, NUD_REACHABLE, kMac, 6, 0, AF_INET, kDst4, 3);
	b1.neigh(3, NUD_INCOMPLETE);
	b2.neigh(4, NUD_FAILED);
	b2.neigh(5, NUD_STALE, kMac, 6);
	b2.neigh(6, NUD_REACHABLE, kMac, 6);
	/* The first entry met is kept across buffers ... */
	EXPECT_EQ(OST_NL_MORE, b1.parse(&nb));
	EXPECT_TRUE(nb.nn_found);
	EXPECT_EQ(3u, nb.nn_ifindex);
	/* ... until a complete one ends the dump. */
	ASSERT_EQ(OST_NL_ANSWER, b2.parse(&nb));
	EXPECT_TRUE(nb.nn_complete);
	EXPECT_EQ(5u, nb.nn_ifindex);
	EXPECT_EQ(0, memcmp(nb.nn_lladdr, kMac, 6));
	nb = {};
	ASSERT_EQ(OST_NL_ANSWER, b2.parse(&nb, 6));
	EXPECT_EQ(6u, nb.nn_ifindex);

	/* Lengths other than 6 are reported, never copied past the field. */
	memset(longll, 0x5c, sizeof (longll));
	b3.neigh(2, NUD_REACHABLE, longll, sizeof (longll));
	nb = {};
	ASSERT_EQ(OST_NL_ANSWER, b3.parse(&nb));
	EXPECT_EQ(40u, nb.nn_lladdr_len);
}

TEST(ResolveNeighParse, EndsAndRefusals)
{
	ost_nl_neigh_t nb = {};
	NlBuf done, bare, intr, noent, other;

	done.error(0, NLMSG_DONE);
	ASSERT_EQ(OST_NL_ANSWER, done.parse(&nb));
	EXPECT_FALSE(nb.nn_found);
	bare.begin(NLMSG_DONE).end();	/* no error number at all */
	EXPECT_EQ(OST_NL_ANSWER, bare.parse(&nb));
	intr.error(-EINTR, NLMSG_DONE);
	ASSERT_EQ(OST_NL_ERROR, intr.parse(&nb));
	EXPECT_EQ(EINTR, nb.nn_error);
	noent.error(-ENOENT);
	ASSERT_EQ(OST_NL_ERROR, noent.parse(&nb));
	EXPECT_EQ(ENOENT, nb.nn_error);
	other.error(0, NLMSG_DONE, kSeq + 1);	/* another request's end */
	EXPECT_EQ(OST_NL_MORE, other.parse(&nb));
}

/* xorshift64*: reproducible, and cheap enough for many rounds. */
uint64_t
next_rand(uint64_t *s)
{
	*s ^= *s >> 12;
	*s ^= *s << 25;
	*s ^= *s >> 27;
	return *s * 0x2545f4914f6cdd1dULL;
}

/*
 * Valid answers, mutated at random and cut anywhere, handed to the parsers
 * in heap blocks of exactly their size, so that the sanitizers see any
 * read past the end.
 */
TEST(ResolveParseFuzz, MalformedBuffersStayInBounds)
{
	NlBuf seeds[3];
	uint64_t s = 0x9e3779b97f4a7c15ULL;
	uint8_t gw6[16] = { 0xfe, 0x80 };
	int answers = 0;

	seeds[0].route(AF_INET, RTN_UNICAST, kSeq + 1).oif(9).end();
	seeds[0].route(AF_INET).oif(3).attr(RTA_GATEWAY, kGw4, 4).end();
	seeds[1].neigh(2, NUD_INCOMPLETE).neigh(2, NUD_STALE, kMac, 6);
	seeds[1].error(0, NLMSG_DONE);
	seeds[2].route(AF_INET6).oif(3).attr(RTA_GATEWAY, gw6, 16).end();
	seeds[2].error(-ENOENT);

	for (int i = 0; i < 200000; i++) {
		const NlBuf &seed = seeds[i % 3];
		size_t len = seed.len;
		uint8_t *buf;

		if (i % 16 == 0)
			len = (size_t)(next_rand(&s) % 256);
		else if (i % 4 == 0)
			len = (size_t)(next_rand(&s) % (len + 1));
		buf = (uint8_t *)malloc(len != 0 ? len : 1);
		ASSERT_NE(nullptr, buf);
		for (size_t j = 0; j < len; j++)
			buf[j] = i % 16 == 0 ? (uint8_t)next_rand(&s) :
			    seed.b[j];
		for (int m = 1 + (int)(next_rand(&s) % 8); m > 0 && len; m--) {
			uint64_t r = next_rand(&s);
			uint8_t *at = &buf[r % len];

			r >>= 32;
			switch (r % 4) {
			case 0: *at = (uint8_t)(r >> 8); break;
			case 1: *at = (uint8_t)((r >> 8) % 24); break; /* lengths */
			case 2: *at = 0xff; break;
			default: *at ^= (uint8_t)(1u << ((r >> 8) % 8)); break;
			}
		}
		for (int family : { AF_INET, AF_INET6 }) {
			const uint8_t dst6[16] = { 10, 201, 1, 2 };
			ost_nl_route_t rt;
			ost_nl_neigh_t nb = {};
			ost_nl_status_t st;

			st = ost_nl_route_parse(buf, len, kSeq, kPort, family,
			    &rt);
			answers += st == OST_NL_ANSWER;
			if (st == OST_NL_ERROR) {
				EXPECT_GT(rt.nr_error, 0);
			}
			st = ost_nl_neigh_parse(buf, len, kSeq, kPort, family,
			    family == AF_INET ? (const void *)kDst4 : dst6,
			    (uint32_t)(i % 3), &nb);
			if (st == OST_NL_ERROR) {
				EXPECT_GT(nb.nn_error, 0);
			}
			if (nb.nn_complete) {
				EXPECT_TRUE(nb.nn_found);
			}
		}
		free(buf);
	}
	/* Many mutants still parse: the runs reach the attribute walks. */
	EXPECT_GT(answers, 1000);
}

} // namespace
