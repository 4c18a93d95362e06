/*
 * Bypass mode on the kernel socket: what it accepts, that it silences the
 * kernel path and gives it back, and that it never touches what is not ours.
 */
#include <errno.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <unistd.h>

#include "support.h"

namespace {

const so_ost_opt_t kOn = { true, 42, 3 };
const so_ost_opt_t kOff = { false, 0, 0 };

TEST(BypassOption, SilencesAndRestoresTheKernelPath)
{
	ost_test_init();
	for (int family : { AF_INET, AF_INET6 }) {
		struct sockaddr_storage addr;
		int sd = bound_udp_socket(family, &addr);
		ASSERT_GE(sd, 0);

		ASSERT_EQ(ost_kernel_bypass_set(sd, &kOn), 0);
		EXPECT_FALSE(delivered(sd, addr));
		ASSERT_EQ(ost_kernel_bypass_set(sd, &kOff), 0);
		EXPECT_TRUE(delivered(sd, addr));
		/* Off twice, or off on a socket never armed: accepted. */
		EXPECT_EQ(ost_kernel_bypass_set(sd, &kOff), 0);
		close(sd);
	}
}

/* Unbound, not UDP, not a socket, not open: refused, nothing armed. */
TEST(BypassOption, RefusesWhatAKernelWouldRefuse)
{
	ost_test_init();
	int unbound = real_socket(AF_INET, SOCK_DGRAM, 0);
	int tcp = real_socket(AF_INET, SOCK_STREAM, 0);
	int pipefd[2];
	ASSERT_EQ(pipe(pipefd), 0);

	for (int fd : { unbound, tcp, pipefd[0], kFakeFd })
		EXPECT_EQ(ost_kernel_bypass_set(fd, &kOn), -1) << fd;
	so_ost_opt_t got;
	EXPECT_FALSE(ost_kernel_bypass_get(unbound, &got));
	for (int fd : { unbound, tcp, pipefd[0], pipefd[1] })
		close(fd);
}

/* The application's own filter, and a reused descriptor, are not ours. */
TEST(BypassOption, LeavesOtherFiltersAndReusedDescriptorsAlone)
{
	ost_test_init();
	struct sockaddr_storage addr;
	int sd = bound_udp_socket(AF_INET, &addr);
	struct sock_filter drop[] = { BPF_STMT(BPF_RET | BPF_K, 0) };
	struct sock_fprog prog = { 1, drop };
	ASSERT_EQ(real_setsockopt(sd, SOL_SOCKET, SO_ATTACH_FILTER, &prog,
	    sizeof (prog)), 0);
	EXPECT_EQ(ost_kernel_bypass_set(sd, &kOff), 0);
	EXPECT_FALSE(delivered(sd, addr));	/* still the app's filter */
	close(sd);

	sd = bound_udp_socket(AF_INET, &addr);
	ASSERT_EQ(ost_kernel_bypass_set(sd, &kOn), 0);
	/* Another socket takes the same number behind our back. */
	struct sockaddr_storage addr2;
	int other = bound_udp_socket(AF_INET, &addr2);
	ASSERT_EQ(real_setsockopt(other, SOL_SOCKET, SO_ATTACH_FILTER, &prog,
	    sizeof (prog)), 0);
	ASSERT_EQ(dup2(other, sd), sd);
	close(other);
	EXPECT_EQ(ost_kernel_bypass_set(sd, &kOff), 0);
	EXPECT_FALSE(delivered(sd, addr2));	/* its filter stayed */
	close(sd);
}

} // namespace
