/* The adaptive spin budget's learning rule. */
#include <gtest/gtest.h>

#include "core/wait_policy.h"
#include "support.h"

namespace
{

const hrtime_t kUs = 1000, kCap = OST_SPIN_CAP_NS;

/* A datagram that lands soon after the spin gave up: the next spin covers
 * that gap, never past the cap; one the spin caught, or a wait too short
 * to count, leaves the budget alone; time-outs and datagrams far apart
 * take it back. */
TEST(SpinRule, Learns)
{
	const struct {
		uint32_t budget;
		hrtime_t waited;
		bool got;
		hrtime_t lo, hi;
	} cases[] = {
		{ 0, 30 * kUs, true, 30 * kUs, kCap },
		{ 100 * kUs, 10 * kUs, true, 100 * kUs, 100 * kUs },
		{ 0, OST_SPIN_FLOOR_NS / 2, true, 0, 0 },
		{ kCap / 2, kCap, true, kCap, kCap },
		{ kCap, kCap, true, kCap, kCap },
		{ kCap, kUs, false, 0, kCap - 1 },
		{ kCap, 10 * NANOSEC, true, 0, kCap - 1 },
	};
	for (const auto &c : cases) {
		hrtime_t b = ost_spin_next(c.budget, c.waited, c.got);
		EXPECT_TRUE(b >= c.lo && b <= c.hi)
		    << c.budget << " " << c.waited << " " << c.got << ": " << b;
	}
	/* An idle socket stops spinning within a handful of waits. */
	for (bool got : { false, true }) {
		uint32_t b = kCap;
		int waits = 0;
		for (; b != 0 && waits < 100; waits++)
			b = ost_spin_next(b, got ? 10 * NANOSEC : kUs, got);
		EXPECT_LE(waits, 10) << got;
	}
}

} // namespace
