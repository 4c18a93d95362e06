/* libfrio without an interface: checksums, transmit refusals, the receive
 * rule against the packet backend's socket filter run by the kernel, and
 * filter set-up. */
#include <gtest/gtest.h>

#include <linux/filter.h>
#include <sys/socket.h>
#include <unistd.h>
#include <stdlib.h>

#include "frame_util.h"
#include "frio.h"
#include "frio_csum.h"
#include "frio_impl.h"
#include "frio_mem.h"

using namespace frio_test;

namespace
{

class MemTest : public ::testing::Test
{
      protected:
	void SetUp() override
	{
		setenv("FRIO_BACKEND", "mem", 1);
		frio_mem_reset();
		ASSERT_EQ(frio_open("mem0", nullptr, &h_), FRIO_STATUS_OK);
	}
	void TearDown() override
	{
		frio_close(h_);
		frio_mem_reset();
		EXPECT_EQ(frio_mem_open_count(), 0);
	}

	/* Sends hdr + payload in pieces of the given sizes; returns what went
	 * out. */
	bytes transmit(const bytes &hdr, bytes payload,
	    const std::vector<size_t> &cuts, frio_tx_args_t *ta)
	{
		std::vector<struct iovec> iov;
		size_t off = 0;

		for (size_t c : cuts)
			iov.push_back({ &payload[off], c }), off += c;
		iov.push_back({ payload.data() + off, payload.size() - off });
		EXPECT_EQ(frio_tx_vec(h_, ta, hdr.data(), hdr.size(),
			      iov.data(), int(iov.size())),
		    FRIO_STATUS_OK);
		bytes out(FRIO_MAX_FRAME + 1);
		ssize_t n = frio_mem_tx_pop(h_, out.data(), out.size());
		EXPECT_EQ(n, ssize_t(hdr.size() + payload.size()));
		out.resize(n < 0 ? 0 : size_t(n));
		return out;
	}

