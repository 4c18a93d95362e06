/* The transmit path against the in-memory frame double.  The peer is a
 * kernel socket on loopback: fallback datagrams arrive there, bypass ones
 * only in the double's transmit queue. */
#include <errno.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
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
		pthread_mutex_unlock(&s.up->uost_lock);
		set_peer(loop_);
		pthread_mutex_lock(&s.up->uost_lock);
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
		send_busy_wait_cnt = 15;
		ost_watch_reset(false);
	}

	static in_port_t port_of(const struct sockaddr_storage *ss)
	{
		return ((const struct sockaddr_in *)ss)->sin_port;
	}
	void set_peer(const struct in6_addr &addr)
	{
		pthread_mutex_lock(&s.up->uost_lock);
		ost_tpl_set_peer(s.up, &addr, port_of(&peer_addr_));
		pthread_mutex_unlock(&s.up->uost_lock);
	}
	const struct sockaddr *peer() const
	{
		return (const struct sockaddr *)&peer_addr_;
	}
	size_t hdr_len() const { return v6_ ? 62 : 42; }

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

	static int hops_of(const std::vector<uint8_t> &f)
	{
		return f.size() < 23 ? -1 : f[f[12] == 0x86 ? 21 : 22];
	}
	ssize_t sendto_(const std::string &m, const void *to, socklen_t len)
	{
		return ost_sendto(s.fd, m.data(), m.size(), 0,
		    (const struct sockaddr *)to, len);
	}
};

/* Frames carry the TTL or hop limit the kernel socket reports after each
 * option: the value set, or for -1 the kernel's default (1 for groups);
 * a refused value changes nothing. */
TEST_P(Transmit, HopOptionsFollowTheKernel)
{
	int lvl = v6_ ? IPPROTO_IPV6 : IPPROTO_IP;
	int uc = v6_ ? IPV6_UNICAST_HOPS : IP_TTL;
	int mc = v6_ ? IPV6_MULTICAST_HOPS : IP_MULTICAST_TTL;
	struct in6_addr group;
	inet_pton(AF_INET6, v6_ ? "ff0e::1" : "::ffff:239.1.1.1", &group);
	const struct {
		bool group;
		int name, value, ret;
	} steps[] = {
		{ false, uc, 9, 0 },
		{ false, mc, 3, 0 },
		{ false, uc, 300, -1 },
		{ false, uc, -1, 0 },
		{ true, mc, 4, 0 },
		{ true, uc, 7, 0 },
		{ true, mc, -1, 0 },
		{ true, mc, 256, -1 },
	};
	int off = 0; /* group frames take the bypass only without loop */
	ASSERT_EQ(ost_setsockopt(s.fd, lvl,
		      v6_ ? IPV6_MULTICAST_LOOP : IP_MULTICAST_LOOP, &off, 4),
	    0);
	for (const auto &st : steps) {
		if (st.group) {
			set_peer(group);
			s.up->uost_peer_group = true;
		}
		EXPECT_EQ(ost_setsockopt(s.fd, lvl, st.name, &st.value, 4),
		    st.ret)
		    << st.name << "=" << st.value;
		int kernel = -2;
		socklen_t len = sizeof(kernel);
		ASSERT_EQ(getsockopt(s.fd, lvl, st.group ? mc : uc, &kernel,
			      &len),
		    0);
		ASSERT_EQ(ost_send_call(s.fd, "h", 1, 0), 1);
		EXPECT_EQ(hops_of(pop_frame()), kernel) << st.value;
		if (st.name == mc && st.value == -1) {
			EXPECT_EQ(kernel, 1);
		}
	}
	if (!v6_) { /* IPv4 also takes a single byte */
		unsigned char byte = 5;
		ASSERT_EQ(ost_setsockopt(s.fd, lvl, IP_MULTICAST_TTL, &byte, 1),
		    0);
		ASSERT_EQ(ost_send_call(s.fd, "h", 1, 0), 1);
		EXPECT_EQ(hops_of(pop_frame()), 5);
	}
}

/* A full ring is a full send buffer: a blocking socket waits for room,
 * up to SO_SNDTIMEO; MSG_DONTWAIT gets EAGAIN. */
