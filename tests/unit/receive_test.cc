/* Receivers and pollers sharing a socket, and close under a waiting
 * receive, on the in-memory double; frames themselves are the fuzz
 * target's, the hand-off of a waiting receive the differential test's. */
#include <errno.h>
#include <poll.h>

#include <atomic>
#include <set>
#include <thread>
#include <vector>

#include "core/wait_policy.h"
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
	int poll1(int fd)
	{
		struct pollfd p = { fd, POLLIN, 0 };
		return ost_poll(&p, 1, 5);
	}
};

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

/* Threads polling and receiving on one socket: every datagram reaches
 * exactly one of them. */
TEST_P(Recv, PollAndReceiveRace)
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
			while (poll1(s.fd) <= 0 ||
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

/* Receivers that find the receive slot taken sleep for it: none may miss
 * its wake-up (it would wait for ever), and every datagram reaches exactly
 * one of them. */
TEST_P(Recv, ReceiversQueueForTheSlot)
{
	const int kThreads = 4, kDatagrams = 2000;
	std::vector<std::set<int>> got(kThreads);
	std::vector<std::thread> ts;

	for (int t = 0; t < kThreads; t++)
		ts.emplace_back([&, t] {
			for (std::string m; (m = s.recv()) != "stop";)
				got[t].insert(atoi(m.c_str()));
		});
	for (int i = 0; i < kDatagrams; i++)
		s.inject(std::to_string(i));
	for (int t = 0; t < kThreads; t++)
		s.inject("stop");
	for (auto &t : ts)
		t.join();
	std::set<int> all;
	size_t n = 0;
	for (auto &g : got)
		n += g.size(), all.insert(g.begin(), g.end());
	EXPECT_EQ(n, (size_t)kDatagrams);
	EXPECT_EQ(all.size(), (size_t)kDatagrams);
}

/* A datagram the kernel socket gets (loopback) reaches a receive that
 * spins on the ring and poll, through the arrival count; the filter
 * options take the socket off the bypass first, so the kernel answers
 * them as for any socket. */
TEST_P(Recv, KernelSocketCountAndFilterOptions)
{
	const uint64_t *count = s.up->uost_kcount;
	ASSERT_NE(count, nullptr);
	uint64_t count0 = *count;
	int tx = socket(GetParam(), SOCK_DGRAM, 0), zero = 0;
	ASSERT_GE(tx, 0);
	spin_policy = OST_SPIN_ALWAYS;
	std::string got;
	std::thread r([&] { got = s.recv(); });
	usleep(2000); /* the receive spins meanwhile */
	ASSERT_EQ(sendto(tx, "k1", 2, 0, (struct sockaddr *)&s.local,
		      s.addr_len()),
	    2);
	r.join();
	spin_policy = OST_SPIN_ADAPTIVE;
	EXPECT_EQ(got, "k1");
	ASSERT_EQ(sendto(tx, "k2", 2, 0, (struct sockaddr *)&s.local,
		      s.addr_len()),
	    2);
	EXPECT_EQ(poll1(s.fd), 1);
	EXPECT_EQ(s.recv(), "k2");
	EXPECT_EQ(*count - count0, 2u);
	close(tx);

	int plain = socket(GetParam(), SOCK_DGRAM, 0);
	errno = 0;
	int want = setsockopt(plain, SOL_SOCKET, SO_DETACH_FILTER, &zero,
	    sizeof(zero));
	int want_errno = errno;
	close(plain);
	int before = registry_size();
	errno = 0;
	EXPECT_EQ(ost_setsockopt(s.fd, SOL_SOCKET, SO_DETACH_FILTER, &zero,
		      sizeof(zero)),
	    want);
	EXPECT_EQ(errno, want_errno);
	EXPECT_EQ(registry_size(), before - 1);
	s.up = nullptr; /* off the bypass: TearDown has no record to check */
}

/* A datagram the kernel socket queued before its count began is still
 * reported by the first busy pass of a poll. */
TEST_P(Recv, KernelDatagramQueuedBeforeTheCount)
{
	int fam = GetParam(), fd = ost_socket(fam, SOCK_DGRAM, 0);
	int tx = socket(fam, SOCK_DGRAM, 0);
	struct sockaddr_storage local;
	struct in6_addr laddr;

	ASSERT_EQ(bind_loopback(fd, fam, &local), 0);
	ASSERT_EQ(sendto(tx, "q", 1, 0, (struct sockaddr *)&local,
		      fam == AF_INET6 ? sizeof(struct sockaddr_in6) :
					sizeof(struct sockaddr_in)),
	    1);
	inet_pton(AF_INET6, fam == AF_INET ? "::ffff:127.0.0.1" : "::1",
	    &laddr);
	uost_t *up = record(fd);
	ASSERT_TRUE(attach_to_mem(up, "mem0", &laddr,
	    ((struct sockaddr_in *)&local)->sin_port, 0));
	ASSERT_NE(up->uost_kcount, nullptr);
	struct pollfd p = { fd, POLLIN, 0 };
	poll_usec = -1; /* one busy pass, not the kernel's poll */
	EXPECT_EQ(ost_poll(&p, 1, 0), 1);
	ost_close(fd);
	close(tx);
}

/* The statistics option, in the current size and the first, shorter one. */
TEST_P(Recv, StatisticsInEitherSize)
{
	so_ost_stats_t st;
	socklen_t len = sizeof(st) + 8;

	s.inject("a");
	EXPECT_EQ(s.recv(), "a");
	ASSERT_EQ(ost_getsockopt(s.fd, SOL_SOCKET, SO_OSTREL_STATS, &st, &len),
	    0);
	EXPECT_EQ(len, sizeof(st));
	EXPECT_EQ(st.osts_ipkts, 1u);
	for (socklen_t v1 :
	    { SO_OSTREL_STATS_V1_SIZE, SO_OSTREL_STATS_V1_SIZE - 1 }) {
		len = v1;
		EXPECT_EQ(ost_getsockopt(s.fd, SOL_SOCKET, SO_OSTREL_STATS, &st,
			      &len),
		    v1 == SO_OSTREL_STATS_V1_SIZE ? 0 : -1);
	}
}

INSTANTIATE_TEST_SUITE_P(Families, Recv, ::testing::Values(AF_INET, AF_INET6),
    family_name);

} // namespace
