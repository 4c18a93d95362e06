/*
 * The transmit path against the in-memory frame double: the exact frames a
 * bypass socket hands over, and every case that must reach the kernel
 * instead.  The cached peer is a kernel socket on the loopback interface,
 * so a datagram that falls back is seen arriving there, while a bypass
 * datagram is seen in the double's transmit queue and nowhere else.
 */
#include <errno.h>
#include <sys/uio.h>

#include <functional>

#include "../frio/frame_util.h"
#include "recv_frames.h"

namespace {

using frio_test::fold;
using frio_test::get16;
using frio_test::sum_be;

const uint8_t kSrcMac[6] = { 0x02, 0, 0, 0, 0, 0x11 };
const uint8_t kDstMac[6] = { 0x02, 0, 0, 0, 0, 0x22 };

/*
 * A bypass socket of the family whose peer is a kernel socket on the
 * loopback interface, armed as the destination set-up leaves a record.
 */
class Transmit : public ::testing::TestWithParam<int> {
protected:
	int family_ = AF_INET;
	int fd_ = -1;
	int peer_ = -1;		/* the cached peer: a kernel socket */
	int other_ = -1;	/* another destination */
	struct sockaddr_storage peer_addr_, other_addr_;
	uost_t *up_ = nullptr;
	frio_handle_t hdl_ = nullptr;

	void SetUp() override
	{
		family_ = GetParam();
		ost_test_init();
		setenv("FRIO_BACKEND", "mem", 1);
		frio_mem_reset();
		send_busy_wait_cnt = 15;
		peer_ = bound_udp_socket(family_, &peer_addr_);
		other_ = bound_udp_socket(family_, &other_addr_);
		fd_ = ost_socket(family_, SOCK_DGRAM, 0);
		ASSERT_GE(fd_, 0);
		struct sockaddr_storage local;
		ASSERT_EQ(bind_loopback(fd_, family_, &local), 0);
		/* As after connect(): the kernel fallbacks need no address. */
		ASSERT_EQ(libc_connect(fd_, peer(), addr_len()), 0);

		up_ = ost_find_sd(fd_);
		ASSERT_NE(up_, nullptr);
		pthread_mutex_lock(&up_->uost_lock);
		ASSERT_EQ(ost_frio_open("mem0", nullptr, &up_->uost_frio_hdl),
		    FRIO_STATUS_OK);
		hdl_ = up_->uost_frio_hdl;
		up_->uost_frio_set = B_TRUE;
		memcpy(up_->uost_eth->ether_shost, kSrcMac, 6);
		memcpy(up_->uost_eth->ether_dhost, kDstMac, 6);
		up_->uost_lport = port_of(&local);
		up_->uost_udph->uh_sport = up_->uost_lport;
		up_->uost_fport = port_of(&peer_addr_);
		up_->uost_udph->uh_dport = up_->uost_fport;
		if (family_ == AF_INET6) {
			up_->uost_faddr_v6 = in6addr_loopback;
			up_->uost_ip6h->ip6_src = in6addr_loopback;
			up_->uost_ip6h->ip6_dst = in6addr_loopback;
		} else {
			struct in_addr lo = { htonl(INADDR_LOOPBACK) };
			inet_pton(AF_INET6, "::ffff:127.0.0.1",
			    &up_->uost_faddr_v6);
			up_->uost_iph->ip_src = lo;
			up_->uost_iph->ip_dst = lo;
		}
		up_->uost_if_index = 7;
		up_->uost_bound = up_->uost_peer_set = B_TRUE;
		ost_release_locked(up_);
		pthread_mutex_unlock(&up_->uost_lock);
	}

	void TearDown() override
	{
		if (up_ != nullptr) {
			/* Every path gave its reference back. */
			EXPECT_EQ(refcnt_of(up_), 1u);
			EXPECT_EQ(frio_mem_tx_pending(hdl_), 0);
		}
		if (fd_ >= 0)
			ost_close(fd_);
		close(peer_);
		close(other_);
		EXPECT_EQ(frio_mem_open_count(), 0);
		send_busy_wait_cnt = 15;
	}

	static in_port_t port_of(const struct sockaddr_storage *ss)
	{
		return ((const struct sockaddr_in *)ss)->sin_port;
	}