	frio_handle_t h_ = nullptr;
};

frio_filter_args_t
filter_for(const bytes &frame)
{
	frio_filter_args_t f = {};
	bool v6 = frame[12] == 0x86;

	f.uf_type = FRIO_FILTER_MAC_IP_PORT;
	memcpy(f.uf_macaddr, frame.data(), 6);
	if (!v6)
		f.uf_dst_ip.s6_addr[10] = f.uf_dst_ip.s6_addr[11] = 0xff;
	memcpy(&f.uf_dst_ip.s6_addr[v6 ? 0 : 12], &frame[v6 ? 38 : 30],
	    v6 ? 16 : 4);
	memcpy(&f.uf_dst_port, &frame[v6 ? 56 : 36], 2);
	return f;
}

bytes
wire_frame(bool v6, size_t len, uint16_t dport = 5678)
{
	bytes f = udp_hdr(v6, len, dport), p = pattern(len, 3);

	f.insert(f.end(), p.begin(), p.end());
	return f;
}

/* IPv4 header and UDP checksums, IPv6 UDP's when asked (else the seed goes
 * out), for odd lengths, one-byte pieces, both maxima, and a zero sum. */
TEST_F(MemTest, CompletesChecksums)
{
	frio_tx_args_t ta = {};
	const std::vector<size_t> gathers[] = { {}, { 0, 1, 2, 0 },
		std::vector<size_t>(300, 1) };

	ta.ut_pkt_options = FRIO_TX_OPT_IPV6_CKSUM;
	for (bool v6 : { false, true }) {
		size_t u = v6 ? 54 : 34, max = v6 ? 1452 : 1472;

		for (size_t len : { size_t(1), size_t(10), size_t(301), max }) {
			bytes hdr = udp_hdr(v6, len), payload = pattern(len, 5);

			if (len == 10) { /* a last word that makes the sum 0 */
				bytes w = hdr;
				w.insert(w.end(), payload.begin(),
				    payload.end());
				put16(&w[u + 6], 0);
				put16(&payload[8],
				    uint16_t(~fold(sum_be(&w[u], 16,
					pseudo_seed(w.data(), 18)))));
			}
			bytes want = hdr;
			want.insert(want.end(), payload.begin(), payload.end());
			if (v6) {
				EXPECT_EQ(transmit(hdr, payload, {}, nullptr),
				    want);
			}
			complete(want);
			EXPECT_TRUE(len != 10 || get16(&want[u + 6]) == 0xffff);
			for (const std::vector<size_t> &cuts : gathers) {
				if (cuts.size() <= len) {
					EXPECT_EQ(transmit(hdr, payload, cuts,
						      v6 ? &ta : nullptr),
					    want)
					    << v6 << " " << len;
				}
			}
		}
	}
}

/* Headers refused before a transmit buffer is taken: nothing is queued,
 * and the next frame goes out. */
TEST_F(MemTest, RefusesMalformedAndOversizeFrames)
{
	frio_tx_args_t ta = {};
	bytes payload = pattern(1500, 1);

	ta.ut_pkt_options = FRIO_TX_OPT_IPV6_CKSUM;
	/* v6, byte to change (or where to cut), value (-1: cut), payload
	 * length (too big when not 0). */
	const struct {
		bool v6;
		size_t off;
		int val;
		size_t len;
	} cases[] = {
		{ 0, 12, 0x81, 0 }, /* VLAN */
		{ 0, 14, 0x65, 0 }, /* version 6 */
		{ 0, 14, 0x44, 0 }, /* IHL 16 */
		{ 0, 14, 0x46, 0 }, /* options cut */
		{ 0, 20, 0x20, 0 }, /* more frags */
		{ 0, 21, 0x01, 0 }, /* offset */
		{ 0, 23, 6, 0 },    /* TCP */
		{ 0, 41, -1, 0 },
		{ 0, 13, -1, 0 },
		{ 1, 14, 0x40, 0 },
		{ 1, 20, 6, 0 }, /* next header */
		{ 1, 61, -1, 0 },
		{ 0, 0, 0x02, 1473 },
		{ 1, 0, 0x02, 1453 },
	};
	for (const auto &c : cases) {
		bytes hdr = udp_hdr(c.v6, c.len);
		struct iovec iov = { payload.data(), c.len };

		if (c.val < 0)
			hdr.resize(c.off);
		else
			hdr[c.off] = uint8_t(c.val);
		EXPECT_EQ(frio_tx_vec(h_, c.v6 ? &ta : nullptr, hdr.data(),
			      hdr.size(), &iov, 1),
		    c.len != 0 ? FRIO_STATUS_TOOBIG : FRIO_STATUS_BADHDR)
		    << c.v6 << " " << c.off;
	}
	bytes hdr = udp_hdr(false, 0);
	struct iovec hole = { nullptr, 1 };

	EXPECT_EQ(frio_tx_vec(h_, nullptr, hdr.data(), hdr.size(), &hole, 1),
	    FRIO_STATUS_BADARG);
	EXPECT_EQ(frio_mem_tx_pending(h_), 0);
	EXPECT_EQ(frio_tx_vec(h_, nullptr, hdr.data(), hdr.size(), nullptr, 0),
	    FRIO_STATUS_OK);
	EXPECT_EQ(frio_mem_tx_pending(h_), 1);
}

/* Built exactly to size, so that a read past the end trips ASan. */
bool
matches(const frio_filter_set_t &set, const bytes &f)
{
	bytes exact(f.begin(), f.end());

	return frio_filter_match(&set, exact.data(), exact.size());
}

/* Frames around the rule's edges, each with whether it should match. */
std::vector<std::pair<bytes, bool>>
edge_frames()
{
	std::vector<std::pair<bytes, bool>> v;

	for (bool v6 : { false, true }) {
		bytes ok = wire_frame(v6, 20);
		size_t u = v6 ? 54 : 34, ipl = v6 ? 18 : 16, ul = u + 4;
		/* Offset, 16-bit value, each refused: IP or UDP length lying,
		 * another port, MAC or address, IPv6 extension header, IPv4
		 * options, fragments, TCP. */
		std::vector<std::pair<size_t, int>> m = {
			{ ipl, get16(&ok[ipl]) + 1 },
			{ ul, get16(&ok[ul]) - 1 }, { ul, 4 }, { u + 2, 5679 },
			{ 4, 0x0003 }, { u - 2, 0 }
		};
		if (v6)
			m.push_back({ 20, 0x0040 });
		else
			m.insert(m.end(),
			    { { 14, 0x4600 }, { 20, 0x2000 }, { 20, 0x0001 },
				{ 22, 0x4006 } });
		bytes padded = ok;
		padded.resize(ok.size() + 18);
		v.insert(v.end(),
		    { { ok, true }, { wire_frame(v6, 0), true },
			{ wire_frame(v6, v6 ? 1452 : 1472), true },
			{ wire_frame(v6, 1473), false }, { padded, true } });
		for (size_t n = 0; n < ok.size(); n++)
			v.push_back(
			    { bytes(ok.begin(), ok.begin() + n), false });
		for (auto [off, val] : m) {
			bytes f = ok;
			put16(&f[off], uint16_t(val));
			v.push_back({ f, false });
		}
	}
	return v;
}

/* Whether the program, attached by the kernel to a datagram socket pair's
 * receiving end (an untagged skb, as the packet backend's are), passes pkt. */
bool
kernel_passes(const struct sock_filter *p, int n, const bytes &pkt)
{
	int sv[2];
	struct sock_fprog prog = { uint16_t(n), const_cast<sock_filter *>(p) };
	char buf[FRIO_MAX_FRAME + 64];
	ssize_t got;

	EXPECT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, sv), 0);
	EXPECT_EQ(setsockopt(sv[1], SOL_SOCKET, SO_ATTACH_FILTER, &prog,
		      sizeof(prog)),
	    0)
	    << "the kernel refused the program: " << errno;
	EXPECT_EQ(send(sv[0], pkt.data(), pkt.size(), 0), ssize_t(pkt.size()));
	got = recv(sv[1], buf, sizeof(buf), MSG_DONTWAIT);
	close(sv[0]), close(sv[1]);
	return got >= 0;
}

