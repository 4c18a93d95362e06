/*
 * libfrio without an interface: checksum completion against a sum of the
 * tests' own, the rule that picks a handle's frames (and the packet
 * backend's socket filter compiled from it), and the mem double that the
 * library's other tests drive.
 */
#include <gtest/gtest.h>

#include <linux/filter.h>
#include <linux/if_packet.h>
#include <poll.h>
#include <stdlib.h>

#include <thread>

#include "frame_util.h"
#include "frio.h"
#include "frio_csum.h"
#include "frio_impl.h"
#include "frio_mem.h"

using namespace frio_test;

namespace {

class MemTest : public ::testing::Test {
protected:
	void
	SetUp() override
	{
		setenv("FRIO_BACKEND", "mem", 1);
		frio_mem_reset();
		ASSERT_EQ(frio_open("mem0", nullptr, &h_), FRIO_STATUS_OK);
	}
	void
	TearDown() override
	{
		frio_close(h_);
		frio_mem_reset();
		EXPECT_EQ(frio_mem_open_count(), 0);
	}

	/* Sends header + payload split into pieces of the given sizes and
	 * returns the frame as transmitted. */
	bytes
	transmit(const bytes &hdr, const bytes &payload,
	    const std::vector<size_t> &cuts, frio_tx_args_t *ta)
	{
		std::vector<struct iovec> iov;
		size_t off = 0;

		for (size_t c : cuts) {
			iov.push_back({const_cast<uint8_t *>(payload.data()) +
			    off, c});
			off += c;
		}
		iov.push_back({const_cast<uint8_t *>(payload.data()) + off,
		    payload.size() - off});
		EXPECT_EQ(frio_tx_vec(h_, ta, hdr.data(), hdr.size(),
		    iov.data(), static_cast<int>(iov.size())), FRIO_STATUS_OK);
		bytes out(FRIO_MAX_FRAME + 1);
		ssize_t n = frio_mem_tx_pop(h_, out.data(), out.size());
		EXPECT_EQ(n, static_cast<ssize_t>(hdr.size() + payload.size()));
		out.resize(n < 0 ? 0 : static_cast<size_t>(n));
		return out;
	}

