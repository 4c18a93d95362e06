/* The registry, its reference protocol, and the teardown before fork and
 * exec (preload variable edited, every record gone). */
#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "support.h"

namespace
{

class RegistryTest : public ::testing::Test
{
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
 * teardown finished: each lookup finds the right, newest record.  Low
 * numbers are screened by the per-number counts, high ones only by the
 * buckets. */
TEST_F(RegistryTest, LookupFindsTheNewestRecordOfItsNumber)
{
	for (int base : { 3000 + 3, 3 + 11 * 100000 }) {
		const int fds[] = { base, base + 11, base + 22 };
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
		ost_del(old_rec, false); /* the old close finishes */
		EXPECT_EQ(record(fds[0]), new_rec);
		remove_record(fds[0]);
		EXPECT_EQ(ost_find_sd(fds[0]), nullptr) << base;
		remove_record(fds[2]);
	}
}

/* A slow set-up holds its record's lock: look-ups in its bucket, adding a
 * record and giving a reference back do not wait for it. */
TEST_F(RegistryTest, LookupNeverWaitsForARecordLock)
{
	const int a = kFakeFd, b = kFakeFd + OST_NBUCKETS;
	ASSERT_TRUE(ost_add(a, AF_INET));
	ASSERT_TRUE(ost_add(b, AF_INET));
	uost_t *busy = record(a);
	std::atomic<bool> done{ false };

	pthread_mutex_lock(&busy->uost_lock);
	std::thread user([&] {
		uost_t *x = ost_find_sd(a), *y = ost_find_sd(b);
		EXPECT_EQ(x, busy);
		ASSERT_NE(y, nullptr);
		EXPECT_TRUE(ost_add(b + OST_NBUCKETS, AF_INET));
		ost_release(x);
		ost_release(y);
		done = true;
	});
	for (int i = 0; i < 500 && !done; i++)
		usleep(10000);
	EXPECT_TRUE(done) << "a look-up waited for the record lock";
	pthread_mutex_unlock(&busy->uost_lock);
	user.join();
	EXPECT_EQ(refcnt_of(busy), 1u);
}

/* Close and the fork teardown each wait for a thread holding a reference. */
TEST_F(RegistryTest, TeardownWaitsForEveryHolder)
{
	for (bool whole : { false, true }) {
		ASSERT_TRUE(ost_add(kFakeFd, AF_INET));
		uost_t *holder = ost_find_sd(kFakeFd);
		std::atomic<bool> done{ false };

		std::thread closer([&] {
			whole ? ost_cleanup() :
				ost_del(ost_find_sd(kFakeFd), false);
			done = true;
		});
		for (bool c = false; !c; usleep(100)) {
			pthread_mutex_lock(&holder->uost_lock);
			c = holder->uost_closing;
			pthread_mutex_unlock(&holder->uost_lock);
		}
		usleep(20000);
		EXPECT_FALSE(done) << whole;
		ost_release(holder);
		closer.join();
		EXPECT_TRUE(done);
		EXPECT_EQ(registry_size(), 0);
	}
}

/* Users give references back with and without the record lock while
 * records come and go, closes race demotions and the fork teardown: no
 * teardown misses its wake-up, frees early or frees twice. */
TEST_F(RegistryTest, ConcurrentUseAndClose)
{
	constexpr int kFds = 8, kRounds = 300;
	std::atomic<bool> stop{ false };
	std::vector<std::thread> users;

	for (int t = 0; t < 3; t++) {
		users.emplace_back([&] {
			while (!stop) {
				for (int i = 0; i < kFds; i++) {
					uost_t *up = ost_find_sd(kFakeFd + i);
					if (up == nullptr)
						continue;
					/* A poll pass gives a busy record back
					 * without its lock. */
					if (pthread_mutex_trylock(
						&up->uost_lock)) {
						ost_release(up);
						continue;
					}
					up->uost_stats.osts_opkts++;
					ost_release_locked(up);
					pthread_mutex_unlock(&up->uost_lock);
				}
				std::this_thread::yield();
			}
		});
	}
	for (int r = 0; r < kRounds; r++) {
		for (int i = 0; i < kFds; i++)
			ASSERT_TRUE(ost_add(kFakeFd + i, AF_INET));
		/* A demotion races each close. */
		for (int i = 0; i < kFds; i++) {
			uost_t *a = ost_find_sd(kFakeFd + i),
			       *b = ost_find_sd(kFakeFd + i);
			std::thread t([&] { ost_del(a, true); });
			ost_del(b, false);
			t.join();
		}
	}
	stop = true;
	for (auto &t : users)
		t.join();
	EXPECT_EQ(registry_size(), 0);
	for (int round = 0; round < 300; round++) {
		int sd = real_socket(AF_INET, SOCK_DGRAM, 0);
		ASSERT_TRUE(ost_add(sd, AF_INET));
		std::thread closer([&] { EXPECT_EQ(ost_close(sd), 0); });
		ost_cleanup();
		closer.join();
		ASSERT_EQ(registry_size(), 0);
	}
}

/* fork() while other threads hold a record lock and add, find and remove
 * records: each child finds an empty registry that works, and exits. */
TEST_F(RegistryTest, ForkChildForgetsWhatOtherThreadsHeld)
{
	constexpr int kChildren = 40;
	std::atomic<bool> stop{ false };
	std::vector<std::thread> users;
	const int held = 3000 + 5;

	ASSERT_TRUE(ost_add(held, AF_INET));
	uost_t *busy = record(held);
	pthread_mutex_lock(&busy->uost_lock); /* a set-up under way */
	for (int t = 0; t < 2; t++) {
		users.emplace_back([&stop, t] {
			const int fd = 3000 + OST_NBUCKETS * (t + 1) + 5;
			while (!stop) {
				if (!ost_add(fd, AF_INET))
					break;
				uost_t *up = ost_find_sd(fd);
				if (up != nullptr)
					ost_release(up);
				remove_record(fd);
			}
		});
	}
	for (int i = 0; i < kChildren; i++) {
		pid_t pid = fork();
		if (pid == 0) {
			alarm(5); /* a hang is a failure */
			int bad = registry_size() != 0 ||
			    ost_find_sd(held) != nullptr;
			bad |= !ost_add(held, AF_INET) << 1;
			uost_t *up = ost_find_sd(held);
			bad |= (up == nullptr) << 2;
			if (up != nullptr)
				ost_del(up, false);
			bad |= (ost_find_sd(held) != nullptr) << 3;
			_exit(bad);
		}
		ASSERT_GT(pid, 0);
		int st = -1;
		waitpid(pid, &st, 0);
		ASSERT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0)
		    << "child " << i << ": " << st;
	}
	stop = true;
	for (auto &t : users)
		t.join();
	pthread_mutex_unlock(&busy->uost_lock);
	EXPECT_EQ(record(held), busy) << "the parent's record is untouched";
}

std::string
cleaned(const char *value)
{
	setenv("LD_PRELOAD", value, 1);
	ost_env_cleanup("LD_PRELOAD");
	const char *v = getenv("LD_PRELOAD");
	return v ? v : "<unset>";
}

/* ld.so splits the list at colons and spaces: only our entries go. */
TEST(EnvCleanup, TakesOutOnlyThisLibrary)
{
	const char *cases[][2] = {
		{ "/a/liba.so /opt/x/ostrel.so.1 /b/libb.so",
		    "/a/liba.so /b/libb.so" },
		{ "/a.so:/ostrel.so.1", "/a.so" },
		{ "ostrel.so.1:/a.so:b.so", "/a.so:b.so" },
		{ "/lib/ostrel.so.1:a.so ostrel.so.1 b.so", "a.so b.so" },
		{ "a.so::ostrel.so::b.so", "a.so:b.so" },
		{ "/usr/$LIB/ostrel.so.1", "<unset>" },
		{ " ostrel.so.1:ostrel.so.1 ", "<unset>" },
		/* Not ours: left exactly as it was. */
		{ "/x/libostrel.so.1:ostrel.sox:a.so  b.so",
		    "/x/libostrel.so.1:ostrel.sox:a.so  b.so" },
	};
	for (auto &c : cases)
		EXPECT_EQ(cleaned(c[0]), c[1]) << c[0];
	unsetenv("LD_PRELOAD");
	errno = EINTR;
	ost_env_cleanup("LD_PRELOAD");
	EXPECT_EQ(getenv("LD_PRELOAD"), nullptr);
	EXPECT_EQ(cleaned("a.so:ostrel.so.1"), "a.so");
	EXPECT_EQ(errno, EINTR);
}

} // namespace
