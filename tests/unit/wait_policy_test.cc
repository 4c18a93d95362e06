/* The adaptive spin budget: its rule, and the receive that teaches it. */
#include <algorithm>
#include <thread>

#include "core/wait_policy.h"
#include "recv_frames.h"

namespace
{

const hrtime_t kUs = 1000;

/* A datagram that lands soon after the spin gave up: the next spin covers
 * that gap, never past the cap; one the spin caught, or a wait too short
 * to count, leaves the budget alone. */
TEST(SpinRule, GrowsToCoverTheGapUpToTheCap)
{
	uint32_t b = ost_spin_next(0, 30 * kUs, true);

	EXPECT_GE(b, 30 * kUs);
	EXPECT_LE(b, OST_SPIN_CAP_NS);
	EXPECT_EQ(ost_spin_next(b, 10 * kUs, true), b);
	EXPECT_EQ(ost_spin_next(0, OST_SPIN_FLOOR_NS / 2, true), 0u);
	for (int i = 0; i < 40; i++)
		b = ost_spin_next(b,
		    std::min<hrtime_t>(b + 100 * kUs, OST_SPIN_CAP_NS), true);
	EXPECT_EQ(b, (uint32_t)OST_SPIN_CAP_NS);
	EXPECT_EQ(ost_spin_next(b, OST_SPIN_CAP_NS, true), b);
}

/* Time-outs, or datagrams far apart: a full budget is gone within a
 * handful of waits, so that an idle socket stops spinning. */
TEST(SpinRule, IdleWaitsEndTheSpin)
{
	for (bool got : { false, true }) {
		uint32_t b = OST_SPIN_CAP_NS;
		int waits = 0;

		while (b != 0 && waits < 100)
			b = ost_spin_next(b, got ? 10 * NANOSEC : kUs, got),
			waits++;
		EXPECT_LE(waits, 10) << got;
	}
}

struct SpinRecv : ::testing::TestWithParam<int> {
	BypassSock s;

	void SetUp() override { frio_mem_reset(), s.open(GetParam()); }
	void TearDown() override { s.close_sock(); }
};

/* Both ends of a receive teach the socket: a datagram that wakes it grows
 * the budget, time-outs take it back to nothing. */
TEST_P(SpinRecv, ReceivesTeachTheSocket)
{
	ASSERT_EQ(spin_policy, OST_SPIN_ADAPTIVE);
	/* Woken well within the cap; a loaded machine may take longer now
	 * and then, so a few rounds. */
	for (int round = 0; round < 50 && s.up->uost_spin_ns == 0; round++) {
		std::string got;
		std::thread r([&] { got = s.recv(); });
		while (refcnt_of(s.up) < 2)
			sched_yield();
		usleep(100);
		s.inject("ping");
		r.join();
		ASSERT_EQ(got, "ping");
	}
	EXPECT_GT(s.up->uost_spin_ns, 0u);

	s.up->uost_rcvtimeo = 2 * 1000000LL;
	for (int i = 0; i < 12; i++)
		ASSERT_EQ(s.recv(), err_str(EAGAIN));
	EXPECT_EQ(s.up->uost_spin_ns, 0u);
}

INSTANTIATE_TEST_SUITE_P(Families, SpinRecv,
    ::testing::Values(AF_INET, AF_INET6), family_name);

} // namespace