/* The rule takes plain datagrams and refuses short, lying or other frames;
 * the packet backend's socket filter, run by the kernel, agrees. */
TEST(FrioFilter, RuleAndPacketSocketFilterAgree)
{
	std::vector<frio_filter_args_t> all;
	struct sock_filter prog[512];

	for (int j = 0; j < FRIO_MAX_FILTERS; j++)
		all.push_back(filter_for(wire_frame(j % 2, 0,
		    j < 4 ? (j < 2 ? 5678 : 9999) : uint16_t(1000 + j))));
	for (int nf : { 0, 1, 2, 3, 4, FRIO_MAX_FILTERS }) {
		frio_filter_set_t s;
		s.fs_count = nf;
		std::copy(all.begin(), all.begin() + nf, s.fs_filter);
		int n = frio_packet_filter(&s, prog, 512), i = 0;

		ASSERT_GT(n, 0) << nf;
		/* The first two filters name the edge frames' own addresses. */
		for (const auto &c : edge_frames()) {
			EXPECT_TRUE(nf != 2 || matches(s, c.first) == c.second)
			    << i;
			EXPECT_EQ(kernel_passes(prog, n, c.first),
			    matches(s, c.first))
			    << nf << " filters, case " << i++;
		}
		EXPECT_EQ(matches(s, wire_frame(true, 0)), nf >= 2);
		EXPECT_EQ(kernel_passes(prog, n, wire_frame(true, 5, 1015)),
		    nf == FRIO_MAX_FILTERS);
		EXPECT_FALSE(kernel_passes(prog, n, wire_frame(true, 5, 1014)));
	}
}

/* Filters naming no frame, one another handle holds, and the limit of a
 * set; a closed handle's filters are free again. */
TEST_F(MemTest, SetupRxRefusesWildcardsHeldAndTooManyFilters)
{
	frio_filter_args_t f = filter_for(wire_frame(false, 0)), g;
	frio_handle_t h2;

	for (int i = 0; i < 4; i++) { /* type, port, IPv4 or IPv6 address */
		g = f;
		if (i == 0)
			g.uf_type = 1;
		else if (i == 1)
			g.uf_dst_port = 0;
		else
			memset(&g.uf_dst_ip.s6_addr[i == 2 ? 12 : 0], 0,
			    i == 2 ? 4 : 16);
		EXPECT_EQ(frio_setup_rx(h_, &g), FRIO_STATUS_BADARG) << i;
	}
	EXPECT_EQ(frio_mem_filters(h_, nullptr, 0), 0);

	ASSERT_EQ(frio_open("mem0", nullptr, &h2), FRIO_STATUS_OK);
	ASSERT_EQ(frio_setup_rx(h2, &f), FRIO_STATUS_OK);
	EXPECT_EQ(frio_setup_rx(h_, &f), FRIO_STATUS_FAILED);
	frio_close(h2);
	for (int i = 0; i < FRIO_MAX_FILTERS; i++) {
		g = filter_for(wire_frame(false, 0, uint16_t(5678 + i)));
		ASSERT_EQ(frio_setup_rx(h_, &g), FRIO_STATUS_OK) << i;
	}
	EXPECT_EQ(frio_setup_rx(h_, &g), FRIO_STATUS_OK);
	g = filter_for(wire_frame(false, 0, 99));
	EXPECT_EQ(frio_setup_rx(h_, &g), FRIO_STATUS_FAILED);
	EXPECT_EQ(frio_mem_filters(h_, nullptr, 0), FRIO_MAX_FILTERS);
}

} // namespace
