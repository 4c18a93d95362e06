/* Options that shape the template, take the socket off, or are ours. */
#include <arpa/inet.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <netinet/udp.h>
#include <stdlib.h>
#include <unistd.h>

#include "frio_mem.h"
#include "os/frio_loader.h"
#include "support.h"

namespace {

class SockOpt : public ::testing::Test {
protected:
	int fd_ = -1;

	void SetUp() override
	{
		ost_test_init();
		setenv("FRIO_BACKEND", "mem", 1);
		fd_ = ost_socket(AF_INET, SOCK_DGRAM, 0);
		ASSERT_GE(fd_, 0);
	}

	void TearDown() override
	{
		ost_close(fd_);
		EXPECT_EQ(frio_mem_open_count(), 0);
	}

	static int set_int(int fd, int level, int name, int v)
	{
		return ost_setsockopt(fd, level, name, &v, sizeof (v));
	}

	void arm()
	{
		uost_t *up = record(fd_);
		pthread_mutex_lock(&up->uost_lock);
		ASSERT_EQ(ost_frio_open("mem0", nullptr, &up->uost_frio_hdl),
		    FRIO_STATUS_OK);
		up->uost_frio_set = up->uost_peer_set = true;
		pthread_mutex_unlock(&up->uost_lock);
	}
};

TEST_F(SockOpt, FrameShapingOptionsReachTheTemplate)
{
	uost_t *up = record(fd_);

	ASSERT_EQ(set_int(fd_, IPPROTO_IP, IP_TOS, 0x10), 0);
	EXPECT_EQ(up->uost_iph->ip_tos, 0x10);
	/* Before a destination: remembered, the template keeps 64. */
	ASSERT_EQ(set_int(fd_, IPPROTO_IP, IP_TTL, 5), 0);
	EXPECT_EQ(up->uost_uc_hops, 5u);
	EXPECT_EQ(up->uost_iph->ip_ttl, 64);
	arm();
	ASSERT_EQ(set_int(fd_, IPPROTO_IP, IP_TTL, 9), 0);
	EXPECT_EQ(up->uost_iph->ip_ttl, 9);

	/* A single byte is read as one; -1 brings the default back. */
	unsigned char byte = 3;
	ASSERT_EQ(ost_setsockopt(fd_, IPPROTO_IP, IP_TTL, &byte, 1), 0);
	EXPECT_EQ(up->uost_iph->ip_ttl, 3);
	ASSERT_EQ(set_int(fd_, IPPROTO_IP, IP_TTL, -1), 0);
	EXPECT_EQ(up->uost_uc_hops, 0u);
	EXPECT_EQ(up->uost_iph->ip_ttl, 64);
	ASSERT_EQ(set_int(fd_, IPPROTO_IP, IP_TTL, 9), 0);

	/* A byte or an int; the template follows only for a group peer. */
	ASSERT_EQ(ost_setsockopt(fd_, IPPROTO_IP, IP_MULTICAST_TTL, &byte, 1),
	    0);
	EXPECT_EQ(up->uost_mc_hops, 3u);
	EXPECT_EQ(up->uost_iph->ip_ttl, 9);
	inet_pton(AF_INET6, "::ffff:239.1.1.1", &up->uost_faddr_v6);
	ASSERT_EQ(set_int(fd_, IPPROTO_IP, IP_MULTICAST_TTL, 4), 0);
	EXPECT_EQ(up->uost_mc_hops, 4u);
	EXPECT_EQ(up->uost_iph->ip_ttl, 4);

	/* A value the kernel refuses: its error, and nothing changes. */
	errno = 0;
	EXPECT_EQ(set_int(fd_, IPPROTO_IP, IP_TTL, 300), -1);
	EXPECT_EQ(errno, EINVAL);
	EXPECT_EQ(up->uost_uc_hops, 9u);
	EXPECT_EQ(record(fd_), up);

	int fd6 = ost_socket(AF_INET6, SOCK_DGRAM, 0);
	uost_t *up6 = record(fd6);
	ASSERT_EQ(set_int(fd6, IPPROTO_IPV6, IPV6_UNICAST_HOPS, 7), 0);
	EXPECT_EQ(up6->uost_uc_hops, 7u);
	EXPECT_EQ(up6->uost_ip6h->ip6_hlim, 64);
	ASSERT_EQ(set_int(fd6, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, 2), 0);
	EXPECT_EQ(up6->uost_mc_hops, 2u);
	ost_close(fd6);
}

TEST_F(SockOpt, OptionsTheBypassCannotHonourTakeTheSocketOff)
{
	const struct {
		int family, level, name, value;
		bool keep;
	} cases[] = {
		{ AF_INET, IPPROTO_IP, IP_MULTICAST_LOOP, 1, false },
		{ AF_INET, IPPROTO_IP, IP_PKTINFO, 1, false },
		{ AF_INET, IPPROTO_IP, IP_RECVERR, 1, false },
		{ AF_INET, IPPROTO_IP, IP_MTU_DISCOVER, 1, false },
		{ AF_INET6, IPPROTO_IPV6, IPV6_V6ONLY, 1, false },
		{ AF_INET6, IPPROTO_IPV6, IPV6_TCLASS, 1, false },
		{ AF_INET6, IPPROTO_IPV6, IPV6_RECVPKTINFO, 1, false },
		{ AF_INET, SOL_SOCKET, SO_TIMESTAMP, 1, false },
		{ AF_INET, SOL_SOCKET, SO_MARK, 1, false },
		{ AF_INET, SOL_UDP, UDP_GRO, 1, false },
		{ AF_INET6, SOL_UDP, UDP_CORK, 1, false },
		{ AF_INET, IPPROTO_IP, IP_FREEBIND, 1, true },
		{ AF_INET, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, 1, true },
		{ AF_INET, SOL_SOCKET, SO_REUSEADDR, 1, true },
		{ AF_INET, SOL_SOCKET, SO_RCVBUF, 1 << 20, true },
		{ AF_INET6, IPPROTO_IPV6, IPV6_RECVERR + 1000, 1, true }, /* refused */
		{ AF_INET6, IPPROTO_IP, IP_TOS, 8, true },	/* mapped only */
	};
	for (auto &o : cases) {
		int fd = ost_socket(o.family, SOCK_DGRAM, 0);
		int r = set_int(fd, o.level, o.name, o.value);

		if (!o.keep) {
			EXPECT_EQ(r, 0) << o.level << "/" << o.name << ": " <<
			    strerror(errno);
		}
		EXPECT_EQ(record(fd) != nullptr, o.keep) << o.level << "/" <<
		    o.name;
		ost_close(fd);
	}
}

TEST_F(SockOpt, StatisticsAreAnsweredForSocketsWithAHandle)
{
	so_ost_stats_t st;
	socklen_t len = sizeof (st);

	/* No handle yet: the kernel does not know the option. */
	errno = 0;
	EXPECT_EQ(ost_getsockopt(fd_, SOL_SOCKET, SO_OSTREL_STATS, &st, &len),
	    -1);
	EXPECT_EQ(errno, ENOPROTOOPT);
	arm();
	uost_t *up = record(fd_);
	up->uost_stats.osts_opkts = 42;
	up->uost_stats.osts_ipkts = 7;
	ASSERT_EQ(sizeof (st), 40u);
	len = 48;
	ASSERT_EQ(ost_getsockopt(fd_, SOL_SOCKET, SO_OSTREL_STATS, &st, &len),
	    0);
	EXPECT_EQ(len, 40u);
	EXPECT_EQ(st.osts_opkts, 42u);
	EXPECT_EQ(st.osts_ipkts, 7u);
	len = 39;
	EXPECT_EQ(ost_getsockopt(fd_, SOL_SOCKET, SO_OSTREL_STATS, &st, &len),
	    -1);
	EXPECT_EQ(errno, ENOPROTOOPT);
	/* Everything else is the kernel's. */
	int type = 0;
	len = sizeof (type);
	EXPECT_EQ(ost_getsockopt(fd_, SOL_SOCKET, SO_TYPE, &type, &len), 0);
	EXPECT_EQ(type, SOCK_DGRAM);
}

} // namespace
