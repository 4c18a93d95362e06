/* bind, connect and the first sendto against the kernel's tables inside the
 * namespaces that tests/integration/setup.sh builds (OST_SU_* variables),
 * with the in-memory frame double for the interface; skips outside. */
#include <arpa/inet.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/ether.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "frio_mem.h"
#include "support.h"

namespace {

struct sockaddr_storage
addr(const char *text, int port, uint32_t scope = 0)
{
	struct sockaddr_storage ss = {};
	auto *sin = (struct sockaddr_in *)&ss;
	auto *sin6 = (struct sockaddr_in6 *)&ss;
	bool v6 = strchr(text, ':') != nullptr;

	ss.ss_family = v6 ? AF_INET6 : AF_INET;
	sin->sin_port = htons((uint16_t)port);	/* same place in both */
	sin6->sin6_scope_id = v6 ? scope : 0;
	EXPECT_EQ(1, inet_pton(ss.ss_family, text, v6 ? (void *)&sin6->sin6_addr
	    : (void *)&sin->sin_addr)) << text;
	return ss;
}

socklen_t
len_of(const struct sockaddr_storage &ss)
{
	return ss.ss_family == AF_INET6 ? sizeof (struct sockaddr_in6) :
	    sizeof (struct sockaddr_in);
}

std::string
ip_text(int family, const void *a)
{
	char out[INET6_ADDRSTRLEN];
	return inet_ntop(family, a, out, sizeof (out));
}

std::string
mac_of(const char *var)
{
	struct ether_addr *e = ether_aton(env(var));
	return e != nullptr ? mac_str(e) : "?";
}

class SetupNs : public ::testing::Test {
protected:
	std::vector<int> fds_;