	socklen_t addr_len() const
	{
		return family_ == AF_INET6 ? sizeof (struct sockaddr_in6) :
		    sizeof (struct sockaddr_in);
	}

	const struct sockaddr *peer() const
	{
		return (const struct sockaddr *)&peer_addr_;
	}

	size_t max_payload() const
	{
		return family_ == AF_INET6 ? 1452 : 1472;
	}

	size_t hdr_len() const { return family_ == AF_INET6 ? 62 : 42; }

	/* The next transmitted frame, or an empty one. */
	std::vector<uint8_t> pop_frame()
	{
		std::vector<uint8_t> f(2048);
		ssize_t n = frio_mem_tx_pop(hdl_, f.data(), f.size());
		f.resize(n < 0 ? 0 : (size_t)n);
		return f;
	}

	/* What the kernel socket sock received, or "" after 1 s. */
	static std::string kernel_got(int sock)
	{
		struct timeval tv = { 1, 0 };
		setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof (tv));
		char buf[2048];
		ssize_t n = libc_recvfrom(sock, buf, sizeof (buf), 0, nullptr,
		    nullptr);
		return n < 0 ? std::string("<none>") : std::string(buf,
		    (size_t)n);
	}

	/* Checks every header byte of an IPv4 or IPv6 frame with payload. */
	void expect_frame(const std::vector<uint8_t> &f,
	    const std::string &payload, int hops)
	{
		ASSERT_EQ(f.size(), hdr_len() + payload.size());
		EXPECT_EQ(memcmp(&f[0], kDstMac, 6), 0);
		EXPECT_EQ(memcmp(&f[6], kSrcMac, 6), 0);
		const uint8_t *ip = &f[14];
		const uint8_t *udp;
		uint32_t pseudo;
		uint16_t ulen = (uint16_t)(8 + payload.size());
		if (family_ == AF_INET6) {
			EXPECT_EQ(get16(&f[12]), 0x86dd);
			EXPECT_EQ(get16(ip), 0x6000);
			EXPECT_EQ(get16(ip + 2), 0);
			EXPECT_EQ(get16(ip + 4), ulen);
			EXPECT_EQ(ip[6], IPPROTO_UDP);
			EXPECT_EQ(ip[7], hops);
			EXPECT_EQ(memcmp(ip + 8, &in6addr_loopback, 16), 0);
			EXPECT_EQ(memcmp(ip + 24, &in6addr_loopback, 16), 0);
			udp = ip + 40;
			pseudo = sum_be(ip + 8, 32);
		} else {
			EXPECT_EQ(get16(&f[12]), 0x0800);
			EXPECT_EQ(ip[0], 0x45);
			EXPECT_EQ(ip[1], 0);
			EXPECT_EQ(get16(ip + 2), 20 + ulen);
			EXPECT_EQ(get16(ip + 4), 0);	/* identification */
			EXPECT_EQ(get16(ip + 6), 0x4000);	/* DF */
			EXPECT_EQ(ip[8], hops);
			EXPECT_EQ(ip[9], IPPROTO_UDP);
			EXPECT_EQ(fold(sum_be(ip, 20)), 0xffff);
			EXPECT_EQ(get16(ip + 12), 0x7f00);
			EXPECT_EQ(get16(ip + 16), 0x7f00);
			udp = ip + 20;
			pseudo = sum_be(ip + 12, 8);
		}
		EXPECT_EQ(memcmp(udp, &up_->uost_lport, 2), 0);
		EXPECT_EQ(memcmp(udp + 2, &up_->uost_fport, 2), 0);
		EXPECT_EQ(get16(udp + 4), ulen);
		EXPECT_NE(get16(udp + 6), 0);
		EXPECT_EQ(fold(sum_be(udp, ulen, pseudo + IPPROTO_UDP + ulen)),
		    0xffff);
		EXPECT_EQ(std::string((const char *)udp + 8, payload.size()),
		    payload);
	}
};

/* The seed alone: the completed checksums below would hide a seed that
 * is wrong in a way the library's completion happens to repair. */
