/* The registry and its reference protocol. */
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <thread>
#include <vector>

#include "support.h"

namespace {

class RegistryTest : public ::testing::Test {
protected:
	void SetUp() override
	{
		ost_test_init();
		ost_cleanup();
		ASSERT_EQ(registry_size(), 0);
	}
	void TearDown() override { ost_cleanup(); }
};

void
remove_record(int sd)
{
	uost_t *up = ost_find_sd(sd);
	ASSERT_NE(up, nullptr);
	ost_del(up, false);
}

/* Numbers sharing a bucket, and a number reused before its old record's
 * teardown finished: each lookup finds the right, newest record. */
TEST_F(RegistryTest, LookupFindsTheNewestRecordOfItsNumber)
{
	const int fds[] = { 3 + 11 * 100000, 14 + 11 * 100000, 25 + 11 * 100000 };
	for (int fd : fds)
		ASSERT_TRUE(ost_add(fd, AF_INET));
	remove_record(fds[1]);
	EXPECT_EQ(ost_find_sd(fds[1]), nullptr);
	for (int fd : { fds[0], fds[2] }) {
		uost_t *up = ost_find_sd(fd);
		ASSERT_NE(up, nullptr);
		EXPECT_EQ(up->uost_sd, fd);
		ost_release(up);
	}

	uost_t *old_rec = ost_find_sd(fds[0]);
	ASSERT_TRUE(ost_add(fds[0], AF_INET6));
	uost_t *new_rec = record(fds[0]);
	EXPECT_NE(old_rec, new_rec);
	ost_del(old_rec, false);	/* the old close finishes */
	EXPECT_EQ(record(fds[0]), new_rec);
}

TEST_F(RegistryTest, TeardownWaitsForEveryHolder)
{
	ASSERT_TRUE(ost_add(kFakeFd, AF_INET));
	uost_t *holder = ost_find_sd(kFakeFd);
	std::atomic<bool> deleted{false};

	std::thread closer([&] {
		ost_del(ost_find_sd(kFakeFd), false);
		deleted = true;
	});
	pthread_mutex_lock(&holder->uost_lock);
	while (!holder->uost_closing) {
		pthread_mutex_unlock(&holder->uost_lock);
		usleep(100);
		pthread_mutex_lock(&holder->uost_lock);
	}
	pthread_mutex_unlock(&holder->uost_lock);
	usleep(20000);
	EXPECT_FALSE(deleted);
	ost_release(holder);
	closer.join();
	EXPECT_TRUE(deleted);
	EXPECT_EQ(registry_size(), 0);
}

/* Close and a demotion at once: one frees, neither waits forever. */
TEST_F(RegistryTest, RacingTeardownsFreeOnce)
{
	for (int round = 0; round < 500; round++) {
		ASSERT_TRUE(ost_add(kFakeFd, AF_INET));
		uost_t *a = ost_find_sd(kFakeFd);
		uost_t *b = ost_find_sd(kFakeFd);
		ASSERT_EQ(a, b);
		std::thread t1([&] { ost_del(a, true); });
		std::thread t2([&] { ost_del(b, false); });
		t1.join();
		t2.join();
		ASSERT_EQ(ost_find_sd(kFakeFd), nullptr);
	}
}

TEST_F(RegistryTest, ConcurrentUseAndClose)
{
	constexpr int kFds = 8, kRounds = 300;
	std::atomic<bool> stop{false};
	std::atomic<long> hits{0};
	std::vector<std::thread> users;

	for (int t = 0; t < 3; t++) {
		users.emplace_back([&, t] {
			while (!stop) {
				for (int i = 0; i < kFds; i++) {
					uost_t *up = ost_find_sd(kFakeFd + i);
					if (up == nullptr)
						continue;
					pthread_mutex_lock(&up->uost_lock);
					EXPECT_EQ(up->uost_sd, kFakeFd + i);
					up->uost_stats.osts_opkts++;
					ost_release_locked(up);
					pthread_mutex_unlock(&up->uost_lock);
					hits++;
				}
				if (t == 0)
					std::this_thread::yield();
			}
		});
	}
	for (int r = 0; r < kRounds; r++) {
		for (int i = 0; i < kFds; i++)
			ASSERT_TRUE(ost_add(kFakeFd + i, AF_INET));
		for (int i = 0; i < kFds; i++)
			remove_record(kFakeFd + i);
	}
	stop = true;
	for (auto &t : users)
		t.join();
	EXPECT_EQ(registry_size(), 0);
}

} // namespace
