/* Configuration from the environment: defaults, clamps and odd values. */
#include <gtest/gtest.h>
#include <stdlib.h>

#include "support.h"

namespace {

TEST(Config, DefaultsClampsAndOddValues)
{
	const char *const vars[] = { "_OSTREL_ERR_EXIT",
	    "_OSTREL_SEND_BUSY_WAIT_CNT", "_OSTREL_SLEEP_TIME",
	    "_OSTREL_POLL_USEC", "_OSTREL_RECV_MODE" };
	/* The five settings after the variables are set to the values;
	 * null leaves a variable unset. */
	const struct {
		const char *v[5];
		long want[5];
	} cases[] = {
		{ {}, { B_FALSE, 15, 500, 0, RCV_BUSY_WAIT } },
		{ { "5", "0", "0", "-1", "7" }, { B_TRUE, 1, 1, -1, 7 } },
		{ { "1", "-5", "-5", nullptr, "0" }, { B_TRUE, 1, 1, 0, RCV_POLL } },
		{ { "0", "abc", "abc" }, { B_FALSE, 1, 1, 0, RCV_BUSY_WAIT } },
		{ { "abc", "40", "2000" }, { B_FALSE, 40, 2000, 0, RCV_BUSY_WAIT } },
	};

	ost_test_init();
	for (const auto &c : cases) {
		for (int i = 0; i < 5; i++) {
			if (c.v[i] != nullptr)
				setenv(vars[i], c.v[i], 1);
			else
				unsetenv(vars[i]);
		}
		ost_config_read();
		long got[5] = { err_exit, (long)send_busy_wait_cnt,
		    (long)recv_sleep_time, poll_usec, recv_mode };
		for (int i = 0; i < 5; i++)
			EXPECT_EQ(got[i], c.want[i]) << vars[i] << " case " <<
			    (&c - cases);
	}
	for (const char *v : vars)
		unsetenv(v);
	ost_config_read();
}

} // namespace