TEST(ChecksumSeed, WorkedExampleV4)
{
	uint8_t buf[28] = {};
	struct ip *iph = (struct ip *)buf;
	struct udphdr *udph = (struct udphdr *)(buf + 20);

	inet_pton(AF_INET, "192.168.1.1", &iph->ip_src);
	inet_pton(AF_INET, "192.168.1.2", &iph->ip_dst);
	udph->uh_ulen = 18;
	ost_hdr_csum_v4(iph, udph);
	EXPECT_EQ(ntohs(iph->ip_len), 38);
	EXPECT_EQ(ntohs(udph->uh_ulen), 18);
	EXPECT_EQ(ntohs(udph->uh_sum), fold(0xC0A8 + 0x0101 + 0xC0A8 +
	    0x0102 + 0x0011 + 18));
}

TEST(ChecksumSeed, V6SumsBothAddresses)
{
	uint8_t buf[48] = {};
	struct ip6_hdr *ip6 = (struct ip6_hdr *)buf;
	struct udphdr *udph = (struct udphdr *)(buf + 40);

	inet_pton(AF_INET6, "fd00:ffff::1", &ip6->ip6_src);
	inet_pton(AF_INET6, "fe80::ffff:2", &ip6->ip6_dst);
	udph->uh_ulen = 1460;
	ost_hdr_csum_v6(ip6, udph);
	EXPECT_EQ(ntohs(ip6->ip6_plen), 1460);
	EXPECT_EQ(ntohs(udph->uh_ulen), 1460);
	EXPECT_EQ(ntohs(udph->uh_sum),
	    fold(sum_be(buf + 8, 32) + 17 + 1460));
}

TEST_P(Transmit, FramesCarryTheTemplateAndTheirOwnLengths)
{
	std::string small(10, 'a'), big(1000, 'b');

	ASSERT_EQ(ost_sendto(fd_, small.data(), small.size(), MSG_DONTROUTE,
	    peer(), addr_len()), 10);
	pthread_mutex_lock(&up_->uost_lock);
	if (family_ == AF_INET6)
		up_->uost_ip6h->ip6_hlim = 7;
	else
		up_->uost_iph->ip_ttl = 5;
	pthread_mutex_unlock(&up_->uost_lock);
	ASSERT_EQ(ost_send_call(fd_, big.data(), big.size(), 0), 1000);
	expect_frame(pop_frame(), small, 64);
	expect_frame(pop_frame(), big, family_ == AF_INET6 ? 7 : 5);
	ASSERT_EQ(ost_write_call(fd_, "", 0), 0);
	expect_frame(pop_frame(), "", family_ == AF_INET6 ? 7 : 5);
	so_ost_stats_t st = up_->uost_stats;
	EXPECT_EQ(st.osts_opkts, 3u);
	EXPECT_EQ(st.osts_opkts_spin, 0u);
}

TEST_P(Transmit, PayloadAboveTheMtuGoesToTheKernel)
{
	std::string fits(max_payload(), 'x'), over(max_payload() + 1, 'y');

	std::function<ssize_t(const std::string &)> calls[] = {
		[&](const std::string &m) { return ost_sendto(fd_, m.data(),
		    m.size(), 0, peer(), addr_len()); },
		[&](const std::string &m) { return ost_send_call(fd_, m.data(),
		    m.size(), 0); },
		[&](const std::string &m) { return ost_write_call(fd_, m.data(),
		    m.size()); },
	};
	for (auto &send : calls) {
		EXPECT_EQ(send(fits), (ssize_t)fits.size());
		EXPECT_EQ(send(over), (ssize_t)over.size());
		EXPECT_EQ(pop_frame().size(), hdr_len() + fits.size());
		EXPECT_EQ(kernel_got(peer_), over);
	}
}

