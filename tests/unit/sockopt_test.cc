/* The statistics option, in the current size and the first, shorter one. */
#include "recv_frames.h"

namespace
{

TEST(SockOpt, StatisticsInEitherSize)
{
	BypassSock s;
	so_ost_stats_t st;
	socklen_t len = sizeof(st);

	frio_mem_reset();
	s.open(AF_INET);
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
