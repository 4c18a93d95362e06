/*
 * bind, connect and the destination set-up against a real kernel, with the
 * in-memory frame double standing in for the interfaces.  Runs only inside
 * the namespaces that tests/integration/setup.sh builds; it learns their
 * names and addresses from OST_SU_* variables and skips without them.
 */
#include <arpa/inet.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/ether.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "frio_mem.h"
#include "support.h"

namespace {

struct sockaddr_storage
addr(const char *text, int port, uint32_t scope = 0)
{
	struct sockaddr_storage ss = {};

	if (strchr(text, ':') != nullptr) {
		auto *sin6 = (struct sockaddr_in6 *)&ss;
		sin6->sin6_family = AF_INET6;
		sin6->sin6_port = htons((uint16_t)port);
		sin6->sin6_scope_id = scope;
		EXPECT_EQ(inet_pton(AF_INET6, text, &sin6->sin6_addr), 1) << text;
	} else {
		auto *sin = (struct sockaddr_in *)&ss;
		sin->sin_family = AF_INET;
		sin->sin_port = htons((uint16_t)port);
		EXPECT_EQ(inet_pton(AF_INET, text, &sin->sin_addr), 1) << text;
	}
	return ss;
}

/* An address in the one text form inet_ntop gives. */
std::string
canon(const char *text)
{
	uint8_t a[16];
	char out[INET6_ADDRSTRLEN];
	int family = strchr(text, ':') != nullptr ? AF_INET6 : AF_INET;

	if (inet_pton(family, text, a) != 1)
		return text;
	return inet_ntop(family, a, out, sizeof (out));
}

socklen_t
len_of(const struct sockaddr_storage &ss)
{
	return ss.ss_family == AF_INET6 ? sizeof (struct sockaddr_in6) :
	    sizeof (struct sockaddr_in);
}

std::string
mac_text(const uint8_t *m)
{
	return ether_ntoa((const struct ether_addr *)m);
}

std::string
normal_mac(const char *text)
{
	struct ether_addr *e = ether_aton(text);
	return e != nullptr ? ether_ntoa(e) : "?";
}

class SetupNs : public ::testing::Test {
protected:
	std::vector<int> fds_;

	void SetUp() override
	{
		if (getenv("OST_SU_IF") == nullptr)
			GTEST_SKIP() << "runs inside tests/integration/setup.sh";
		ost_test_init();
		setenv("FRIO_BACKEND", "mem", 1);
		frio_mem_reset();
		for (const char *v : { "OST_SU_IF", "OST_SU_IF2" }) {
			struct ether_addr *mac = ether_aton(
			    env(v == std::string("OST_SU_IF") ? "OST_SU_MAC" :
			    "OST_SU_MAC2"));
			ASSERT_NE(mac, nullptr);
			ASSERT_EQ(frio_mem_add_interface(env(v),
			    (int)if_nametoindex(env(v)), mac), 0);
		}
	}

	void TearDown() override
	{
		for (int fd : fds_)
			ost_close(fd);
		if (!IsSkipped()) {
			EXPECT_EQ(frio_mem_open_count(), 0);
		}
		frio_mem_reset();
	}

	int sock(int family)
	{
		int fd = ost_socket(family, SOCK_DGRAM, 0);
		EXPECT_GE(fd, 0);
		fds_.push_back(fd);
		return fd;
	}

	/* The one frame the socket's handle transmitted. */
	static std::vector<uint8_t> frame(int fd)
	{
		std::vector<uint8_t> f(2048);
		uost_t *up = record(fd);
		EXPECT_NE(up, nullptr);
		if (up == nullptr || !up->uost_frio_set)
			return {};
		EXPECT_EQ(frio_mem_tx_pending(up->uost_frio_hdl), 1);
		ssize_t n = frio_mem_tx_pop(up->uost_frio_hdl, f.data(),
		    f.size());
		f.resize(n < 0 ? 0 : (size_t)n);
		return f;
	}

	static in_port_t local_port(int fd)
	{
		struct sockaddr_storage ss;
		socklen_t len = sizeof (ss);
		EXPECT_EQ(getsockname(fd, (struct sockaddr *)&ss, &len), 0);
		return ((struct sockaddr_in *)&ss)->sin_port;
	}

