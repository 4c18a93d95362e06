/* Configuration from the environment: defaults, clamps and odd values. */
#include <gtest/gtest.h>
#include <stdlib.h>

#include "support.h"

namespace {

const char *const kVars[] = {
	"_OSTREL_ERR_EXIT", "_OSTREL_SEND_BUSY_WAIT_CNT", "_OSTREL_SLEEP_TIME",
	"_OSTREL_POLL_USEC", "_OSTREL_RECV_MODE",
};

class ConfigTest : public ::testing::Test {
protected:
	void SetUp() override { ost_test_init(); clear(); }
	void TearDown() override { clear(); ost_config_read(); }
	static void clear() { for (auto v : kVars) unsetenv(v); }
};

TEST_F(ConfigTest, DefaultsWhenNothingIsSet)
{
	ost_config_read();
	EXPECT_EQ(err_exit, B_FALSE);
	EXPECT_EQ(send_busy_wait_cnt, 15u);
	EXPECT_EQ(recv_sleep_time, 500u);
	EXPECT_EQ(poll_usec, 0);
	EXPECT_EQ(recv_mode, RCV_BUSY_WAIT);
}

TEST_F(ConfigTest, CountsBelowOneAndTextBecomeOne)
{
	for (const char *v : { "0", "-5", "abc" }) {
		setenv("_OSTREL_SEND_BUSY_WAIT_CNT", v, 1);
		setenv("_OSTREL_SLEEP_TIME", v, 1);
		ost_config_read();
		EXPECT_EQ(send_busy_wait_cnt, 1u) << v;
		EXPECT_EQ(recv_sleep_time, 1u) << v;
	}
	setenv("_OSTREL_SEND_BUSY_WAIT_CNT", "40", 1);
	setenv("_OSTREL_SLEEP_TIME", "2000", 1);
	ost_config_read();
	EXPECT_EQ(send_busy_wait_cnt, 40u);
	EXPECT_EQ(recv_sleep_time, 2000u);
}

TEST_F(ConfigTest, PollAndRecvModeAreTakenAsTheyAre)
{
	setenv("_OSTREL_POLL_USEC", "-1", 1);
	setenv("_OSTREL_RECV_MODE", "7", 1);
	ost_config_read();
	EXPECT_EQ(poll_usec, -1);
	EXPECT_EQ(recv_mode, 7);
	setenv("_OSTREL_RECV_MODE", "0", 1);
	ost_config_read();
	EXPECT_EQ(recv_mode, RCV_POLL);
}

TEST_F(ConfigTest, ErrExitIsAnyNonZeroNumber)
{
	const struct { const char *value; boolean_t expect; } cases[] = {
		{ "5", B_TRUE }, { "1", B_TRUE }, { "0", B_FALSE },
		{ "abc", B_FALSE },
	};
	for (auto &c : cases) {
		setenv("_OSTREL_ERR_EXIT", c.value, 1);
		ost_config_read();
		EXPECT_EQ(err_exit, c.expect) << c.value;
	}
}

} // namespace
