/* The statistics option: answered only beside a handle, in either size. */
#include <errno.h>

#include "recv_frames.h"

namespace
{

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
	s.close_sock();
	EXPECT_EQ(frio_mem_open_count(), 0);
}

} // namespace
