/* The rtnetlink answer parsers on hand-made buffers in heap blocks of
 * exactly their size. */
#include <errno.h>
#include <gtest/gtest.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <string.h>
#include <vector>

#include "resolve/netlink.h"

namespace {

constexpr uint32_t kSeq = 7, kPort = 0x1234;
const uint8_t kDst4[4] = { 10, 201, 1, 2 }, kGw4[4] = { 10, 201, 1, 254 };
const uint8_t kMac[6] = { 2, 0, 0, 0, 1, 2 };

struct NlBuf {
	alignas(4) uint8_t b[1024] = {};
	size_t len = 0, hdr = 0;

	NlBuf &begin(uint16_t type, uint32_t seq = kSeq, uint32_t pid = kPort)
	{
		struct nlmsghdr h = { 0, type, 0, seq, pid };
		hdr = len;
		return put(&h, sizeof (h));
	}
	NlBuf &put(const void *p, size_t n)
	{
		memcpy(b + len, p, n), len += NLMSG_ALIGN(n);
		return *this;
	}
	NlBuf &attr(uint16_t type, const void *p, size_t n, size_t lie = 0)
	{
		struct rtattr a = { (uint16_t)(RTA_LENGTH(n) + lie), type };
		memcpy(b + len, &a, sizeof (a));
		memcpy(b + len + sizeof (a), p, n);
		len += RTA_SPACE(n);
		return *this;
	}
	NlBuf &end(int lie = 0)	/* sets the length, lie bytes off */
	{
		uint32_t n = (uint32_t)(len - hdr + lie);
		memcpy(b + hdr, &n, sizeof (n));
		return *this;
	}
	NlBuf &route(uint32_t seq = kSeq, uint32_t pid = kPort)
	{
		struct rtmsg rtm = {};
		uint32_t oif = 3;
		rtm.rtm_family = AF_INET, rtm.rtm_type = RTN_UNICAST;
		return begin(RTM_NEWROUTE, seq, pid).put(&rtm, sizeof (rtm))
		    .attr(RTA_OIF, &oif, 4);
	}
	NlBuf &error(int err, uint32_t seq = kSeq)
	{
		return begin(NLMSG_ERROR, seq).put(&err, sizeof (err)).end();
	}
};

/* Both parsers on an exact-size copy of b's first len bytes. */
struct Parsed {
	ost_nl_status_t rst, nst;
	ost_nl_route_t rt = {};
	ost_nl_neigh_t nn = {};

	Parsed(const NlBuf &nb, size_t len)
	{
		std::vector<uint8_t> v(nb.b, nb.b + len);
		v.shrink_to_fit();
		rst = ost_nl_route_parse(v.data(), len, kSeq, kPort, AF_INET,
		    &rt);
		nst = ost_nl_neigh_parse(v.data(), len, kSeq, kPort, AF_INET,
		    kDst4, 0, &nn);
	}
};

TEST(ResolveParse, MalformedAndForeignMessages)
{
	/* The route parser's verdict; nr_error, or nr_oif on an answer. */
	const struct { const char *what; void (*build)(NlBuf &);
	    ost_nl_status_t route; int value; bool gw; } cases[] = {
		{ "answer after foreign seq and pid", [](NlBuf &b) {
		    b.route(kSeq + 1).end().route(kSeq, kPort + 1).end();
		    b.error(-EINTR, kSeq - 1);
		    b.route().attr(RTA_GATEWAY, kGw4, 4).end(); },
		    OST_NL_ANSWER, 3, true },
		{ "only foreign messages", [](NlBuf &b) {
		    b.route(kSeq + 1).end().error(-EINTR, kSeq + 1); },
		    OST_NL_MORE, 0, false },
		{ "NLMSG_ERROR", [](NlBuf &b) { b.error(-ENETUNREACH); },
		    OST_NL_ERROR, ENETUNREACH, false },
		{ "NLMSG_ERROR without number", [](NlBuf &b) {
		    b.begin(NLMSG_ERROR).end(); }, OST_NL_ERROR, EPROTO, false },
		{ "message longer than the buffer", [](NlBuf &b) {
		    b.route().end(64); }, OST_NL_MORE, 0, false },
		{ "message shorter than its header", [](NlBuf &b) {
		    b.route().end(); uint32_t n = 8; memcpy(b.b, &n, 4); },
		    OST_NL_MORE, 0, false },
		{ "attribute longer than the message", [](NlBuf &b) {
		    b.route().attr(RTA_GATEWAY, kGw4, 4, 200).end(); },
		    OST_NL_ANSWER, 3, false },
		{ "short gateway", [](NlBuf &b) {
		    b.route().attr(RTA_GATEWAY, kGw4, 3).end(); },
		    OST_NL_ANSWER, 0, false },
	};

	for (const auto &c : cases) {
		NlBuf b;
		c.build(b);
		Parsed p(b, b.len);
		ASSERT_EQ(c.route, p.rst) << c.what;
		if (p.rst == OST_NL_ERROR) {
			EXPECT_EQ(c.value, p.rt.nr_error) << c.what;
			EXPECT_EQ(OST_NL_ERROR, p.nst) << c.what;
		} else if (p.rst == OST_NL_ANSWER) {
			EXPECT_EQ((uint32_t)c.value, p.rt.nr_oif) << c.what;
			EXPECT_EQ(c.gw, (bool)p.rt.nr_has_gw) << c.what;
		}
		/* Cut anywhere, the last message is not seen and nothing is
		 * read past the end (the sanitizer build sees that). */
		for (size_t cut = 0; cut < b.len; cut++)
			EXPECT_EQ(OST_NL_MORE, Parsed(b, cut).rst) << c.what << cut;
	}

	/* A complete entry ends the dump; cut short, it is never seen. */
	NlBuf b;
	struct ndmsg ndm = {};
	ndm.ndm_family = AF_INET, ndm.ndm_ifindex = 2;
	ndm.ndm_state = NUD_REACHABLE;
	b.begin(RTM_NEWNEIGH).put(&ndm, sizeof (ndm)).attr(NDA_DST, kDst4, 4)
	    .attr(NDA_LLADDR, kMac, 6).end().begin(NLMSG_DONE).end();
	for (size_t cut = 0; cut <= b.len; cut++) {
		Parsed p(b, cut);
		EXPECT_EQ(cut >= b.len - 16, p.nst == OST_NL_ANSWER &&
		    p.nn.nn_complete && memcmp(p.nn.nn_lladdr, kMac, 6) == 0)
		    << cut;
	}
}

} // namespace
