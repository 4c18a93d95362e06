/* poll over bypass sockets and ordinary descriptors. */
#include <errno.h>
#include <atomic>
#include <set>
#include <thread>

#include "recv_frames.h"

namespace
{

struct Ready : ::testing::TestWithParam<int> {
	BypassSock s, t;
	int pipefd[2] = { -1, -1 };

	void SetUp() override
	{
		frio_mem_reset(), s.open(GetParam()), t.open(GetParam());
		ASSERT_EQ(pipe(pipefd), 0);
	}

	void TearDown() override
	{
		for (BypassSock *b : { &s, &t }) {
			EXPECT_EQ(refcnt_of(b->up), 1u);
			EXPECT_EQ(frio_mem_lent(b->hdl), 0);
			b->close_sock();
		}
		close(pipefd[0]), close(pipefd[1]);
		poll_usec = 0, recv_mode = RCV_BUSY_WAIT;
	}

	int poll1(int fd, short events, int timeout, short *revents = nullptr)
	{
		struct pollfd p = { fd, events, 0 };
		int r = ost_poll(&p, 1, timeout);
		if (revents != nullptr)
			*revents = p.revents;
		return r;
	}
};

/* As the kernel: only the events asked for (POLLRDNORM not), descriptors
 * counted rather than events; the datagram stays for the receive.  A
 * connected socket's foreign frame is dropped, neither reported nor
 * received. */
TEST_P(Ready, BusyPollReportsOnlyWhatIsAskedAndKeepsTheDatagram)
{
	short rev;
	poll_usec = -1;
	s.inject("waiting");
	EXPECT_EQ(poll1(s.fd, POLLIN, -1, &rev), 1);
	EXPECT_EQ(rev, POLLIN);
	EXPECT_EQ(frio_mem_rx_pending(s.hdl), 0); /* in the stash */
	struct pollfd two[2] = { { s.fd, POLLIN | POLLOUT, 0 },
		{ t.fd, POLLIN | POLLOUT, 0 } };
	EXPECT_EQ(ost_poll(two, 2, 0), 2);
	EXPECT_EQ(two[0].revents, POLLIN | POLLOUT);
	EXPECT_EQ(s.recv(), "waiting");
	EXPECT_EQ(poll1(s.fd, POLLRDNORM, 0), 0);

	s.connect_peer();
	s.inject(s.frame("foreign", htons(7)));
	EXPECT_EQ(poll1(s.fd, POLLIN, 0), 0);
	EXPECT_EQ(frio_mem_rx_pending(s.hdl), 0);
	s.inject(s.frame("foreign", htons(7)));
	s.inject("mine");
	EXPECT_EQ(s.recv(), "mine");
}

/* With an ordinary descriptor the kernel sleeps; an arriving frame wakes it. */
TEST_P(Ready, KernelSleepSeesBothKinds)
{
	for (int usec : { -1, 0 }) {
		poll_usec = usec;
		struct pollfd set[2] = { { s.fd, POLLIN, 0 },
			{ pipefd[0], POLLIN, 0 } };
		char c;
		ASSERT_EQ(write(pipefd[1], "x", 1), 1);
		EXPECT_EQ(ost_poll(set, 2, -1), 1);
		EXPECT_EQ(set[1].revents, POLLIN);
		ASSERT_EQ(read(pipefd[0], &c, 1), 1);

		std::thread late([this] {
			usleep(20000);
			s.inject("late");
		});
		EXPECT_EQ(ost_poll(set, 2, 5000), 1);
		EXPECT_EQ(set[0].revents, POLLIN);
		late.join();
		EXPECT_EQ(s.recv(), "late");
	}
}

/* A poller and a receiver on one socket: every datagram arrives once. */
TEST_P(Ready, PollAndReceiveRace)
{
	const int kDatagrams = 400;
	poll_usec = 100;
	for (int mode : { RCV_BUSY_WAIT, RCV_POLL }) {
		std::set<int> by_poll, by_recv;
		std::atomic<int> total{ 0 }, alive{ 2 };
		auto take = [&](std::set<int> &into, const std::string &m) {
			return m != "stop" &&
			    (into.insert(atoi(m.c_str())), ++total, true);
		};
		recv_mode = mode;
		std::thread poller([&] {
			std::string m;
			while (poll1(s.fd, POLLIN, 5) <= 0 ||
			    (m = s.recv(MSG_DONTWAIT))[0] == '<' ||
			    take(by_poll, m))
				;
			alive--;
		});
		std::thread receiver([&] {
			while (take(by_recv, s.recv()))
				;
			alive--;
		});
		for (int i = 0; i < kDatagrams; i++)
			s.inject(std::to_string(i));
		for (int i = 0; i < 1000 && total < kDatagrams; i++)
			usleep(10000);
		EXPECT_EQ(total.load(), kDatagrams);
		for (int before = alive; alive > 0; before = alive) {
			s.inject("stop"); /* one for each thread */
			for (int j = 0; j < 100 && alive == before; j++)
				usleep(10000);
		}
		poller.join();
		receiver.join();
		by_poll.insert(by_recv.begin(), by_recv.end());
		EXPECT_EQ(by_poll.size(), (size_t)kDatagrams) << mode;
		while (s.recv(MSG_DONTWAIT) == "stop") /* left over */
			;
	}
}

INSTANTIATE_TEST_SUITE_P(Families, Ready, ::testing::Values(AF_INET, AF_INET6),
    family_name);

} // namespace