	void SetUp() override
	{
		if (*env("OST_SU_IF") == '\0')
			GTEST_SKIP() << "runs inside tests/integration/setup.sh";
		ost_test_init();
		setenv("FRIO_BACKEND", "mem", 1);
		frio_mem_reset();
		ASSERT_EQ(0, frio_mem_add_interface(env("OST_SU_IF"),
		    (int)if_nametoindex(env("OST_SU_IF")),
		    ether_aton(env("OST_SU_MAC"))));
	}
	void TearDown() override
	{
		for (int fd : fds_)
			ost_close(fd);
		if (!IsSkipped()) {
			EXPECT_EQ(0, frio_mem_open_count());
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
	int bind_to(const char *a)
	{
		struct sockaddr_storage ss = addr(a, 0);
		int fd = sock(ss.ss_family), on = 1;

		setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof (on));
		EXPECT_EQ(0, ost_bind_call(fd, (struct sockaddr *)&ss,
		    len_of(ss))) << a << ": " << strerror(errno);
		return fd;
	}
	/* The one frame the socket's handle transmitted. */
	static std::vector<uint8_t> frame(int fd)
	{
		std::vector<uint8_t> f(2048);
		uost_t *up = record(fd);

		if (up == nullptr || !up->uost_frio_set)
			return {};
		EXPECT_EQ(1, frio_mem_tx_pending(up->uost_frio_hdl));
		ssize_t n = frio_mem_tx_pop(up->uost_frio_hdl, f.data(),
		    f.size());
		f.resize(n < 0 ? 0 : (size_t)n);
		return f;
	}
};

TEST_F(SetupNs, BindDecidesWhetherAHandleIsArmed)
{
	for (const char *self : { env("OST_SU_SELF4"), env("OST_SU_SELF6") }) {
		int fd = bind_to(self);
		uost_t *up = record(fd);
		frio_filter_args_t f[4];
		struct sockaddr_in6 local;
		socklen_t len = sizeof (local);

		ASSERT_NE(nullptr, up) << self;
		EXPECT_TRUE(up->uost_frio_set && up->uost_kernel_set) << self;
		/* The filter: the interface's MAC, the address, the port
		 * the kernel chose. */
		ASSERT_EQ(1, frio_mem_filters(up->uost_frio_hdl, f, 4));
		EXPECT_EQ(mac_of("OST_SU_MAC"), mac_str(f[0].uf_macaddr));
		EXPECT_EQ(0, memcmp(&f[0].uf_dst_ip, &up->uost_laddr_v6, 16));
		ASSERT_EQ(0, getsockname(fd, (struct sockaddr *)&local, &len));
		EXPECT_EQ(local.sin6_port, f[0].uf_dst_port);
	}
	/* Loopback, broadcast, an interface that is down: the kernel's. */
	for (const char *a : { "127.0.0.1", "255.255.255.255", "::1",
	    env("OST_SU_DOWN4") })
		EXPECT_EQ(nullptr, record(bind_to(a))) << a;
	/* The wildcard and a group keep the record, without a handle. */
	for (const char *a : { "0.0.0.0", "::", "239.1.2.3" }) {
		uost_t *up = record(bind_to(a));

		ASSERT_NE(nullptr, up) << a;
		EXPECT_TRUE(up->uost_bound && !up->uost_frio_set) << a;
	}
}

TEST_F(SetupNs, FirstSendtoFillsTheTemplateFromTheKernelsTables)
{
	unsigned scope = if_nametoindex(env("OST_SU_IF"));
	/* The peer is also the router: its MAC is every next hop's. */
	const struct {
		const char *dst, *src;
		uint32_t scope;
	} cases[] = {
		{ "OST_SU_PEER4", "OST_SU_SELF4", 0 },
		{ "OST_SU_REMOTE4", "OST_SU_SELF4", 0 },
		{ "OST_SU_PEER6", "OST_SU_SELF6", 0 },
		{ "OST_SU_REMOTE6", "OST_SU_SELF6", 0 },
		{ "OST_SU_PEER_LL", nullptr, scope },
	};

	for (const auto &c : cases) {
		struct sockaddr_storage to = addr(env(c.dst), 7001, c.scope);
		struct sockaddr_in6 local;
		socklen_t len = sizeof (local);
		int family = to.ss_family, fd = sock(family);
		bool v6 = family == AF_INET6;
		int hops = 5;	/* remembered until there is a template */

		ASSERT_EQ(0, ost_setsockopt(fd, v6 ? IPPROTO_IPV6 : IPPROTO_IP,
		    v6 ? IPV6_UNICAST_HOPS : IP_TTL, &hops, sizeof (hops)));
		ASSERT_EQ(5, ost_sendto(fd, "hello", 5, 0,
		    (struct sockaddr *)&to, len_of(to))) << c.dst;
		std::vector<uint8_t> f = frame(fd);
		ASSERT_EQ((v6 ? 62u : 42u) + 5, f.size()) << c.dst;
		ASSERT_EQ(0, getsockname(fd, (struct sockaddr *)&local, &len));
		EXPECT_EQ(mac_of("OST_SU_PEER_MAC"), mac_str(&f[0])) << c.dst;
		EXPECT_EQ(mac_of("OST_SU_MAC"), mac_str(&f[6])) << c.dst;
		EXPECT_EQ(5, f[v6 ? 21 : 22]) << c.dst << ": TTL / hop limit";
		EXPECT_EQ(ip_text(family, &f[v6 ? 38 : 30]),
		    ip_text(family, v6 ? (void *)&((struct sockaddr_in6 *)&to)->
		    sin6_addr : (void *)&((struct sockaddr_in *)&to)->sin_addr))
		    << c.dst;
		/* Source address and port are the implicit bind's. */
		EXPECT_EQ(0, memcmp(&f[v6 ? 54 : 34], &local.sin6_port, 2))
		    << c.dst;
		if (c.src != nullptr) {
			EXPECT_EQ(env(c.src), ip_text(family, &f[v6 ? 22 : 26]))
			    << c.dst;
			continue;
		}
		EXPECT_TRUE(IN6_IS_ADDR_LINKLOCAL(&local.sin6_addr));
		EXPECT_EQ(scope, local.sin6_scope_id);
		EXPECT_EQ(0, memcmp(&f[22], &local.sin6_addr, 16));
	}
}

TEST_F(SetupNs, RefusedDestinationsGoToTheKernel)
{
	for (const char *a : { "127.0.0.1", "0.0.0.0", "::1", "::",
	    "::ffff:10.0.0.1" }) {
		struct sockaddr_storage to = addr(a, 7002);
		int fd = sock(to.ss_family);

		(void) ost_sendto(fd, "k", 1, 0, (struct sockaddr *)&to,
		    len_of(to));
		uost_t *up = record(fd);
		ASSERT_NE(nullptr, up) << a;
		EXPECT_FALSE(up->uost_peer_set || up->uost_frio_set) << a;
	}
}

TEST_F(SetupNs, ConnectFixesThePeerOrLeavesTheBypass)
{
	struct sockaddr_storage peer = addr(env("OST_SU_PEER4"), 7004);
	struct sockaddr_storage lo = addr("127.0.0.1", 7005);
	struct sockaddr unspec = {};
	int fd = sock(AF_INET), fd2 = sock(AF_INET), fd3 = sock(AF_INET);

	ASSERT_EQ(0, ost_connect_call(fd, (struct sockaddr *)&peer,
	    len_of(peer)));
	uost_t *up = record(fd);
	ASSERT_NE(nullptr, up);
	EXPECT_TRUE(up->uost_connected && up->uost_peer_set);
	EXPECT_EQ(3, ost_send_call(fd, "abc", 3, 0));
	EXPECT_EQ(45u, frame(fd).size());
	/* Dissolving the association hands the socket to the kernel. */
	unspec.sa_family = AF_UNSPEC;
	EXPECT_EQ(0, ost_connect_call(fd, &unspec, sizeof (unspec)));
	EXPECT_EQ(nullptr, record(fd));

	EXPECT_EQ(0, ost_connect_call(fd2, (struct sockaddr *)&lo, len_of(lo)));
	EXPECT_EQ(nullptr, record(fd2));
	/* A connect the kernel refuses leaves the record as it was. */
	errno = 0;
	EXPECT_EQ(-1, ost_connect_call(fd3, (struct sockaddr *)&lo, 4));
	EXPECT_EQ(EINVAL, errno);
	EXPECT_NE(nullptr, record(fd3));
}

} // namespace
