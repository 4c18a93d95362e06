/* The transmit path against the in-memory frame double.  The peer is a
 * kernel socket on loopback: fallback datagrams arrive there, bypass ones
 * only in the double's transmit queue. */
#include <errno.h>
#include <pthread.h>
#include <sys/uio.h>

#include "recv_frames.h"

namespace
{

/* The MACs of frio_test::udp_hdr, so that udp_frame builds our frames. */
const uint8_t kSrcMac[6] = { 0x02, 0, 0, 0, 0, 0x01 };
const uint8_t kDstMac[6] = { 0x02, 0, 0, 0, 0, 0x02 };

struct Transmit : ::testing::TestWithParam<int> {
	BypassSock s;
	bool v6_ = false;
	int peer_ = -1, other_ = -1;
	struct sockaddr_storage peer_addr_, other_addr_;
	struct in6_addr loop_;

	void SetUp() override
	{
		v6_ = GetParam() == AF_INET6;
		ost_test_init();
		ost_watch_reset(true);
		frio_mem_reset();
		send_busy_wait_cnt = 15;
		peer_ = bound_udp_socket(GetParam(), &peer_addr_);
		other_ = bound_udp_socket(GetParam(), &other_addr_);
		ASSERT_EQ(frio_mem_add_interface("mem0", 7,
			      (const struct ether_addr *)kSrcMac),
		    0);
		s.open(GetParam(), 7);
		ASSERT_EQ(real_connect(s.fd, peer(), s.addr_len()), 0);
		inet_pton(AF_INET6, v6_ ? "::1" : "::ffff:127.0.0.1", &loop_);
		pthread_mutex_lock(&s.up->uost_lock);
		ost_tpl_set_dst_mac(s.up, (const struct ether_addr *)kDstMac);
		ost_tpl_set_peer(s.up, &loop_, port_of(&peer_addr_));
		s.up->uost_connected = s.up->uost_dst_ok = true;
		s.up->uost_dst_gen = ost_watch_gen();
		pthread_mutex_unlock(&s.up->uost_lock);
	}

	void TearDown() override
	{
		if (s.up != nullptr) { /* every path gave its reference back */
			EXPECT_EQ(refcnt_of(s.up), 1u);
			EXPECT_EQ(frio_mem_tx_pending(s.hdl), 0);
		}
		s.close_sock();
		close(peer_), close(other_);
		EXPECT_EQ(frio_mem_open_count(), 0);
		ost_watch_reset(false);
	}

	static in_port_t port_of(const struct sockaddr_storage *ss)
	{
		return ((const struct sockaddr_in *)ss)->sin_port;
	}
	const struct sockaddr *peer() const
	{
		return (const struct sockaddr *)&peer_addr_;
	}
	std::vector<uint8_t> pop_frame()
	{
		std::vector<uint8_t> f(2048);
		ssize_t n = frio_mem_tx_pop(s.hdl, f.data(), f.size());
		f.resize(n < 0 ? 0 : (size_t)n);
		return f;
	}

	/* The frame a kernel would send to the peer. */
	std::vector<uint8_t> want(const std::string &payload) const
	{
		return frio_test::udp_frame(v6_, payload, loop_,
		    port_of(&s.local), loop_, port_of(&peer_addr_));
	}

	/* What kernel socket sock received within 1 s. */
	static std::string kernel_got(int sock)
	{
		struct timeval tv = { 1, 0 };
		char buf[2048];
		setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
		ssize_t n = real_recvfrom(sock, buf, 2048, 0, nullptr, nullptr);
		return n < 0 ? "<none>" : std::string(buf, (size_t)n);
	}

	ssize_t sendto_(const std::string &m, const void *to, socklen_t len)
	{
		return ost_sendto(s.fd, m.data(), m.size(), 0,
		    (const struct sockaddr *)to, len);
	}
};

/* A sender waiting for room holds a reference: a close on another thread
 * must not wait for the ring, and the waiter gets the kernel's answer. */
TEST_P(Transmit, CloseEndsAWaitForRoom)
{
	frio_mem_fail_tx(s.hdl, 1000000);
	struct W {
		int fd;
		ssize_t n;
		int err;
	} w = { s.fd, 0, 0 };
	pthread_t t;
	ASSERT_EQ(pthread_create(
		      &t, nullptr,
		      [](void *a) -> void * {
			      W *w = (W *)a;
			      w->n = ost_send_call(w->fd, "late", 4, 0);
			      w->err = errno;
			      return nullptr;
		      },
		      &w),
	    0);
	while (refcnt_of(s.up) < 2)
		usleep(1000);
	usleep(5000);
	EXPECT_EQ(ost_close(s.fd), 0);
	pthread_join(t, nullptr);
	EXPECT_EQ(w.n, -1);
	EXPECT_EQ(w.err, EBADF);
	s.fd = -1, s.up = nullptr;
	frio_mem_fail_tx(nullptr, 0);
}

/* Another peer is the kernel's; for IPv6 sendto (not sendmsg) also wants
 * the handle's scope or none. */
TEST_P(Transmit, OnlyTheCachedPeerTakesTheBypass)
{
	EXPECT_EQ(sendto_("B", &other_addr_, s.addr_len()), 1);
	EXPECT_EQ(kernel_got(other_), "B");
	EXPECT_EQ(sendto_("A", peer(), s.addr_len()), 1); /* peer kept */
	EXPECT_EQ(pop_frame(), want("A"));
	if (!v6_)
		return;
	const struct {
		uint32_t scope;
		bool msg, bypass;
	} cases[] = {
		{ 7, false, true },
		{ 9, false, false },
		{ 9, true, true },
	};
	for (const auto &c : cases) {
		struct sockaddr_in6 to = *(const struct sockaddr_in6 *)peer();
		to.sin6_scope_id = c.scope;
		struct iovec iov = { (void *)"s", 1 };
		struct msghdr msg = { &to, sizeof(to), &iov, 1, nullptr, 0, 0 };
		EXPECT_EQ(c.msg ? ost_sendmsg_call(s.fd, &msg, 0) :
				  sendto_("s", &to, sizeof(to)),
		    1);
		if (c.bypass)
			EXPECT_EQ(pop_frame(), want("s")) << c.scope;
		else
			EXPECT_EQ(kernel_got(peer_), "s") << c.scope;
	}
}

INSTANTIATE_TEST_SUITE_P(Families, Transmit,
    ::testing::Values(AF_INET, AF_INET6), family_name);

} // namespace