	static void set_hops(int fd, uint32_t hops)
	{
		uost_t *up = ost_find_sd(fd);
		pthread_mutex_lock(&up->uost_lock);
		up->uost_uc_hops = hops;
		ost_release_locked(up);
		pthread_mutex_unlock(&up->uost_lock);
	}
};

TEST_F(SetupNs, BindToAnOwnAddressArmsAHandleOnItsInterface)
{
	for (const char *self : { env("OST_SU_SELF4"), env("OST_SU_SELF6") }) {
		struct sockaddr_storage ss = addr(self, 0);
		int fd = sock(ss.ss_family);

		ASSERT_EQ(ost_bind_call(fd, (struct sockaddr *)&ss,
		    len_of(ss)), 0);
		uost_t *up = record(fd);
		ASSERT_NE(up, nullptr) << self;
		EXPECT_TRUE(up->uost_frio_set && up->uost_filter_set &&
		    up->uost_kernel_set) << self;
		EXPECT_EQ(up->uost_if_index, if_nametoindex(env("OST_SU_IF")));

		frio_filter_args_t f[4];
		ASSERT_EQ(frio_mem_filters(up->uost_frio_hdl, f, 4), 1);
		EXPECT_EQ(mac_text(f[0].uf_macaddr),
		    normal_mac(env("OST_SU_MAC")));
		EXPECT_EQ(memcmp(&f[0].uf_dst_ip, &up->uost_laddr_v6, 16), 0);
		EXPECT_EQ(f[0].uf_dst_port, local_port(fd));
		so_ost_opt_t opt;
		ASSERT_TRUE(ost_kernel_bypass_get(fd, &opt));
		EXPECT_EQ((uint32_t)opt.ost_if_id, up->uost_if_index);
	}
}

TEST_F(SetupNs, BindsTheBypassCannotServeLeaveItAndStillSucceed)
{
	for (const char *a : { "127.0.0.1", "255.255.255.255", "::1",
	    env("OST_SU_DOWN4") }) {
		struct sockaddr_storage ss = addr(a, 0);
		int fd = sock(ss.ss_family);
		if (ss.ss_family == AF_INET &&
		    strcmp(a, "255.255.255.255") == 0) {
			int on = 1;
			setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &on,
			    sizeof (on));
		}
		EXPECT_EQ(ost_bind_call(fd, (struct sockaddr *)&ss,
		    len_of(ss)), 0) << a << ": " << strerror(errno);
		EXPECT_EQ(record(fd), nullptr) << a;
	}
	/* The wildcard and a group keep the record, without a handle. */
	for (const char *a : { "0.0.0.0", "::", "239.1.2.3" }) {
		struct sockaddr_storage ss = addr(a, 0);
		int fd = sock(ss.ss_family);
		ASSERT_EQ(ost_bind_call(fd, (struct sockaddr *)&ss,
		    len_of(ss)), 0) << a;
		uost_t *up = record(fd);
		ASSERT_NE(up, nullptr) << a;
		EXPECT_TRUE(up->uost_bound && !up->uost_frio_set) << a;
	}
	/* A failing kernel bind (a second one) is the caller's error, and
	 * the record stays as it was. */
	struct sockaddr_storage any = addr("0.0.0.0", 0);
	int fd = sock(AF_INET);
	ASSERT_EQ(ost_bind_call(fd, (struct sockaddr *)&any, len_of(any)), 0);
	errno = 0;
	EXPECT_EQ(ost_bind_call(fd, (struct sockaddr *)&any, len_of(any)), -1);
	EXPECT_EQ(errno, EINVAL);
	EXPECT_NE(record(fd), nullptr);
}

/* On-link and routed destinations, both families, on unbound sockets. */
TEST_F(SetupNs, FirstSendtoFillsTheTemplateFromTheKernelsTables)
{
	/* The peer is also the router: its MAC is every next hop's. */
	struct {
		const char *dst, *src;
	} cases[] = {
		{ env("OST_SU_PEER4"), env("OST_SU_SELF4") },
		{ env("OST_SU_REMOTE4"), env("OST_SU_SELF4") },
		{ env("OST_SU_PEER6"), env("OST_SU_SELF6") },
		{ env("OST_SU_REMOTE6"), env("OST_SU_SELF6") },
	};
	for (auto &c : cases) {
		struct sockaddr_storage to = addr(c.dst, 7001);
		bool v6 = to.ss_family == AF_INET6;
		int fd = sock(to.ss_family);

		set_hops(fd, 5);
		ASSERT_EQ(ost_sendto(fd, "hello", 5, 0,
		    (struct sockaddr *)&to, len_of(to)), 5) << c.dst;
		std::vector<uint8_t> f = frame(fd);
		ASSERT_EQ(f.size(), (v6 ? 62u : 42u) + 5) << c.dst;
		EXPECT_EQ(mac_text(&f[0]), normal_mac(env("OST_SU_PEER_MAC")))
		    << c.dst;
		EXPECT_EQ(mac_text(&f[6]), normal_mac(env("OST_SU_MAC")));
		char src[INET6_ADDRSTRLEN], dst[INET6_ADDRSTRLEN];
		inet_ntop(to.ss_family, &f[v6 ? 22 : 26], src, sizeof (src));
		inet_ntop(to.ss_family, &f[v6 ? 38 : 30], dst, sizeof (dst));
		EXPECT_EQ(canon(src), canon(c.src));
		EXPECT_EQ(canon(dst), canon(c.dst));
		EXPECT_EQ(f[v6 ? 21 : 22], 5) << "TTL / hop limit";
		/* The implicit bind's port is the frame's source port. */
		in_port_t sport;
		memcpy(&sport, &f[v6 ? 54 : 34], 2);
		EXPECT_EQ(sport, local_port(fd));
	}
}

