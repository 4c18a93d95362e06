/* The debug log's destinations and format, the fatal switch, address text. */
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "support.h"

extern FILE *ost_debug_fp;
extern int ost_debug_fd;

namespace {

std::string
log_path()
{
	return "/tmp/ost_debug." + std::to_string((long)getpid());
}

std::string
slurp(const std::string &path)
{
	std::ifstream in(path);
	std::stringstream ss;
	ss << in.rdbuf();
	return ss.str();
}

class DebugTest : public ::testing::Test {
protected:
	void SetUp() override
	{
		ost_test_init();
		saved_flag_ = ost_debug_flag;
		saved_fp_ = ost_debug_fp;
	}
	void TearDown() override
	{
		if (ost_debug_fp != saved_fp_ && ost_debug_fp != stderr)
			fclose(ost_debug_fp);
		ost_debug_flag = saved_flag_;
		ost_debug_fp = saved_fp_;
		unlink(log_path().c_str());
	}
	int saved_flag_;
	FILE *saved_fp_;
};

TEST_F(DebugTest, StandardErrorLineOnlyWhenOnAndErrnoKept)
{
	for (int flag : { 0, 1 }) {
		ost_debug_flag = flag;
		ost_debug_init(B_FALSE);
		std::string out = capture_stderr([](void *) {
			errno = ECONNREFUSED;
			ost_debug("%s: real %d not bound: %s\n", "bind", 7, "x");
			EXPECT_EQ(errno, ECONNREFUSED);
		}, nullptr);
		EXPECT_EQ(out, flag ? "ost: bind: real 7 not bound: x\n" : "");
	}
}

TEST_F(DebugTest, FileIsPerProcessPrivateAndTruncated)
{
	unlink(log_path().c_str());
	ost_debug_flag = 3;
	ost_debug_init(B_TRUE);
	ASSERT_NE(ost_debug_fp, stderr);
	struct stat st;
	ASSERT_EQ(stat(log_path().c_str(), &st), 0);
	EXPECT_EQ(st.st_mode & 0777, 0600u);
	EXPECT_TRUE(fcntl(ost_debug_fd, F_GETFD) & FD_CLOEXEC);
	ost_debug("%s: stale\n", "f");
	fclose(ost_debug_fp);

	/* A later process with the same id starts the file anew. */
	ost_debug_init(B_TRUE);
	ost_debug("%s: one\n", "f");
	ost_debug("%s: two\n", "g");
	EXPECT_EQ(slurp(log_path()), "ost: f: one\nost: g: two\n");
}

TEST_F(DebugTest, ErrExitReturnsWhenOffAndEndsTheProcessWhenOn)
{
	err_exit = B_FALSE;
	ost_err_exit("no reason");	/* returns */

	EXPECT_EXIT({
		err_exit = B_TRUE;
		ost_err_exit("interface not found");
	}, ::testing::ExitedWithCode(1),
	    "^ostrel.so: cannot set up data path bypass: interface not found\n$");
	err_exit = B_FALSE;
}

TEST(AddressText, IPv6AndMappedForms)
{
	for (const char *t : { "fe80::1:2", "::ffff:10.1.2.3",
	    "1111:2222:3333:4444:5555:6666:7777:8888" }) {
		struct in6_addr a;

		inet_pton(AF_INET6, t, &a);
		EXPECT_STREQ(ost_ntoa_v6(&a), t);
	}
}

} // namespace
