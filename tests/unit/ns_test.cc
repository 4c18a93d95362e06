/* What the end-to-end tests do not reach, against the kernel's tables in the
 * namespaces that tests/integration/resolve.sh (OST_RT_*) and setup.sh
 * (OST_SU_*) build; skips outside them. */
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/ether.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <vector>

#include "frio_mem.h"
#include "resolve/netlink.h"
#include "resolve/resolve.h"
#include "support.h"

namespace {

struct in_addr
v4(const char *var)
{
	struct in_addr a = {};
	EXPECT_EQ(1, inet_pton(AF_INET, env(var), &a)) << var;
	return a;
}

struct in6_addr
v6(const char *var)
{
	struct in6_addr a = {};
	EXPECT_EQ(1, inet_pton(AF_INET6, env(var), &a)) << var;
	return a;
}

class ResolveNs : public ::testing::Test {
protected:
	void SetUp() override
	{
		ost_test_init();
		if (*env("OST_RT_IF") == '\0')
			GTEST_SKIP() << "run by tests/integration/resolve.sh";
		idx_ = if_nametoindex(env("OST_RT_IF"));
		idx2_ = if_nametoindex(env("OST_RT_IF2"));
		ASSERT_NE(0u, idx_);
		ASSERT_NE(0u, idx2_);
	}
	uint32_t idx_ = 0, idx2_ = 0;
};

/* Runs first: the script leaves the router unresolved.  The look-up does
 * not make the kernel resolve it (no entry appears); a datagram the
 * kernel sends there does, and then the look-up finds it. */
TEST_F(ResolveNs, NeighbourWithoutEntryIsLeftToTheKernel)
{
	struct in_addr r = v4("OST_RT_ROUTER4");
	struct ether_addr ea;
	uint32_t idx = 0;
	char name[OST_IFNAME_SIZE] = "";
	ost_nl_neigh_t nb;
	ost_nl_t nl;

	ASSERT_FALSE(ost_get_eaddr_v4(&r, &ea, &idx, name));
	ASSERT_TRUE(ost_nl_open(&nl));
	ASSERT_NE(OST_NL_ERROR, ost_nl_neigh_query(&nl, AF_INET, &r, 0, &nb));
	EXPECT_FALSE(nb.nn_found);
	int fd = socket(AF_INET, SOCK_DGRAM, 0);
	struct sockaddr_in to = {};
	to.sin_family = AF_INET, to.sin_port = htons(9), to.sin_addr = r;
	ASSERT_EQ(1, sendto(fd, "x", 1, 0, (struct sockaddr *)&to, sizeof (to)));
	close(fd);
	for (int i = 0; i < 100 && !nb.nn_complete; i++) {
		usleep(10000);
		ASSERT_NE(OST_NL_ERROR,
		    ost_nl_neigh_query(&nl, AF_INET, &r, 0, &nb));
	}
	ost_nl_close(&nl);
	ASSERT_TRUE(ost_get_eaddr_v4(&r, &ea, &idx, name));
	EXPECT_EQ(env("OST_RT_ROUTER_MAC"), mac_str(&ea));
	EXPECT_EQ(idx_, idx);
	EXPECT_STREQ(env("OST_RT_IF"), name);
}

TEST_F(ResolveNs, RouteThroughTheRouter)
{
	struct in_addr d4 = v4("OST_RT_REMOTE4"), gw4;
	struct in6_addr d6 = v6("OST_RT_REMOTE6"), gw6, r6 = v6("OST_RT_ROUTER6");
	uint32_t idx = 0, idx6 = 0;

	ASSERT_TRUE(ost_get_route_v4(&d4, &idx, &gw4));
	ASSERT_TRUE(ost_get_route_v6(&d6, &idx6, &gw6));
	EXPECT_EQ(idx_, idx);
	EXPECT_EQ(idx_, idx6);
	EXPECT_EQ(v4("OST_RT_ROUTER4").s_addr, gw4.s_addr);
	EXPECT_EQ(0, memcmp(&r6, &gw6, sizeof (gw6)));
}

/* One link-local address on two interfaces: the scope id decides; an own
 * address under another interface's scope has no owner. */
TEST_F(ResolveNs, LinkLocalScopeDecides)
{
	struct in6_addr shared = v6("OST_RT_SHARED_LL"), self = v6("OST_RT_SELF6");
	struct ether_addr ea;
	ost_ifref_t ifr;
	char name[OST_IFNAME_SIZE] = "";

	for (uint32_t idx : { idx2_, idx_ }) {
		ASSERT_TRUE(ost_find_if_v6(&shared, idx, &ifr));
		EXPECT_EQ(idx, ifr.ir_index);
		EXPECT_STREQ(env(idx == idx_ ? "OST_RT_IF" : "OST_RT_IF2"),
		    ifr.ir_name);
	}
	uint32_t idx = idx2_;
	EXPECT_FALSE(ost_get_eaddr_v6(&self, &ea, &idx, name));
	idx = 0;
	ASSERT_TRUE(ost_get_eaddr_v6(&self, &ea, &idx, name));
	EXPECT_EQ(idx_, idx);
	EXPECT_EQ(env("OST_RT_MAC"), mac_str(&ea));
}

TEST_F(ResolveNs, NoDescriptorOutlivesThousandsOfCalls)
{
	struct in_addr s4 = v4("OST_RT_STATIC4"), no4 = v4("OST_RT_NOROUTE4"), gw4;
	struct in6_addr s6 = v6("OST_RT_STATIC6"), self6 = v6("OST_RT_SELF6"),
	    silent6 = v6("OST_RT_SILENT6"), gw6;
	struct ether_addr ea;
	ost_ifref_t ifr;
	int fds = count_fds();

	for (int i = 0; i < 1000; i++) {
		uint32_t idx = 0;
		char name[OST_IFNAME_SIZE] = "";

		ASSERT_TRUE(ost_get_route_v4(&s4, &idx, &gw4) &&
		    !ost_get_route_v4(&no4, &idx, &gw4) &&
		    ost_get_route_v6(&s6, &idx, &gw6) &&
		    ost_get_eaddr_v4(&s4, &ea, &idx, name) &&
		    ost_get_if_info_v6(idx_, nullptr, &gw6, name) &&
		    ost_find_if_v6(&self6, 0, &ifr) &&
		    ost_get_eaddr_v6(&s6, &ea, nullptr, name) &&
		    !ost_get_eaddr_v6(&silent6, &ea, nullptr, name)) << i;
	}
	EXPECT_EQ(fds, count_fds());
}

/* The first sendto through the router and to a link-local peer: the
 * template's next hop, and a link-local source on the scope's interface. */
TEST(SetupNs, FirstSendtoThroughTheRouterAndToALinkLocalPeer)
{
	if (*env("OST_SU_IF") == '\0')
		GTEST_SKIP() << "runs inside tests/integration/setup.sh";
	ost_test_init();
	setenv("FRIO_BACKEND", "mem", 1);
	frio_mem_reset();
	unsigned scope = if_nametoindex(env("OST_SU_IF"));
	ASSERT_EQ(0, frio_mem_add_interface(env("OST_SU_IF"), (int)scope,
	    ether_aton(env("OST_SU_MAC"))));
	std::string peer_mac = mac_str(ether_aton(env("OST_SU_PEER_MAC")));

	for (const char *dst : { "OST_SU_REMOTE4", "OST_SU_REMOTE6",
	    "OST_SU_PEER_LL" }) {
		struct sockaddr_in6 to = {}, local = {};
		auto *to4 = (struct sockaddr_in *)&to;
		bool v6 = strchr(env(dst), ':') != nullptr;
		socklen_t len = sizeof (local);

		to.sin6_family = v6 ? AF_INET6 : AF_INET;
		to.sin6_port = htons(7001);
		to.sin6_scope_id = v6 ? scope : 0;
		ASSERT_EQ(1, inet_pton(to.sin6_family, env(dst), v6 ?
		    (void *)&to.sin6_addr : (void *)&to4->sin_addr));
		int fd = ost_socket(to.sin6_family, SOCK_DGRAM, 0);
		ASSERT_EQ(5, ost_sendto(fd, "hello", 5, 0,
		    (struct sockaddr *)&to, v6 ? sizeof (to) : sizeof (*to4)))
		    << dst;
		uost_t *up = record(fd);
		ASSERT_TRUE(up != nullptr && up->uost_frio_set) << dst;
		std::vector<uint8_t> f(2048);
		ssize_t n = frio_mem_tx_pop(up->uost_frio_hdl, f.data(), f.size());
		ASSERT_EQ((v6 ? 62 : 42) + 5, n) << dst;
		EXPECT_EQ(peer_mac, mac_str(&f[0])) << dst;
		ASSERT_EQ(0, getsockname(fd, (struct sockaddr *)&local, &len));
		if (strcmp(dst, "OST_SU_PEER_LL") == 0) {
			EXPECT_TRUE(IN6_IS_ADDR_LINKLOCAL(&local.sin6_addr));
			EXPECT_EQ(scope, local.sin6_scope_id);
			EXPECT_EQ(0, memcmp(&f[22], &local.sin6_addr, 16));
		}
		ost_close(fd);
	}
	EXPECT_EQ(0, frio_mem_open_count());
	frio_mem_reset();
}

} // namespace
