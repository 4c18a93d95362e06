/* Options that take the socket off the bypass, and the statistics option. */
#include <errno.h>
#include <netinet/udp.h>

#include "recv_frames.h"

namespace
{

TEST(SockOpt, OptionsTheBypassCannotHonourTakeTheSocketOff)
{
	const struct {
		int family, level, name, value;
		bool keep;
	} cases[] = {
		{ AF_INET, IPPROTO_IP, IP_MULTICAST_LOOP, 1, true },
		{ AF_INET, IPPROTO_IP, IP_PKTINFO, 1, true },
		{ AF_INET, IPPROTO_IP, IP_RECVTTL, 1, false },
		{ AF_INET6, IPPROTO_IPV6, IPV6_RECVPKTINFO, 1, true },
		{ AF_INET6, IPPROTO_IPV6, IPV6_RECVHOPLIMIT, 1, false },
		{ AF_INET, IPPROTO_IP, IP_MTU_DISCOVER, 1, false },
		{ AF_INET6, IPPROTO_IPV6, IPV6_V6ONLY, 1, false },
		{ AF_INET6, IPPROTO_IPV6, IPV6_TCLASS, 1, false },
		{ AF_INET, SOL_SOCKET, SO_TIMESTAMP, 1, true },
		{ AF_INET6, SOL_SOCKET, SO_TIMESTAMPNS_NEW, 1, true },
		{ AF_INET, SOL_SOCKET, SO_TIMESTAMPING, 1, false },
		{ AF_INET, SOL_UDP, UDP_GRO, 1, false },
		{ AF_INET6, SOL_UDP, UDP_CORK, 1, false },
		{ AF_INET, IPPROTO_IP, IP_FREEBIND, 1, true },
		{ AF_INET, SOL_SOCKET, SO_RCVBUF, 1 << 20, true },
		{ AF_INET6, IPPROTO_IPV6, IPV6_RECVERR + 1000, 1,
		    true },                                /* refused */
		{ AF_INET6, IPPROTO_IP, IP_TOS, 8, true }, /* mapped only */
	};
	ost_test_init();
	for (auto &o : cases) {
		int fd = ost_socket(o.family, SOCK_DGRAM, 0);
		int r = ost_setsockopt(fd, o.level, o.name, &o.value,
		    sizeof(o.value));

		EXPECT_TRUE(o.keep || r == 0) << o.level << "/" << o.name;
		EXPECT_EQ(record(fd) != nullptr, o.keep)
		    << o.level << "/" << o.name;
		ost_close(fd);
	}
}

/* How an application tells the library is there: ENOPROTOOPT without. */
TEST(SockOpt, StatisticsAreAnsweredForSocketsWithAHandle)
{
	BypassSock s;
	so_ost_stats_t st;
	socklen_t len = sizeof(st);

	frio_mem_reset();
	s.open(AF_INET);
	int plain = ost_socket(AF_INET, SOCK_DGRAM, 0);
	EXPECT_EQ(ost_getsockopt(plain, SOL_SOCKET, SO_OSTREL_STATS, &st, &len),
	    -1);
	EXPECT_EQ(errno, ENOPROTOOPT);
	ost_close(plain);

	s.inject("a");
	EXPECT_EQ(s.recv(), "a");
	len = sizeof(st) + 8;
	ASSERT_EQ(ost_getsockopt(s.fd, SOL_SOCKET, SO_OSTREL_STATS, &st, &len),
	    0);
	EXPECT_EQ(len, sizeof(st));
	EXPECT_EQ(st.osts_ipkts, 1u);
	/* A caller built against the first, shorter record gets it. */
	len = SO_OSTREL_STATS_V1_SIZE;
	EXPECT_EQ(ost_getsockopt(s.fd, SOL_SOCKET, SO_OSTREL_STATS, &st, &len),
	    0);
	EXPECT_EQ(len, (socklen_t)SO_OSTREL_STATS_V1_SIZE);
	len = SO_OSTREL_STATS_V1_SIZE - 1;
	EXPECT_EQ(ost_getsockopt(s.fd, SOL_SOCKET, SO_OSTREL_STATS, &st, &len),
	    -1);
	/* Everything else is the kernel's. */
	int type = 0;
	len = sizeof(type);
	EXPECT_EQ(ost_getsockopt(s.fd, SOL_SOCKET, SO_TYPE, &type, &len), 0);
	EXPECT_EQ(type, SOCK_DGRAM);
	s.close_sock();
	EXPECT_EQ(frio_mem_open_count(), 0);
}

} // namespace
