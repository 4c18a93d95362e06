/* Which sockets get records, and their non-blocking marks. */
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "support.h"

namespace
{

struct SocketCallsTest : ::testing::Test {
	void SetUp() override
	{
		ost_test_init();
		ost_cleanup();
	}
	void TearDown() override { ost_cleanup(); }
};

bool
nonblock_mark(int fd)
{
	uost_t *up = ost_find_sd(fd);
	if (up == nullptr)
		return false;
	pthread_mutex_lock(&up->uost_lock);
	bool mark = up->uost_nonblock;
	ost_release_locked(up);
	pthread_mutex_unlock(&up->uost_lock);
	return mark;
}

TEST_F(SocketCallsTest, OnlyUdpOverIpGetsARecord)
{
	const struct {
		int domain, type, protocol;
		bool record, nonblock;
	} cases[] = {
		{ AF_INET, SOCK_DGRAM, 0, true, false },
		{ AF_INET6, SOCK_DGRAM, IPPROTO_UDP, true, false },
		{ AF_INET6, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, true,
		    true },
		{ AF_INET, SOCK_STREAM, 0, false, false },
		{ AF_UNIX, SOCK_DGRAM, 0, false, false },
		{ AF_INET, SOCK_DGRAM, IPPROTO_ICMP, false, false },
		{ AF_INET, SOCK_RAW, IPPROTO_UDP, false, false },
	};
	for (auto &c : cases) {
		int fd = ost_socket(c.domain, c.type, c.protocol);
		if (fd < 0 &&
		    (errno == EPERM || errno == EACCES ||
			errno == EPROTONOSUPPORT))
			continue; /* ping and raw sockets need privileges */
		ASSERT_GE(fd, 0) << c.domain << "/" << c.type << ": " << errno;
		EXPECT_EQ(record(fd) != nullptr, c.record)
		    << c.domain << "/" << c.type;
		EXPECT_EQ(nonblock_mark(fd), c.nonblock);
		EXPECT_EQ(ost_close(fd), 0);
	}
	/* The kernel's refusal passes through. */
	EXPECT_EQ(ost_socket(AF_INET, SOCK_DGRAM, IPPROTO_TCP), -1);
	EXPECT_EQ(errno, EPROTONOSUPPORT);
	EXPECT_EQ(registry_size(), 0);
}

TEST_F(SocketCallsTest, NonblockingMarkFollowsFcntlAndIoctl)
{
	int fd = ost_socket(AF_INET, SOCK_DGRAM, 0);
	ASSERT_GE(fd, 0);
	/* F_GETFL, F_SETFD and FIONREAD are not changes. */
	const struct {
		bool ioctl;
		int cmd, arg;
		bool mark;
	} steps[] = {
		{ false, F_SETFL, O_RDWR | O_NONBLOCK, true },
		{ false, F_GETFL, 0, true },
		{ false, F_SETFD, 0, true },
		{ false, F_SETFL, O_RDWR, false },
		{ true, FIONBIO, 1, true },
		{ true, FIONREAD, 0, true },
		{ true, FIONBIO, 0, false },
	};
	for (auto st : steps) {
		if (st.ioctl)
			ost_note_fionbio(fd, st.cmd, &st.arg);
		else
			ost_note_fl_change(fd, st.cmd, st.arg);
		EXPECT_EQ(nonblock_mark(fd), st.mark)
		    << st.cmd << " " << st.arg;
	}

	/* Descriptors without a record are left alone. */
	ost_note_fl_change(0, F_SETFL, O_NONBLOCK);
	EXPECT_EQ(registry_size(), 1);
	ost_close(fd);
}

} // namespace