TEST_P(Transmit, FullRingIsRetriedWithinTheAttemptBudget)
{
	frio_mem_fail_tx(hdl_, 2);
	EXPECT_EQ(ost_send_call(fd_, "abc", 3, 0), 3);
	EXPECT_EQ(pop_frame().size(), hdr_len() + 3);
	EXPECT_EQ(up_->uost_stats.osts_opkts, 1u);
	EXPECT_EQ(up_->uost_stats.osts_opkts_spin, 1u);
	EXPECT_GE(up_->uost_stats.osts_send_spin_max, 2u);

	/* One attempt, one spin, then EIO: the datagram is not counted. */
	send_busy_wait_cnt = 1;
	frio_mem_fail_tx(hdl_, 1);
	errno = 0;
	EXPECT_EQ(ost_send_call(fd_, "abc", 3, 0), -1);
	EXPECT_EQ(errno, EIO);
	EXPECT_EQ(up_->uost_stats.osts_opkts, 1u);
	EXPECT_EQ(frio_mem_tx_pending(hdl_), 0);
	frio_mem_fail_tx(hdl_, 0);

	/* A refusal other than a full ring fails at once. */
	send_busy_wait_cnt = 15;
	struct iovec bad = { nullptr, 5 };
	struct msghdr msg = {};
	msg.msg_iov = &bad;
	msg.msg_iovlen = 1;
	EXPECT_EQ(ost_sendmsg_call(fd_, &msg, 0), -1);
	EXPECT_EQ(errno, EIO);
	EXPECT_EQ(up_->uost_stats.osts_opkts, 1u);
}

TEST_P(Transmit, OnlyTheCachedPeerTakesTheBypass)
{
	/* Another destination: kernel, and the peer keeps the bypass. */
	EXPECT_EQ(ost_sendto(fd_, "B", 1, 0,
	    (const struct sockaddr *)&other_addr_, addr_len()), 1);
	EXPECT_EQ(kernel_got(other_), "B");
	EXPECT_EQ(ost_sendto(fd_, "A", 1, 0, peer(), addr_len()), 1);
	EXPECT_EQ(pop_frame().size(), hdr_len() + 1);

	/* A connected-style call without a destination means the peer. */
	EXPECT_EQ(ost_sendto(fd_, "N", 1, 0, nullptr, 0), 1);
	EXPECT_EQ(pop_frame().size(), hdr_len() + 1);

	/* Addresses the bypass cannot read (too short, other family) go to
	 * the kernel unchanged: the caller sees the kernel's own answer. */
	int fd_kernel = libc_socket(family_, SOCK_DGRAM, 0);
	struct sockaddr_storage unused;
	ASSERT_EQ(bind_loopback(fd_kernel, family_, &unused), 0);
	for (int i = 0; i < 3; i++) {
		struct sockaddr_storage ss = peer_addr_;
		socklen_t len = i == 0 ? 1 : i == 1 ? addr_len() - 1 : addr_len();
		if (i == 2)
			ss.ss_family = family_ == AF_INET ? AF_INET6 : AF_INET;
		errno = 0;
		ssize_t want = xsendto(fd_kernel, "s", 1, 0,
		    (struct sockaddr *)&ss, len);
		int want_errno = errno;
		errno = 0;
		EXPECT_EQ(ost_sendto(fd_, "s", 1, 0, (struct sockaddr *)&ss,
		    len), want) << i;
		EXPECT_EQ(errno, want_errno) << i;
	}
	close(fd_kernel);
	EXPECT_EQ(frio_mem_tx_pending(hdl_), 0);
}

TEST_P(Transmit, ScopeIdIsComparedBySendtoOnly)
{
	if (family_ != AF_INET6)
		GTEST_SKIP() << "IPv6 only";
	struct sockaddr_in6 to = *(const struct sockaddr_in6 *)peer();

	to.sin6_scope_id = 7;	/* the handle's interface */
	EXPECT_EQ(ost_sendto(fd_, "1", 1, 0, (struct sockaddr *)&to,
	    sizeof (to)), 1);
	EXPECT_EQ(pop_frame().size(), hdr_len() + 1);
	to.sin6_scope_id = 9;
	EXPECT_EQ(ost_sendto(fd_, "2", 1, 0, (struct sockaddr *)&to,
	    sizeof (to)), 1);
	EXPECT_EQ(kernel_got(peer_), "2");

	struct iovec iov = { (void *)"3", 1 };
	struct msghdr msg = {};
	msg.msg_name = &to;
	msg.msg_namelen = sizeof (to);
	msg.msg_iov = &iov;
	msg.msg_iovlen = 1;
	EXPECT_EQ(ost_sendmsg_call(fd_, &msg, 0), 1);
	EXPECT_EQ(pop_frame().size(), hdr_len() + 1);
}