TEST_P(Transmit, FullRingBlocksOrSaysEagainAsTheKernel)
{
	frio_mem_fail_tx(s.hdl, 2); /* within the spins */
	EXPECT_EQ(ost_send_call(s.fd, "abc", 3, 0), 3);
	EXPECT_EQ(pop_frame().size(), hdr_len() + 3);
	frio_mem_fail_tx(s.hdl, 200); /* well past them: a wait */
	EXPECT_EQ(ost_write_call(s.fd, "abcd", 4), 4);
	EXPECT_EQ(pop_frame().size(), hdr_len() + 4);

	frio_mem_fail_tx(s.hdl, 1000000);
	errno = 0;
	EXPECT_EQ(ost_send_call(s.fd, "x", 1, MSG_DONTWAIT), -1);
	EXPECT_EQ(errno, EAGAIN);
	struct timeval tv = { 0, 30000 };
	ASSERT_EQ(ost_setsockopt(s.fd, SOL_SOCKET, SO_SNDTIMEO, &tv,
		      sizeof(tv)),
	    0);
	hrtime_t t0 = gethrtime();
	errno = 0;
	struct iovec iov = { (void *)"m", 1 };
	struct msghdr msg = { nullptr, 0, &iov, 1, nullptr, 0, 0 };
	EXPECT_EQ(ost_sendmsg_call(s.fd, &msg, 0), -1);
	EXPECT_EQ(errno, EAGAIN);
	EXPECT_GE(gethrtime() - t0, 30 * 1000 * 1000);
	frio_mem_fail_tx(s.hdl, 0);
	EXPECT_EQ(frio_mem_tx_pending(s.hdl), 0);
	char c; /* nothing went around (loopback delivers at once) */
	EXPECT_EQ(recv(peer_, &c, 1, MSG_DONTWAIT), -1);
}

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

TEST_P(Transmit, BatchesDecidePerMessage)
{
	struct iovec iov[3] = { { (void *)"one", 3 }, { (void *)"two", 3 },
		{ (void *)"six", 3 } };
	struct mmsghdr vec[3] = {};
	for (int i = 0; i < 3; i++)
		vec[i].msg_hdr.msg_iov = &iov[i], vec[i].msg_hdr.msg_iovlen = 1;
	vec[1].msg_hdr.msg_name = &other_addr_;
	vec[1].msg_hdr.msg_namelen = s.addr_len();

	EXPECT_EQ(ost_sendmmsg_call(s.fd, vec, 3, 0), 3);
	EXPECT_EQ(kernel_got(other_), "two");
	EXPECT_EQ(pop_frame(), want("one"));
	EXPECT_EQ(pop_frame(), want("six"));

	/* The third fails: two sent. */
	iov[2] = { nullptr, 3 };
	EXPECT_EQ(ost_sendmmsg_call(s.fd, vec, 3, 0), 2);
	EXPECT_EQ(kernel_got(other_), "two");
	pop_frame();
	/* Control data anywhere: all the kernel's (which refuses this). */
	iov[2] = { (void *)"six", 3 };
	char cbuf[CMSG_SPACE(sizeof(int))] = {};
	vec[2].msg_hdr.msg_control = cbuf;
	vec[2].msg_hdr.msg_controllen = sizeof(cbuf);
	EXPECT_EQ(ost_sendmmsg_call(s.fd, vec, 3, 0), 2);
	EXPECT_EQ(kernel_got(peer_), "one");
	EXPECT_EQ(kernel_got(other_), "two");
	EXPECT_EQ(ost_sendmsg_call(s.fd, &vec[2].msg_hdr, 0), -1);
	EXPECT_EQ(errno, EINVAL);
}

INSTANTIATE_TEST_SUITE_P(Families, Transmit,
    ::testing::Values(AF_INET, AF_INET6), family_name);

/* rtnetlink messages as the watch reads them. */
struct NlBuf {
	std::vector<uint8_t> b;