TEST_F(SetupNs, ScopedLinkLocalDestinationBindsToItsInterface)
{
	unsigned scope = if_nametoindex(env("OST_SU_IF"));
	struct sockaddr_storage to = addr(env("OST_SU_PEER_LL"), 7001, scope);
	int fd = sock(AF_INET6);

	ASSERT_EQ(ost_sendto(fd, "x", 1, 0, (struct sockaddr *)&to,
	    len_of(to)), 1);
	std::vector<uint8_t> f = frame(fd);
	ASSERT_EQ(f.size(), 63u);
	EXPECT_EQ(mac_text(&f[0]), normal_mac(env("OST_SU_PEER_MAC")));
	struct sockaddr_in6 local;
	socklen_t len = sizeof (local);
	ASSERT_EQ(getsockname(fd, (struct sockaddr *)&local, &len), 0);
	EXPECT_TRUE(IN6_IS_ADDR_LINKLOCAL(&local.sin6_addr));
	EXPECT_EQ(local.sin6_scope_id, scope);
	EXPECT_EQ(memcmp(&f[22], &local.sin6_addr, 16), 0);
}

TEST_F(SetupNs, DestinationsTheBypassRefusesGoToTheKernel)
{
	for (const char *a : { "127.0.0.1", "0.0.0.0", "::1", "::",
	    "::ffff:10.0.0.1" }) {
		struct sockaddr_storage to = addr(a, 7002);
		int fd = sock(to.ss_family);
		(void) ost_sendto(fd, "k", 1, 0, (struct sockaddr *)&to,
		    len_of(to));
		uost_t *up = record(fd);
		ASSERT_NE(up, nullptr);
		EXPECT_FALSE(up->uost_peer_set) << a;
		EXPECT_FALSE(up->uost_frio_set) << a;
	}
	/* A handle on one interface never sends through another. */
	struct sockaddr_storage self = addr(env("OST_SU_SELF4"), 0);
	struct sockaddr_storage other = addr(env("OST_SU_OTHER4"), 7003);
	int fd = sock(AF_INET);
	ASSERT_EQ(ost_bind_call(fd, (struct sockaddr *)&self,
	    len_of(self)), 0);
	EXPECT_EQ(ost_sendto(fd, "k", 1, 0, (struct sockaddr *)&other,
	    len_of(other)), 1);
	uost_t *up = record(fd);
	ASSERT_NE(up, nullptr);
	EXPECT_FALSE(up->uost_peer_set);
	EXPECT_EQ(frio_mem_tx_pending(up->uost_frio_hdl), 0);
}

TEST_F(SetupNs, ConnectFixesThePeerOrLeavesTheBypass)
{
	struct sockaddr_storage peer = addr(env("OST_SU_PEER4"), 7004);
	int fd = sock(AF_INET);

	ASSERT_EQ(ost_connect_call(fd, (struct sockaddr *)&peer,
	    len_of(peer)), 0);
	uost_t *up = record(fd);
	ASSERT_NE(up, nullptr);
	EXPECT_TRUE(up->uost_connected && up->uost_peer_set);
	EXPECT_EQ(ost_send_call(fd, "abc", 3, 0), 3);
	EXPECT_EQ(frame(fd).size(), 45u);

	/* Dissolving the association hands the socket to the kernel. */
	struct sockaddr unspec = {};
	unspec.sa_family = AF_UNSPEC;
	EXPECT_EQ(ost_connect_call(fd, &unspec, sizeof (unspec)), 0);
	EXPECT_EQ(record(fd), nullptr);

	struct sockaddr_storage lo = addr("127.0.0.1", 7005);
	int fd2 = sock(AF_INET);
	EXPECT_EQ(ost_connect_call(fd2, (struct sockaddr *)&lo, len_of(lo)), 0);
	EXPECT_EQ(record(fd2), nullptr);

	/* A connect the kernel refuses leaves the record as it was. */
	int fd3 = sock(AF_INET);
	errno = 0;
	EXPECT_EQ(ost_connect_call(fd3, (struct sockaddr *)&lo, 4), -1);
	EXPECT_EQ(errno, EINVAL);
	EXPECT_NE(record(fd3), nullptr);
}

} // namespace