TEST_P(Transmit, MessagesGatherIntoOneFrame)
{
	size_t max = max_payload();
	std::string a(500, 'a'), b(500, 'b'), c(max - 1000, 'c');
	struct iovec iov[3] = { { &a[0], a.size() }, { &b[0], b.size() },
	    { &c[0], c.size() } };
	struct msghdr msg = {};
	msg.msg_iov = iov;
	msg.msg_iovlen = 3;

	EXPECT_EQ(ost_sendmsg_call(fd_, &msg, 0), (ssize_t)max);
	expect_frame(pop_frame(), a + b + c, 64);

	std::string c2 = c + "!";
	iov[2] = { &c2[0], c2.size() };
	EXPECT_EQ(ost_sendmsg_call(fd_, &msg, 0), (ssize_t)max + 1);
	EXPECT_EQ(kernel_got(peer_), a + b + c2);

	/* Control data, and a vector longer than the kernel takes. */
	char cbuf[CMSG_SPACE(sizeof (int))] = {};
	msg.msg_iovlen = 1;
	msg.msg_control = cbuf;
	msg.msg_controllen = sizeof (cbuf);
	errno = 0;
	EXPECT_EQ(ost_sendmsg_call(fd_, &msg, 0), -1);
	EXPECT_EQ(errno, EINVAL);	/* the kernel's answer to that cmsg */
	msg.msg_control = nullptr;
	msg.msg_controllen = 0;
	msg.msg_iovlen = (size_t)-1;
	EXPECT_EQ(ost_sendmsg_call(fd_, &msg, 0), -1);
	EXPECT_EQ(errno, EMSGSIZE);
}

TEST_P(Transmit, BatchesDecidePerMessage)
{
	struct iovec iov[3] = { { (void *)"one", 3 }, { (void *)"two", 3 },
	    { (void *)"six", 3 } };
	struct mmsghdr vec[3] = {};
	for (int i = 0; i < 3; i++) {
		vec[i].msg_hdr.msg_iov = &iov[i];
		vec[i].msg_hdr.msg_iovlen = 1;
	}
	vec[1].msg_hdr.msg_name = &other_addr_;
	vec[1].msg_hdr.msg_namelen = addr_len();

	EXPECT_EQ(ost_sendmmsg_call(fd_, vec, 3, 0), 3);
	for (auto &m : vec)
		EXPECT_EQ(m.msg_len, 3u);
	EXPECT_EQ(kernel_got(other_), "two");
	EXPECT_EQ(frio_mem_tx_pending(hdl_), 2);
	(void) pop_frame();
	(void) pop_frame();

	/* The third fails: two sent.  The first fails: -1 with EIO. */
	iov[2] = { nullptr, 3 };
	EXPECT_EQ(ost_sendmmsg_call(fd_, vec, 3, 0), 2);
	EXPECT_EQ(kernel_got(other_), "two");
	(void) pop_frame();
	iov[0] = { nullptr, 3 };
	errno = 0;
	EXPECT_EQ(ost_sendmmsg_call(fd_, vec, 3, 0), -1);
	EXPECT_EQ(errno, EIO);

	/* Sizes outside 1..1024 and control data: the kernel takes all. */
	iov[0] = { (void *)"one", 3 };
	iov[2] = { (void *)"six", 3 };
	EXPECT_EQ(ost_sendmmsg_call(fd_, vec, 0, 0), 0);
	char cbuf[CMSG_SPACE(sizeof (int))] = {};
	vec[2].msg_hdr.msg_control = cbuf;
	vec[2].msg_hdr.msg_controllen = sizeof (cbuf);
	errno = 0;
	EXPECT_EQ(ost_sendmmsg_call(fd_, vec, 3, 0), 2);
	EXPECT_EQ(kernel_got(peer_), "one");
	EXPECT_EQ(kernel_got(other_), "two");
	EXPECT_EQ(frio_mem_tx_pending(hdl_), 0);
}

INSTANTIATE_TEST_SUITE_P(Families, Transmit,
    ::testing::Values(AF_INET, AF_INET6), family_name);

} // namespace
