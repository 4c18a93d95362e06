/* Receivers sharing a socket and teardowns under a waiting receive, on
 * the in-memory double; frames themselves are the fuzz target's. */
#include <errno.h>

#include <set>
#include <thread>

#include "recv_frames.h"

namespace
{

struct Recv : ::testing::TestWithParam<int> {
	BypassSock s;

	void SetUp() override { frio_mem_reset(), s.open(GetParam()); }

	void TearDown() override
	{
		if (s.up != nullptr) {
			EXPECT_EQ(refcnt_of(s.up), 1u);
			EXPECT_EQ(frio_mem_lent(s.hdl), 0);
		}
		s.close_sock();
		EXPECT_EQ(frio_mem_open_count(), 0);
		recv_mode = RCV_BUSY_WAIT;
		poll_usec = 0;
	}
};

TEST_P(Recv, ThreadsShareOneSocket)
{
	const int kThreads = 3, kDatagrams = 600;
	std::vector<std::vector<int>> got(kThreads);
	std::vector<std::thread> rx;
	for (int t = 0; t < kThreads; t++)
		rx.emplace_back([&, t] {
			for (std::string m; (m = s.recv()) != "stop";)
				got[t].push_back(atoi(m.c_str()));
		});
	for (int i = 0; i < kDatagrams + kThreads; i++)
		s.inject(i < kDatagrams ? std::to_string(i) : "stop");
	std::multiset<int> all; /* each datagram reached exactly one */
	for (int t = 0; t < kThreads; t++)
		rx[t].join(), all.insert(got[t].begin(), got[t].end());
	EXPECT_EQ(all.size(), (size_t)kDatagrams);
	EXPECT_EQ(std::set<int>(all.begin(), all.end()).size(), all.size());
}

/* close() ends a waiting receive with EBADF once the record is gone. */
TEST_P(Recv, CloseEndsAWaitingReceive)
{
	for (int mode : { RCV_BUSY_WAIT, RCV_POLL }) {
		if (s.up == nullptr)
			s.open(GetParam());
		recv_mode = mode;
		int before = registry_size();
		std::string got;
		std::thread r([&] { got = s.recv(); });
		while (refcnt_of(s.up) < 2)
			usleep(1000);
		usleep(10000);
		s.close_sock();
		EXPECT_EQ(registry_size(), before - 1);
		r.join();
		EXPECT_EQ(got, err_str(EBADF)) << mode;
	}
}

/*
 * A teardown that leaves the descriptor open (dup, a demoting option, the
 * process hand-off) must not end a waiting receive: it goes on waiting on
 * the kernel socket, with what is left of its time-out.
 */
TEST_P(Recv, TeardownHandsAWaitingReceiveToTheKernel)
{
	for (int timed = 0; timed < 2; timed++) {
		if (s.up == nullptr)
			s.open(GetParam());
		recv_mode = timed ? RCV_POLL : RCV_BUSY_WAIT;
		if (timed)
			s.up->uost_rcvtimeo = 300 * 1000000LL;
		std::string got;
		std::thread r([&] { got = s.recv(); });
		while (refcnt_of(s.up) < 2)
			usleep(1000);
		usleep(30000);
		ost_del(ost_find_sd(s.fd), true);
		s.up = nullptr;
		usleep(30000);
		int k = socket(s.family, SOCK_DGRAM, 0);
		if (!timed) {
			EXPECT_EQ(sendto(k, "kernel", 6, 0,
				      (struct sockaddr *)&s.local,
				      sizeof(s.local)),
			    6);
		}
		r.join();
		close(k);
		EXPECT_EQ(got, timed ? err_str(EAGAIN) : "kernel") << timed;
		close(s.fd);
		s.fd = -1;
	}
}

INSTANTIATE_TEST_SUITE_P(Families, Recv, ::testing::Values(AF_INET, AF_INET6),
    family_name);

} // namespace
