/* Before fork and exec: preload variables edited, every record torn down. */
#include <arpa/inet.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include "frio_mem.h"
#include "support.h"

namespace
{

std::string
cleaned(const char *value)
{
	setenv("LD_PRELOAD", value, 1);
	ost_env_cleanup("LD_PRELOAD");
	const char *v = getenv("LD_PRELOAD");
	return v ? v : "<unset>";
}

TEST(EnvCleanup, BlanksTheLibraryWordKeepingTheLength)
{
	const std::string blank18(18, ' '), blank11(11, ' ');
	EXPECT_EQ(cleaned("/a/liba.so /opt/x/ostrel.so.1 /b/libb.so"),
	    "/a/liba.so " + blank18 + " /b/libb.so");
	/* Colons do not separate words: the whole word goes. */
	EXPECT_EQ(cleaned("/a.so:/ostrel.so.1"), blank18);
	EXPECT_EQ(cleaned("/a/liba.so /b/libb.so"), "/a/liba.so /b/libb.so");
	EXPECT_EQ(cleaned("ostrel.so.1 ostrel.so.1"), blank11 + " ostrel.so.1");
	unsetenv("LD_PRELOAD");
	ost_env_cleanup("LD_PRELOAD");
	EXPECT_EQ(getenv("LD_PRELOAD"), nullptr);
}

class CleanupTest : public ::testing::Test
{
      protected:
	void SetUp() override
	{
		ost_test_init();
		ost_cleanup();
	}
	void TearDown() override { ost_cleanup(); }
};

TEST_F(CleanupTest, EmptiesTheRegistryAndGivesSocketsBackToTheKernel)
{
	struct sockaddr_storage addr;
	int sd = bound_udp_socket(AF_INET, &addr);
	struct in6_addr loop;

	ASSERT_TRUE(ost_add(sd, AF_INET));
	inet_pton(AF_INET6, "::ffff:127.0.0.1", &loop);
	ASSERT_TRUE(attach_to_mem(record(sd), "mem0", &loop,
	    ((struct sockaddr_in *)&addr)->sin_port));
	so_ost_opt_t tie;
	ASSERT_TRUE(ost_kernel_bypass_get(sd, &tie)) << "not armed";
	for (int i = 0; i < 40; i++)
		ASSERT_TRUE(ost_add(kFakeFd + i, i % 2 ? AF_INET6 : AF_INET));

	ost_cleanup();
	EXPECT_EQ(registry_size(), 0);
	EXPECT_EQ(frio_mem_open_count(), 0);
	EXPECT_FALSE(ost_kernel_bypass_get(sd, &tie));
	EXPECT_TRUE(delivered(sd, addr)) << "the kernel path stayed silent";
	close(sd);
}

TEST_F(CleanupTest, WaitsForThreadsInsideTheLibrary)
{
	ASSERT_TRUE(ost_add(kFakeFd, AF_INET));
	uost_t *up = ost_find_sd(kFakeFd);
	std::atomic<bool> done{ false };
	std::atomic<bool> saw_closing{ false };

	std::thread holder([&] {
		pthread_mutex_lock(&up->uost_lock);
		while (!up->uost_closing) {
			pthread_mutex_unlock(&up->uost_lock);
			usleep(200);
			pthread_mutex_lock(&up->uost_lock);
		}
		saw_closing = true;
		usleep(20000);
		EXPECT_FALSE(done);
		ost_release_locked(up);
		pthread_mutex_unlock(&up->uost_lock);
	});
	ost_cleanup();
	done = true;
	holder.join();
	EXPECT_TRUE(saw_closing);
	EXPECT_EQ(registry_size(), 0);
}

TEST_F(CleanupTest, RacesWithClose)
{
	for (int round = 0; round < 300; round++) {
		int sd = real_socket(AF_INET, SOCK_DGRAM, 0);
		ASSERT_TRUE(ost_add(sd, AF_INET));
		std::thread closer([&] { EXPECT_EQ(ost_close(sd), 0); });
		ost_cleanup();
		closer.join();
		ASSERT_EQ(registry_size(), 0);
	}
}

} // namespace
