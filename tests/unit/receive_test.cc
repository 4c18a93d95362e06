/* Frame validation and the receive engine against the in-memory double. */
#include <errno.h>
#include <fcntl.h>

#include <random>
#include <set>
#include <thread>

#include "recv_frames.h"

namespace
{

struct Recv : ::testing::TestWithParam<int> {
	BypassSock s;

	void SetUp() override { frio_mem_reset(), s.open(GetParam()); }

	void TearDown() override
	{
		if (s.up != nullptr) {
			EXPECT_EQ(refcnt_of(s.up), 1u);
			EXPECT_EQ(frio_mem_lent(s.hdl), 0);
		}
		s.close_sock();
		EXPECT_EQ(frio_mem_open_count(), 0);
		recv_mode = RCV_BUSY_WAIT;
		poll_usec = 0;
	}

	bool v6() const { return s.family == AF_INET6; }
	size_t off() const { return v6() ? 62 : 42; }
	bool parse(std::vector<uint8_t> &f, size_t *len, void *from = nullptr,
	    socklen_t *fromlen = nullptr)
	{
		*len = f.size();
		return ost_parse_pkt(s.up, f.data(), nullptr, len, from,
		    fromlen);
	}
};

/* What each kind of frame is to the socket, and what parsing does with
 * the verdicts that let the process go on. */
TEST_P(Recv, Verdicts)
{
	const auto base = s.frame("hello");
	const size_t n = base.size(), v = v6(), dst = v ? 38 : 30;
	const size_t port = off() - 5, addr = off() - 9;
	/* Cut or padded to len, the byte at set to val. */
	const struct { const char *what; size_t len, at; int val;
	    ost_pkt_verdict_t verdict; } cases[] = {
		{ "as sent", n, 0, base[0], OST_PKT_ACCEPT },
		{ "padding", v ? 80u : 60u, 0, base[0], OST_PKT_ACCEPT },
		{ "to a group", n, dst, v ? 0xff : 0xe0, OST_PKT_ACCEPT },
		{ "no UDP header", off() - 1, 0, base[0], OST_PKT_SHORT },
		{ "IP length below the headers", n, v ? 19u : 17u, v ? 7 : 27,
		    OST_PKT_SHORT },
		{ "IP length past the end", n - 1, 0, base[0], OST_PKT_TRUNCATED },
		{ "TCP", n, v ? 20u : 23u, IPPROTO_TCP, OST_PKT_NOT_UDP },
		{ "IPv4 options, IPv6 of version 4", n, 14, v ? 0x40 : 0x46,
		    OST_PKT_NOT_UDP },
		{ "a fragment, another EtherType", n, v ? 12u : 20u,
		    v ? 0x08 : 0x20, OST_PKT_NOT_UDP },
		{ "UDP length disagrees", n, off() - 4, base[off() - 4] ^ 1,
		    OST_PKT_TRUNCATED },
		{ "another port", n, port, base[port] ^ 1, OST_PKT_NOT_FOR_US },
		{ "another address", n, addr, base[addr] ^ 1, OST_PKT_NOT_FOR_US },
		{ "a martian source", n, v ? 22u : 26u, v ? 0xff : 127,
		    OST_PKT_MARTIAN },
	};
	for (const auto &c : cases) {
		auto f = base;
		ost_pkt_info_t pi;
		f[c.at] = (uint8_t)c.val;
		f.resize(c.len, 0);
		EXPECT_EQ(ost_check_pkt(s.up, f.data(), f.size(), &pi),
		    c.verdict) << c.what;
	}

	/* Accepted, padded: the payload's length; the sender is not written
	 * into a buffer too small for him. */
	struct sockaddr_storage from;
	memset(&from, 0x5a, sizeof(from));
	socklen_t fromlen = s.addr_len() - 1;
	size_t len;
	auto f = s.frame("x");
	f.resize(v6() ? 80 : 60, 0);
	ASSERT_TRUE(parse(f, &len, &from, &fromlen));
	EXPECT_EQ(len, 1u);
	EXPECT_EQ(from.ss_family, 0x5a5a);

	/* One the filter should have stopped is dropped and counted. */
	auto other = s.frame("abcd");
	other[off() - 9] ^= 1;
	uint32_t dropped = s.up->uost_rx_dropped;
	EXPECT_FALSE(parse(other, &len));
	EXPECT_EQ(s.up->uost_rx_dropped, dropped + 1);
	/* Unless the socket is bound to the wildcard. */
	memset(&s.up->uost_laddr_v6.s6_addr[v6() ? 0 : 12], 0, v6() ? 16 : 4);
	EXPECT_TRUE(parse(other, &len));
}

/* Mutated frames in buffers of exactly their length, many with lying
 * lengths: nothing outside is read (the sanitizers check), and what is
 * accepted copies out. */
TEST_P(Recv, MutatedFramesStayInBounds)
{
	std::mt19937 rng(GetParam());
	auto base = s.frame(std::string(100, 'p'));
	int accepted = 0;
	for (int i = 0; i < 50000; i++) {
		size_t n = rng() % (base.size() + 40);
		std::vector<uint8_t> f(n);
		for (size_t j = 0; j < n; j++)
			f[j] = j < base.size() && rng() % 64 ? base[j] :
							       (uint8_t)rng();
		if (rng() % 2 && n > 20) /* a lying IP length */
			f[v6() ? 18 : 16] = 0, f[v6() ? 19 : 17] = (uint8_t)rng();
		ost_pkt_info_t pi;
		ost_pkt_verdict_t v = ost_check_pkt(s.up, f.data(), n, &pi);
		if (v > OST_PKT_SHORT)
			continue; /* would end the process */
		char buf[64];
		struct sockaddr_storage from;
		struct iovec iov[2] = { { buf, 7 }, { buf + 7, 57 } };
		struct msghdr msg = { &from, sizeof(from), iov, 2, 0, 0, 0 };
		ASSERT_EQ(ost_copy_pkt(s.up, &msg, f.data(), n) >= 0,
		    v == OST_PKT_ACCEPT);
		accepted += v == OST_PKT_ACCEPT;
	}
	EXPECT_GT(accepted, 100);
}

TEST_P(Recv, StashPeekAndNonBlocking)
{
	s.inject("one");
	s.inject("two");
	EXPECT_EQ(s.recv(MSG_PEEK), "one");
	EXPECT_EQ(s.recv(), "one");
	EXPECT_EQ(s.recv(), "two");
	EXPECT_EQ(s.recv(MSG_DONTWAIT), err_str(EAGAIN));
	ost_note_fl_change(s.fd, F_SETFL, O_NONBLOCK);
	EXPECT_EQ(s.recv(), err_str(EAGAIN));
	ost_note_fl_change(s.fd, F_SETFL, 0);

	/* Longer than the stash: delivered even when peeked, dropped by a
	 * readiness test. */
	std::string big(3000, 'j');
	s.inject(big);
	s.inject(big);
	EXPECT_EQ(s.recv(), big);
	EXPECT_EQ(s.recv(MSG_PEEK), big);
	s.inject(big);
	EXPECT_FALSE(ost_rx_ready(s.up, true));
	EXPECT_EQ(frio_mem_rx_pending(s.hdl), 0);

	/* Connected: another peer's frame skipped, the next delivered. */
	s.connect_peer();
	s.inject(s.frame("abc", htons(5001)));
	s.inject("mine");
	EXPECT_EQ(s.recv(), "mine");
}

/* Control data: none until asked for; then the receive time (the same
 * for a peek) and the packet information; what does not fit is cut. */
TEST_P(Recv, ControlData)
{
	alignas(struct cmsghdr) char ctl[256];
	char buf[16];
	struct iovec iov = { buf, sizeof(buf) };
	struct msghdr m;
	int on = 1;
	auto rx = [&](int flags, size_t clen) {
		m = { nullptr, 0, &iov, 1, ctl, clen, 0 };
		return ost_recvmsg_call(s.fd, &m, flags);
	};
	s.inject("a");
	EXPECT_EQ(rx(0, sizeof(ctl)), 1);
	EXPECT_EQ(m.msg_controllen, 0u);

	ASSERT_EQ(ost_setsockopt(s.fd, SOL_SOCKET, SO_TIMESTAMPNS, &on, 4), 0);
	ASSERT_EQ(ost_setsockopt(s.fd, v6() ? IPPROTO_IPV6 : IPPROTO_IP,
	    v6() ? IPV6_RECVPKTINFO : IP_PKTINFO, &on, 4), 0);
	s.up->uost_if_index = 7;
	s.inject("b");
	ASSERT_EQ(rx(MSG_PEEK, sizeof(ctl)), 1);
	struct timespec peeked;
	memcpy(&peeked, CMSG_DATA(CMSG_FIRSTHDR(&m)), sizeof(peeked));
	ASSERT_EQ(rx(0, sizeof(ctl)), 1);
	EXPECT_EQ(m.msg_controllen, CMSG_SPACE(16) + CMSG_SPACE(v6() ?
	    sizeof(struct in6_pktinfo) : sizeof(struct in_pktinfo)));
	struct cmsghdr *c = CMSG_FIRSTHDR(&m);
	EXPECT_EQ(c->cmsg_type, SCM_TIMESTAMPNS);
	EXPECT_EQ(memcmp(CMSG_DATA(c), &peeked, sizeof(peeked)), 0);
	c = CMSG_NXTHDR(&m, c);
	ASSERT_NE(c, nullptr);
	EXPECT_EQ(c->cmsg_type, v6() ? IPV6_PKTINFO : IP_PKTINFO);
	int ifindex; /* the first field of in_pktinfo, after the address in v6 */
	memcpy(&ifindex, CMSG_DATA(c) + (v6() ? 16 : 0), sizeof(ifindex));
	EXPECT_EQ(ifindex, 7);

	s.inject("c");
	ASSERT_EQ(rx(0, CMSG_SPACE(16) + 20), 1);
	EXPECT_EQ(m.msg_flags, MSG_CTRUNC);
	EXPECT_EQ(CMSG_NXTHDR(&m, CMSG_FIRSTHDR(&m))->cmsg_len, 20u);
}

/* recvmsg marks a cut datagram; recvmmsg gives an empty datagram its own
 * entry; in poll mode a receive sleeps until a frame arrives. */
TEST_P(Recv, ReceiveCalls)
{
	char buf[8][16];
	struct iovec iov[8];
	struct mmsghdr vec[8] = {};
	for (int i = 0; i < 8; i++) {
		iov[i] = { buf[i], sizeof(buf[i]) };
		vec[i].msg_hdr.msg_iov = &iov[i];
		vec[i].msg_hdr.msg_iovlen = 1;
	}
	iov[0].iov_len = 4;
	s.inject("0123456789");
	EXPECT_EQ(ost_recvmsg_call(s.fd, &vec[0].msg_hdr, 0), 4);
	EXPECT_EQ(vec[0].msg_hdr.msg_flags, MSG_TRUNC);
	iov[0].iov_len = sizeof(buf[0]);

	s.inject("a");
	s.inject("");
	s.inject("ccc");
	EXPECT_EQ(ost_recvmmsg_call(s.fd, vec, 8, MSG_WAITFORONE, nullptr), 3);
	EXPECT_TRUE(vec[0].msg_len == 1 && vec[1].msg_len == 0 &&
	    vec[2].msg_len == 3);
	/* A batch past UIO_MAXIOV is cut to it, as the kernel cuts it, and
	 * still served from the ring. */
	std::vector<struct mmsghdr> big(2000);
	for (auto &m : big)
		m.msg_hdr.msg_iov = &iov[0], m.msg_hdr.msg_iovlen = 1;
	s.inject("x");
	s.inject("y");
	EXPECT_EQ(ost_recvmmsg_call(s.fd, big.data(), 2000, MSG_DONTWAIT,
	    nullptr), 2);

	recv_mode = RCV_POLL;
	for (int usec : { 0, -1 }) {
		poll_usec = usec;
		std::thread late([this] { usleep(20000), s.inject("woke"); });
		EXPECT_EQ(s.recv(), "woke") << usec;
		late.join();
	}
}

TEST_P(Recv, ThreadsShareOneSocket)
{
	const int kThreads = 3, kDatagrams = 600;
	std::vector<std::vector<int>> got(kThreads);
	std::vector<std::thread> rx;
	for (int t = 0; t < kThreads; t++)
		rx.emplace_back([&, t] {
			for (std::string m; (m = s.recv()) != "stop";)
				got[t].push_back(atoi(m.c_str()));
		});
	for (int i = 0; i < kDatagrams + kThreads; i++)
		s.inject(i < kDatagrams ? std::to_string(i) : "stop");
	std::multiset<int> all; /* each datagram reached exactly one */
	for (int t = 0; t < kThreads; t++)
		rx[t].join(), all.insert(got[t].begin(), got[t].end());
	EXPECT_EQ(all.size(), (size_t)kDatagrams);
	EXPECT_EQ(std::set<int>(all.begin(), all.end()).size(), all.size());
}

/* close() ends a waiting receive with EBADF once the record is gone. */
TEST_P(Recv, CloseEndsAWaitingReceive)
{
	for (int mode : { RCV_BUSY_WAIT, RCV_POLL }) {
		if (s.up == nullptr)
			s.open(GetParam());
		recv_mode = mode;
		int before = registry_size();
		std::string got;
		std::thread r([&] { got = s.recv(); });
		while (refcnt_of(s.up) < 2)
			usleep(1000);
		usleep(10000);
		s.close_sock();
		EXPECT_EQ(registry_size(), before - 1);
		r.join();
		EXPECT_EQ(got, err_str(EBADF)) << mode;
	}
}

/*
 * A teardown that leaves the descriptor open (dup, a demoting option, the
 * process hand-off) must not end a waiting receive: it goes on waiting on
 * the kernel socket, with what is left of its time-out.
 */
TEST_P(Recv, TeardownHandsAWaitingReceiveToTheKernel)
{
	for (int timed = 0; timed < 2; timed++) {
		if (s.up == nullptr)
			s.open(GetParam());
		recv_mode = timed ? RCV_POLL : RCV_BUSY_WAIT;
		if (timed)
			s.up->uost_rcvtimeo = 300 * 1000000LL;
		std::string got;
		std::thread r([&] { got = s.recv(); });
		while (refcnt_of(s.up) < 2)
			usleep(1000);
		usleep(30000);
		ost_del(ost_find_sd(s.fd), true);
		s.up = nullptr;
		usleep(30000);
		int k = socket(s.family, SOCK_DGRAM, 0);
		if (!timed) {
			EXPECT_EQ(sendto(k, "kernel", 6, 0,
			    (struct sockaddr *)&s.local, sizeof(s.local)), 6);
		}
		r.join();
		close(k);
		EXPECT_EQ(got, timed ? err_str(EAGAIN) : "kernel") << timed;
		close(s.fd);
		s.fd = -1;
	}
}

INSTANTIATE_TEST_SUITE_P(Families, Recv, ::testing::Values(AF_INET, AF_INET6),
    family_name);

} // namespace