	frio_handle_t h_ = nullptr;
};

frio_filter_args_t
filter_for(const bytes &frame)
{
	frio_filter_args_t f;
	bool v6 = frame[12] == 0x86;

	memset(&f, 0, sizeof(f));
	f.uf_type = FRIO_FILTER_MAC_IP_PORT;
	memcpy(f.uf_macaddr, frame.data(), 6);
	if (v6) {
		memcpy(&f.uf_dst_ip, &frame[38], 16);
	} else {
		f.uf_dst_ip.s6_addr[10] = f.uf_dst_ip.s6_addr[11] = 0xff;
		memcpy(&f.uf_dst_ip.s6_addr[12], &frame[30], 4);
	}
	memcpy(&f.uf_dst_port, &frame[v6 ? 56 : 36], 2);
	return f;
}

/* A whole frame as it would arrive: headers and payload. */
bytes
wire_frame(bool v6, size_t len, uint16_t dport = 5678)
{
	bytes f = udp_hdr(v6, len, dport), p = pattern(len, 3);

	f.insert(f.end(), p.begin(), p.end());
	return f;
}

TEST(FrioCsum, WordSumMatchesByteSumAtAnyAlignmentAndLength)
{
	bytes buf = pattern(1600, 7);

	for (size_t start = 0; start < 8; start++) {
		for (size_t len : { 0, 1, 2, 3, 5, 7, 8, 9, 15, 63, 1471, 1500 }) {
			uint16_t want = fold(sum_be(&buf[start], len));

			EXPECT_EQ(frio_csum_fold(frio_csum_add(0, &buf[start],
			    len)), htons(want)) << start << "+" << len;
		}
	}
}

/* IPv4: header and UDP checksums always; IPv6: the UDP checksum only when
 * asked, else the seed goes out as it was. */
TEST_F(MemTest, CompletesChecksums)
{
	frio_tx_args_t ta = { FRIO_TX_OPT_IPV6_CKSUM, 0, 0, 0 };

	for (bool v6 : { false, true }) {
		size_t u = v6 ? 54 : 34, max = v6 ? 1452 : 1472;

		for (size_t len : { (size_t)0, (size_t)1, (size_t)2, (size_t)3,
		    (size_t)9, max - 1, max }) {
			bytes hdr = udp_hdr(v6, len);
			bytes payload = pattern(len, static_cast<unsigned>(len));
			bytes f = transmit(hdr, payload, len > 3 ?
			    std::vector<size_t>{ 1, 2 } : std::vector<size_t>{},
			    v6 ? &ta : nullptr);

			ASSERT_EQ(f.size(), u + 8 + len);
			if (!v6) {
				EXPECT_EQ(fold(sum_be(&f[14], 20)), 0xffff) << len;
			}
			EXPECT_EQ(get16(&f[u + 6]), udp_csum_expected(f)) << len;
			EXPECT_EQ(memcmp(&f[u + 8], payload.data(), len), 0);
			if (v6) {
				f = transmit(hdr, payload, {}, nullptr);
				EXPECT_EQ(get16(&f[60]), get16(&hdr[60])) << len;
			}
		}
	}
}

TEST_F(MemTest, GatherListPiecesOfAnySizeGiveTheSameFrame)
{
	bytes hdr = udp_hdr(false, 301), payload = pattern(301, 4);
	bytes whole = transmit(hdr, payload, {}, nullptr);
	std::vector<size_t> ones(300, 1);

	EXPECT_EQ(transmit(hdr, payload, { 0, 3, 0, 5, 7 }, nullptr), whole);
	EXPECT_EQ(transmit(hdr, payload, { 1, 1, 1, 150 }, nullptr), whole);
	EXPECT_EQ(transmit(hdr, payload, ones, nullptr), whole);
}

TEST_F(MemTest, ZeroUdpChecksumGoesOutAsAllOnes)
{
	for (bool v6 : { false, true }) {
		frio_tx_args_t ta = { FRIO_TX_OPT_IPV6_CKSUM, 0, 0, 0 };
		bytes hdr = udp_hdr(v6, 10), payload(10, 0);
		size_t u = v6 ? 54 : 34;
		bytes f = hdr;

		/* Choose the last payload word so the sum comes to 0xffff. */
		f.insert(f.end(), payload.begin(), payload.end());
		f[u + 6] = f[u + 7] = 0;
		uint16_t s = fold(sum_be(&f[u], f.size() - u,
		    pseudo_seed(f.data(), 18)));
		put16(&payload[8], static_cast<uint16_t>(0xffff - s));
		f = transmit(hdr, payload, {}, v6 ? &ta : nullptr);
		uint16_t sent = get16(&f[u + 6]);
		f[u + 6] = f[u + 7] = 0;
		ASSERT_EQ(static_cast<uint16_t>(~fold(sum_be(&f[u], 18,
		    pseudo_seed(f.data(), 18)))), 0);
		EXPECT_EQ(sent, 0xffff) << "v6 " << v6;
	}
}

TEST_F(MemTest, RefusesFramesItCannotCompleteOrSend)
{
	bytes v4 = udp_hdr(false, 0), big(FRIO_MAX_FRAME, 0);
	struct iovec iov = { big.data(), FRIO_MAX_FRAME - 42 + 1 };
	struct iovec nul = { nullptr, 1 };

	EXPECT_EQ(frio_tx_vec(h_, nullptr, v4.data(), v4.size(), &iov, 1),
	    FRIO_STATUS_TOOBIG);
	iov.iov_len--;
	EXPECT_EQ(frio_tx_vec(h_, nullptr, v4.data(), v4.size(), &iov, 1),
	    FRIO_STATUS_OK);
	EXPECT_EQ(frio_tx_vec(h_, nullptr, v4.data(), v4.size(), &nul, 1),
	    FRIO_STATUS_BADARG);
	EXPECT_EQ(frio_tx_vec(h_, nullptr, v4.data(), v4.size(), &iov, -1),
	    FRIO_STATUS_BADARG);
	EXPECT_EQ(frio_tx_vec(h_, nullptr, v4.data(), 20, nullptr, 0),
	    FRIO_STATUS_BADHDR);
	/* TCP, more fragments, ARP. */
	for (auto bad : { std::pair<size_t, uint8_t>{ 23, 6 }, { 20, 0x20 },
	    { 13, 0x06 } }) {
		bytes h = v4;
		h[bad.first] = bad.second;
		EXPECT_EQ(frio_tx_vec(h_, nullptr, h.data(), h.size(), nullptr,
		    0), FRIO_STATUS_BADHDR) << bad.first;
	}
	EXPECT_EQ(frio_mem_tx_pending(h_), 1);
}

/*
 * The receive rule.  Frames are built exactly to size, so that a read
 * past the end is caught under AddressSanitizer.
 */
bool
matches(const frio_filter_set_t &set, const bytes &f)
{
	bytes exact(f);

	exact.shrink_to_fit();
	return frio_filter_match(&set, exact.data(), exact.size());
}

frio_filter_set_t
set_of(std::initializer_list<frio_filter_args_t> fl)
{
	frio_filter_set_t s;

	s.fs_count = 0;
	for (const frio_filter_args_t &f : fl)
		s.fs_filter[s.fs_count++] = f;
	return s;
}

/* Frames around the rule's edges, each with whether it should match. */
std::vector<std::pair<bytes, bool>>
edge_frames()
{
	std::vector<std::pair<bytes, bool>> v;

	for (bool v6 : { false, true }) {
		bytes ok = wire_frame(v6, 20);
		size_t ip = 14, u = v6 ? 54 : 34;
		bytes f;

		v.push_back({ ok, true });
		v.push_back({ wire_frame(v6, 0), true });
		v.push_back({ wire_frame(v6, v6 ? 1452 : 1472), true });
		for (size_t n = 0; n < ok.size(); n++)
			v.push_back({ bytes(ok.begin(), ok.begin() + n), false });
		f = ok;
		f.resize(f.size() + 18); /* Ethernet padding is fine */
		v.push_back({ f, true });
		f = wire_frame(v6, 1473); /* more than 1514 bytes */
		v.push_back({ f, false });
		f = ok; /* IP length says more than the frame holds */
		put16(&f[ip + (v6 ? 4 : 2)], get16(&f[ip + (v6 ? 4 : 2)]) + 1);
		v.push_back({ f, false });
		f = ok; /* UDP length disagrees with the IP length */
		put16(&f[u + 4], get16(&f[u + 4]) - 1);
		v.push_back({ f, false });
		f = ok;
		put16(&f[u + 4], 4);
		v.push_back({ f, false });
		f = ok; /* another port */
		put16(&f[u + 2], 5679);
		v.push_back({ f, false });
		f = ok; /* another MAC */
		f[5] ^= 1;
		v.push_back({ f, false });
		f = ok; /* another address */
		f[v6 ? 53 : 33] ^= 1;
		v.push_back({ f, false });
		f = ok;
		if (v6) {
			f[20] = 0; /* hop-by-hop options first */
			v.push_back({ f, false });
		} else {
			f[14] = 0x46; /* options */
			v.push_back({ f, false });
			f = ok;
			put16(&f[20], 0x2000); /* first fragment */
			v.push_back({ f, false });
			f = ok;
			put16(&f[20], 0x0001); /* a later fragment */
			v.push_back({ f, false });
			f = ok;
			f[23] = 6;
			v.push_back({ f, false });
		}
	}
	return v;
}

TEST(FrioFilter, MatchesPlainDatagramsAndRefusesShortLyingOrOtherFrames)
{
	frio_filter_set_t s = set_of({ filter_for(wire_frame(false, 0)),
	    filter_for(wire_frame(true, 0)) });
	int i = 0;

	for (const auto &c : edge_frames())
		EXPECT_EQ(matches(s, c.first), c.second)
		    << "case " << i++ << " (" << c.first.size() << " bytes)";
	/* An IPv4 filter never takes an IPv6 frame, nor the reverse. */
	EXPECT_FALSE(matches(set_of({ filter_for(wire_frame(false, 0)) }),
	    wire_frame(true, 0)));
	EXPECT_FALSE(matches(set_of({}), wire_frame(false, 0)));
}

/* Runs a classic BPF program as the kernel would on a frame. */
uint32_t
run_cbpf(const struct sock_filter *p, int n, const bytes &pkt)
{
	uint32_t a = 0, x = 0, mem[BPF_MEMWORDS] = {};

	for (int pc = 0; pc < n; pc++) {
		const struct sock_filter &i = p[pc];
		uint32_t k = i.k, len = static_cast<uint32_t>(pkt.size());

		switch (i.code) {
		case BPF_LD | BPF_W | BPF_ABS:
		case BPF_LD | BPF_H | BPF_ABS:
		case BPF_LD | BPF_B | BPF_ABS: {
			uint32_t sz = BPF_SIZE(i.code) == BPF_W ? 4 :
			    BPF_SIZE(i.code) == BPF_H ? 2 : 1;

			if (k == uint32_t(SKF_AD_OFF + SKF_AD_PKTTYPE))
				a = PACKET_HOST;
			else if (k == uint32_t(SKF_AD_OFF + SKF_AD_VLAN_TAG_PRESENT))
				a = 0;
			else if (k + sz > len)
				return 0;
			else
				for (a = 0; sz > 0; sz--)
					a = a << 8 | pkt[k++];
			break;
		}
		case BPF_LD | BPF_W | BPF_LEN:
			a = len;
			break;
		case BPF_LDX | BPF_W | BPF_LEN:
			x = len;
			break;
		case BPF_LD | BPF_MEM:
			a = mem[k];
			break;
		case BPF_ST:
			mem[k] = a;
			break;
		case BPF_ALU | BPF_AND | BPF_K:
			a &= k;
			break;
		case BPF_ALU | BPF_ADD | BPF_K:
			a += k;
			break;
		case BPF_ALU | BPF_SUB | BPF_K:
			a -= k;
			break;
		case BPF_MISC | BPF_TAX:
			x = a;
			break;
		case BPF_RET | BPF_K:
			return k;
		default:
			switch (i.code & ~BPF_X) {
			case BPF_JMP | BPF_JEQ | BPF_K:
			case BPF_JMP | BPF_JGT | BPF_K:
			case BPF_JMP | BPF_JGE | BPF_K:
			case BPF_JMP | BPF_JSET | BPF_K: {
				uint32_t v = (i.code & BPF_X) ? x : k;
				bool t = BPF_OP(i.code) == BPF_JEQ ? a == v :
				    BPF_OP(i.code) == BPF_JGT ? a > v :
				    BPF_OP(i.code) == BPF_JGE ? a >= v :
				    (a & v) != 0;
				pc += t ? i.jt : i.jf;
				break;
			}
			default:
				ADD_FAILURE() << "opcode " << i.code;
				return 0;
			}
		}
	}
	ADD_FAILURE() << "ran off the end of the program";
	return 0;
}

TEST(FrioFilter, PacketSocketFilterAgreesWithTheRule)
{
	std::vector<frio_filter_args_t> fl;
	struct sock_filter prog[512];

	for (bool v6 : { false, true }) {
		fl.push_back(filter_for(wire_frame(v6, 0)));
		fl.push_back(filter_for(wire_frame(v6, 0, 9999)));
	}
	for (size_t nf = 0; nf <= fl.size(); nf++) {
		frio_filter_set_t s = set_of({});
		int i = 0;

		for (size_t j = 0; j < nf; j++)
			s.fs_filter[s.fs_count++] = fl[j];
		int n = frio_packet_filter(&s, prog, 512);
		ASSERT_GT(n, 0);
		for (const auto &c : edge_frames()) {
			EXPECT_EQ(run_cbpf(prog, n, c.first) != 0,
			    matches(s, c.first))
			    << nf << " filters, case " << i;
			i++;
		}
	}
	/* The largest set still compiles, jumps and all. */
	frio_filter_set_t full = set_of({});
	for (int j = 0; j < FRIO_MAX_FILTERS; j++) {
		bytes f = wire_frame(j % 2, 0, static_cast<uint16_t>(1000 + j));
		full.fs_filter[full.fs_count++] = filter_for(f);
	}
	int n = frio_packet_filter(&full, prog, 512);
	ASSERT_GT(n, 0);
	EXPECT_NE(run_cbpf(prog, n, wire_frame(true, 5, 1015)), 0u);
	EXPECT_EQ(run_cbpf(prog, n, wire_frame(true, 5, 1014)), 0u);
}

/*
 * The mem double.
 */
TEST_F(MemTest, DeliversByFilterAndLendsEachFrameOnce)
{
	bytes f4 = wire_frame(false, 8), f6 = wire_frame(true, 8);
	frio_filter_args_t a = filter_for(f4), b = filter_for(f6);
	frio_rx_args_t ra;
	void *p1, *p2, *p3;
	struct pollfd pfd = { frio_get_fd(h_), POLLIN, 0 };

	EXPECT_EQ(frio_mem_deliver("mem0", f4.data(), f4.size()), 0);
	ASSERT_EQ(frio_setup_rx(h_, &a), FRIO_STATUS_OK);
	ASSERT_EQ(frio_setup_rx(h_, &a), FRIO_STATUS_OK);	/* no-op */
	ASSERT_EQ(frio_setup_rx(h_, &b), FRIO_STATUS_OK);	/* adds */
	EXPECT_EQ(frio_mem_filters(h_, nullptr, 0), 2);
	EXPECT_EQ(poll(&pfd, 1, 0), 0);
	EXPECT_EQ(frio_mem_deliver("mem0", f4.data(), f4.size()), 1);
	EXPECT_EQ(frio_mem_deliver("mem0", f6.data(), f6.size()), 1);
	EXPECT_EQ(frio_mem_deliver("other", f6.data(), f6.size()), 0);
	EXPECT_EQ(poll(&pfd, 1, 0), 1);

	ASSERT_EQ(frio_rx_get(h_, &ra, &p1), FRIO_STATUS_OK);
	EXPECT_EQ(ra.ur_pkt_len, f4.size());
	EXPECT_EQ(memcmp(p1, f4.data(), f4.size()), 0);
	ASSERT_EQ(frio_rx_get(h_, &ra, &p2), FRIO_STATUS_OK);
	EXPECT_EQ(memcmp(p2, f6.data(), f6.size()), 0);
	EXPECT_EQ(frio_rx_get(h_, &ra, &p3), FRIO_STATUS_NOMEM);
	EXPECT_EQ(poll(&pfd, 1, 0), 0);
	EXPECT_EQ(frio_mem_lent(h_), 2);
	/* Given back in any order; inject ignores the filters. */
	EXPECT_EQ(frio_rx_put(h_, p1), FRIO_STATUS_OK);
	EXPECT_EQ(frio_mem_inject(h_, "x", 1), FRIO_STATUS_OK);
	ASSERT_EQ(frio_rx_get(h_, &ra, &p3), FRIO_STATUS_OK);
	EXPECT_EQ(ra.ur_pkt_len, 1u);
	EXPECT_EQ(frio_rx_put(h_, p3), FRIO_STATUS_OK);
	EXPECT_EQ(frio_rx_put(h_, p2), FRIO_STATUS_OK);
	EXPECT_EQ(frio_mem_lent(h_), 0);
}

TEST_F(MemTest, WireAndReceiverMayBeDifferentThreads)
{
	bytes f = wire_frame(false, 4);
	frio_filter_args_t fl = filter_for(f);
	constexpr int kFrames = 20000;
	int got = 0;

	ASSERT_EQ(frio_setup_rx(h_, &fl), FRIO_STATUS_OK);
	std::thread wire([&] {
		for (int i = 0; i < kFrames;) {
			put16(&f[42], static_cast<uint16_t>(i));
			if (frio_mem_deliver("mem0", f.data(), f.size()) == 1)
				i++;
			else
				std::this_thread::yield();
		}
	});
	while (got < kFrames) {
		frio_rx_args_t ra;
		void *p;

		if (frio_rx_get(h_, &ra, &p) != FRIO_STATUS_OK) {
			std::this_thread::yield();
			continue;
		}
		EXPECT_EQ(get16(static_cast<uint8_t *>(p) + 42), got & 0xffff);
		got++;
		frio_rx_put(h_, p);
	}
	wire.join();
	EXPECT_EQ(frio_mem_rx_pending(h_), 0);
}

TEST_F(MemTest, QueuesFillAndDrain)
{
	void *lent[FRIO_MEM_RX_DEPTH];
	frio_rx_args_t ra;
	bytes huge(FRIO_MEM_MAX_INJECT + 1), hdr = udp_hdr(false, 0), out(64);

	for (int i = 0; i < FRIO_MEM_RX_DEPTH; i++)
		ASSERT_EQ(frio_mem_inject(h_, &i, sizeof(i)), FRIO_STATUS_OK);
	EXPECT_EQ(frio_mem_inject(h_, "x", 1), FRIO_STATUS_NOMEM);
	EXPECT_EQ(frio_mem_inject(h_, huge.data(), huge.size()),
	    FRIO_STATUS_TOOBIG);
	for (int i = 0; i < FRIO_MEM_RX_DEPTH; i++) {
		ASSERT_EQ(frio_rx_get(h_, &ra, &lent[i]), FRIO_STATUS_OK);
		EXPECT_EQ(memcmp(lent[i], &i, sizeof(i)), 0);
	}
	/* Lent frames hold their slots. */
	EXPECT_EQ(frio_mem_inject(h_, "x", 1), FRIO_STATUS_NOMEM);
	for (void *p : lent)
		frio_rx_put(h_, p);
	EXPECT_EQ(frio_mem_inject(h_, "x", 1), FRIO_STATUS_OK);

	/* Transmit: scripted refusals, then full until the oldest is read. */
	auto tx = [&] {
		return frio_tx_vec(h_, nullptr, hdr.data(), hdr.size(), nullptr,
		    0);
	};
	frio_mem_fail_tx(h_, 2);
	EXPECT_EQ(tx(), FRIO_STATUS_NOMEM);
	EXPECT_EQ(tx(), FRIO_STATUS_NOMEM);
	for (int i = 0; i < FRIO_MEM_TX_DEPTH; i++) {
		put16(&hdr[34], static_cast<uint16_t>(i));
		ASSERT_EQ(tx(), FRIO_STATUS_OK);
	}
	EXPECT_EQ(tx(), FRIO_STATUS_NOMEM);
	ASSERT_EQ(frio_mem_tx_pop(h_, out.data(), out.size()), 42);
	EXPECT_EQ(get16(&out[34]), 0);	/* oldest first */
	EXPECT_EQ(tx(), FRIO_STATUS_OK);
	EXPECT_EQ(frio_mem_tx_pending(h_), FRIO_MEM_TX_DEPTH);
}

TEST_F(MemTest, FilterBelongsToOneHandlePerInterface)
{
	frio_handle_t h2, h3;
	frio_filter_args_t f = filter_for(wire_frame(false, 0));
	char buf[80];

	ASSERT_EQ(frio_setup_rx(h_, &f), FRIO_STATUS_OK);
	ASSERT_EQ(frio_open("mem0", nullptr, &h2), FRIO_STATUS_OK);
	EXPECT_EQ(frio_setup_rx(h2, &f), FRIO_STATUS_FAILED);
	EXPECT_NE(strstr(frio_status2str(FRIO_STATUS_FAILED, buf, sizeof(buf)),
	    "another handle"), nullptr) << buf;
	EXPECT_EQ(frio_mem_filters(h2, nullptr, 0), 0);
	/* Another port is fine; so is a closed handle's filter. */
	frio_filter_args_t g = filter_for(wire_frame(false, 0, 1));
	EXPECT_EQ(frio_setup_rx(h2, &g), FRIO_STATUS_OK);
	frio_close(h_);
	ASSERT_EQ(frio_open("mem0", nullptr, &h_), FRIO_STATUS_OK);
	EXPECT_EQ(frio_setup_rx(h2, &f), FRIO_STATUS_OK);

	/* On another interface the same filter is another one. */
	struct ether_addr mac = { { 2, 0, 0, 0, 0, 9 } };
	ASSERT_EQ(frio_mem_add_interface("mem1", 7, &mac), 0);
	ASSERT_EQ(frio_open("mem1", nullptr, &h3), FRIO_STATUS_OK);
	EXPECT_EQ(frio_setup_rx(h3, &f), FRIO_STATUS_OK);
	frio_close(h3);
	frio_close(h2);
}

TEST_F(MemTest, SetupRxChecksItsFilterAndHoldsSixteen)
{
	frio_filter_args_t f = filter_for(wire_frame(false, 0));

	f.uf_type = 2;
	EXPECT_EQ(frio_setup_rx(h_, &f), FRIO_STATUS_BADARG);
	f = filter_for(wire_frame(false, 0));
	f.uf_dst_port = 0;
	EXPECT_EQ(frio_setup_rx(h_, &f), FRIO_STATUS_BADARG);
	/* A failed set-up installs nothing; the next one works. */
	frio_mem_fail_setup_rx(FRIO_STATUS_DENIED);
	f = filter_for(wire_frame(true, 0, 1));
	EXPECT_EQ(frio_setup_rx(h_, &f), FRIO_STATUS_DENIED);
	EXPECT_EQ(frio_mem_filters(h_, nullptr, 0), 0);
	for (int i = 0; i < FRIO_MAX_FILTERS; i++) {
		f = filter_for(wire_frame(true, 0, static_cast<uint16_t>(i + 1)));
		ASSERT_EQ(frio_setup_rx(h_, &f), FRIO_STATUS_OK);
	}
	f = filter_for(wire_frame(true, 0, 999));
	EXPECT_EQ(frio_setup_rx(h_, &f), FRIO_STATUS_FAILED);
	EXPECT_EQ(frio_mem_filters(h_, nullptr, 0), FRIO_MAX_FILTERS);
}

TEST_F(MemTest, OpenFollowsNamedInterfacesAndScriptedFailures)
{
	struct ether_addr mac = { { 2, 0, 0, 0, 0, 7 } }, got;
	frio_handle_t h2 = nullptr;
	char buf[80];

	EXPECT_EQ(frio_mem_open_count(), 1);
	EXPECT_EQ(frio_handle2statid(h_) >> 16, FRIO_MEM_IFINDEX);
	ASSERT_EQ(frio_mem_add_interface("veth7", 7, &mac), 0);
	EXPECT_EQ(frio_open("mem0", nullptr, &h2), FRIO_STATUS_NOTFOUND);
	EXPECT_EQ(h2, nullptr);
	ASSERT_EQ(frio_open("veth7", nullptr, &h2), FRIO_STATUS_OK);
	frio_get_mac_addr(h2, &got);
	EXPECT_EQ(memcmp(&got, &mac, 6), 0);
	EXPECT_EQ(frio_handle2statid(h2) >> 16, 7u);
	EXPECT_NE(frio_handle2statid(h2), frio_handle2statid(h_));
	EXPECT_EQ(frio_mem_find("veth7"), h2);
	frio_close(h2);

	frio_mem_fail_open(FRIO_STATUS_DENIED);
	EXPECT_EQ(frio_open("veth7", nullptr, &h2), FRIO_STATUS_DENIED);
	EXPECT_NE(strstr(frio_status2str(FRIO_STATUS_DENIED, buf,
	    sizeof(buf)), "CAP_NET_RAW"), nullptr);
	EXPECT_EQ(frio_mem_open_count(), 1);
	ASSERT_EQ(frio_open("veth7", nullptr, &h2), FRIO_STATUS_OK);
	frio_close(h2);
	EXPECT_EQ(frio_open("this-name-is-too-long", nullptr, &h2),
	    FRIO_STATUS_BADARG);
}

TEST(FrioStatus, EveryStatusHasATextThatFitsTheCallersBuffer)
{
	char buf[80], small[8];

	for (int s = FRIO_STATUS_OK; s <= FRIO_STATUS_FAILED; s++) {
		const char *t = frio_status2str(static_cast<frio_status_t>(s),
		    buf, sizeof(buf));
		EXPECT_GT(strlen(t), 6u) << s;
		EXPECT_LT(strlen(t), sizeof(buf)) << s;
	}
	EXPECT_NE(strstr(frio_status2str(static_cast<frio_status_t>(42), buf,
	    sizeof(buf)), "42"), nullptr);
	EXPECT_EQ(strlen(frio_status2str(FRIO_STATUS_NOTSUP, small,
	    sizeof(small))), sizeof(small) - 1);
	setenv("FRIO_BACKEND", "nonsense", 1);
	frio_handle_t h;
	EXPECT_EQ(frio_open("lo", nullptr, &h), FRIO_STATUS_NOTSUP);
	EXPECT_NE(strstr(frio_status2str(FRIO_STATUS_NOTSUP, buf, sizeof(buf)),
	    "FRIO_BACKEND"), nullptr);
	unsetenv("FRIO_BACKEND");
}

} // namespace