	NlBuf &msg(uint16_t type, const void *body, size_t len)
	{
		struct nlmsghdr h = { (uint32_t)(NLMSG_HDRLEN + len), type, 0,
			0, 0 };
		size_t at = b.size();
		b.resize(at + NLMSG_ALIGN(h.nlmsg_len));
		memcpy(&b[at], &h, sizeof(h));
		memcpy(&b[at + NLMSG_HDRLEN], body, len);
		return *this;
	}
	/* A neighbour entry for 10.0.0.dst on interface 3; mac 0: none. */
	NlBuf &neigh(uint16_t type, uint8_t dst, uint16_t state, uint8_t mac)
	{
		std::vector<uint8_t> m(NLMSG_ALIGN(sizeof(struct ndmsg)));
		struct ndmsg nd = {};
		nd.ndm_family = AF_INET, nd.ndm_ifindex = 3;
		nd.ndm_state = state;
		memcpy(m.data(), &nd, sizeof(nd));
		uint8_t a[4] = { 10, 0, 0, dst },
			ll[6] = { 2, 0, 0, 0, 0, mac };
		attr(m, NDA_DST, a, 4);
		if (mac != 0)
			attr(m, NDA_LLADDR, ll, 6);
		return msg(type, m.data(), m.size());
	}
	static void
	attr(std::vector<uint8_t> &m, uint16_t type, const void *p, size_t len)
	{
		struct rtattr a = { (unsigned short)RTA_LENGTH(len), type };
		size_t at = m.size();
		m.resize(at + RTA_SPACE(len));
		memcpy(&m[at], &a, sizeof(a));
		memcpy(&m[at + RTA_LENGTH(0)], p, len);
	}
};

/* Which messages move the generation: the neighbour table's walk through
 * states with the same address does not; a new or changed address, an
 * entry a destination used going away, any link, address or route change
 * does.  Broken messages move nothing and read nothing past the buffer. */
TEST(Watch, OnlyNewsMovesTheGeneration)
{
	struct in_addr nh = { htonl(0x0a000001) };
	struct ether_addr mac = { { 2, 0, 0, 0, 0, 1 } };
	const struct {
		NlBuf buf;
		bool bump;
		const char *what;
	} steps[] = {
		{ NlBuf().neigh(RTM_NEWNEIGH, 1, NUD_STALE, 1), false, "same" },
		{ NlBuf().neigh(RTM_NEWNEIGH, 1, NUD_PROBE, 1), false,
		    "probe" },
		{ NlBuf().neigh(RTM_NEWNEIGH, 1, NUD_REACHABLE, 7), true,
		    "changed" },
		{ NlBuf().neigh(RTM_NEWNEIGH, 1, NUD_DELAY, 7), false,
		    "again" },
		{ NlBuf().neigh(RTM_NEWNEIGH, 2, NUD_INCOMPLETE, 0), false,
		    "resolving" },
		{ NlBuf().neigh(RTM_NEWNEIGH, 2, NUD_REACHABLE, 9), true,
		    "resolved" },
		{ NlBuf().neigh(RTM_NEWNEIGH, 1, NUD_FAILED, 0), true,
		    "failed" },
		{ NlBuf().neigh(RTM_DELNEIGH, 1, NUD_FAILED, 0), false,
		    "forgotten" },
		{ NlBuf().neigh(RTM_DELNEIGH, 2, NUD_STALE, 9), true,
		    "deleted" },
		{ NlBuf()
			.neigh(RTM_NEWNEIGH, 3, NUD_STALE, 4)
			.msg(RTM_NEWLINK, "", 0),
		    true, "link" },
		{ NlBuf().msg(RTM_DELADDR, "", 0), true, "address" },
		{ NlBuf().msg(RTM_NEWROUTE, "", 0), true, "route" },
		{ NlBuf().msg(NLMSG_DONE, "", 0), false, "other" },
	};

	ost_watch_reset(true);
	ost_watch_note_neigh(AF_INET, 3, &nh, &mac);
	for (const auto &st : steps) {
		uint32_t g = ost_watch_gen();
		ost_watch_feed(st.buf.b.data(), st.buf.b.size());
		EXPECT_EQ(ost_watch_gen() != g, st.bump) << st.what;
	}
	/* A message longer than the buffer, an attribute longer than its
	 * message: cut short, each would be a route message. */
	NlBuf route;
	route.msg(RTM_NEWROUTE, "abcd", 4);
	NlBuf neigh;
	neigh.neigh(RTM_NEWNEIGH, 5, NUD_REACHABLE, 5);
	neigh.b[NLMSG_HDRLEN + NLMSG_ALIGN(sizeof(struct ndmsg))] = 200;
	uint32_t g = ost_watch_gen();
	ost_watch_feed(route.b.data(), route.b.size() - 1);
	ost_watch_feed(neigh.b.data(), neigh.b.size());
	ost_watch_feed(route.b.data(), NLMSG_HDRLEN - 1);
	EXPECT_EQ(ost_watch_gen(), g);
	ost_watch_reset(false);
}

} // namespace
