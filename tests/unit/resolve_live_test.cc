/* Path resolution against the kernel inside the namespaces that
 * tests/integration/resolve.sh builds (OST_RT_* variables); skips outside. */
#include <arpa/inet.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <string.h>

#include "resolve/netlink.h"
#include "resolve/resolve.h"
#include "support.h"

namespace {

/* The address in the variable var. */
template <typename A> A
ip(const char *var)
{
	A a = {};

	EXPECT_EQ(1, inet_pton(sizeof (a) == 4 ? AF_INET : AF_INET6, env(var),
	    &a)) << var;
	return a;
}
struct in_addr v4(const char *var) { return ip<struct in_addr>(var); }
struct in6_addr v6(const char *var) { return ip<struct in6_addr>(var); }

bool
same(const struct in6_addr &a, const struct in6_addr &b)
{
	return memcmp(&a, &b, sizeof (a)) == 0;
}

class ResolveNs : public ::testing::Test {
protected:
	void SetUp() override
	{
		ost_test_init();
		if (*env("OST_RT_IF") == '\0')
			GTEST_SKIP() << "run by tests/integration/resolve.sh";
		if_ = env("OST_RT_IF");
		if2_ = env("OST_RT_IF2");
		idx_ = if_nametoindex(if_);
		idx2_ = if_nametoindex(if2_);
		ASSERT_NE(0u, idx_);
		ASSERT_NE(0u, idx2_);
	}
	/* idx's IPv6 addresses that are (or are not) link-local, in list
	 * order. */
	static int addrs_of(uint32_t idx, bool ll, struct in6_addr *out)
	{
		struct ifaddrs *list, *ifa;
		int n = 0;

		if (getifaddrs(&list) != 0)
			return 0;
		for (ifa = list; ifa != nullptr && n < 8; ifa = ifa->ifa_next) {
			auto *s = (struct sockaddr_in6 *)ifa->ifa_addr;

			if (s != nullptr && s->sin6_family == AF_INET6 &&
			    if_nametoindex(ifa->ifa_name) == idx &&
			    (bool)IN6_IS_ADDR_LINKLOCAL(&s->sin6_addr) == ll)
				out[n++] = s->sin6_addr;
		}
		freeifaddrs(list);
		return n;
	}
	const char *if_ = nullptr, *if2_ = nullptr;
	uint32_t idx_ = 0, idx2_ = 0;
};

/* Runs first: the script leaves the router unresolved, and an attempt to
 * reach it makes the kernel ask. */
TEST_F(ResolveNs, NeighbourWithoutEntryIsProvokedByAnAttempt)
{
	struct in_addr r = v4("OST_RT_ROUTER4");
	struct ether_addr ea;
	uint32_t idx = 0;
	char name[OST_IFNAME_SIZE] = "";

	ASSERT_TRUE(ost_get_eaddr_v4(&r, &ea, &idx, name));
	EXPECT_EQ(env("OST_RT_ROUTER_MAC"), mac_str(&ea));
	EXPECT_EQ(idx_, idx);
	EXPECT_STREQ(if_, name);
}

TEST_F(ResolveNs, RoutesOnLinkThroughRouterAndNone)
{
	const struct {
		const char *v4dst, *v6dst, *v4gw, *v6gw;
	} cases[] = {
		{ "OST_RT_STATIC4", "OST_RT_STATIC6", nullptr, nullptr },
		{ "OST_RT_REMOTE4", "OST_RT_REMOTE6", "OST_RT_ROUTER4",
		    "OST_RT_ROUTER6" },
	};

	for (const auto &c : cases) {
		struct in_addr d4 = v4(c.v4dst), gw4;
		struct in6_addr d6 = v6(c.v6dst), gw6;
		uint32_t idx = 0, idx6 = 0;

		EXPECT_TRUE(ost_get_route_v4(&d4, &idx, &gw4));
		EXPECT_TRUE(ost_get_route_v6(&d6, &idx6, &gw6));
		EXPECT_EQ(idx_, idx) << c.v4dst;
		EXPECT_EQ(idx_, idx6) << c.v6dst;
		EXPECT_EQ(c.v4gw ? v4(c.v4gw).s_addr : 0u, gw4.s_addr);
		EXPECT_TRUE(same(c.v6gw ? v6(c.v6gw) : in6addr_any, gw6));
	}

	/* No route: the index left alone. */
	struct in_addr d4 = v4("OST_RT_NOROUTE4"), gw4;
	struct in6_addr d6 = v6("OST_RT_NOROUTE6"), gw6;
	uint32_t idx = 4711;
	EXPECT_FALSE(ost_get_route_v4(&d4, &idx, &gw4));
	EXPECT_FALSE(ost_get_route_v6(&d6, &idx, &gw6));
	EXPECT_EQ(4711u, idx);
}

/* A known neighbour, an own address and its alias: answered at once,
 * without an attempt (nothing logged); a silent address gives up. */
TEST_F(ResolveNs, KnownAddressesAskNothingSilentOnesGiveUp)
{
	const struct {
		const char *addr, *mac;
	} cases[] = {
		/* Nobody owns the static entry's address: an attempt would
		 * fail. */
		{ "OST_RT_STATIC4", "OST_RT_STATIC_MAC" },
		{ "OST_RT_SELF4", "OST_RT_MAC" },
		{ "OST_RT_ALIAS4", "OST_RT_MAC" },	/* label h0:1 */
	};

	for (const auto &c : cases) {
		struct in_addr a = v4(c.addr);
		struct ether_addr ea;
		uint32_t idx = 0;
		char name[OST_IFNAME_SIZE];

		memset(name, 'x', sizeof (name));
		std::string log = logged([&] {
			EXPECT_TRUE(ost_get_eaddr_v4(&a, &ea, &idx, name));
		});
		EXPECT_EQ("", log) << c.addr;
		EXPECT_STREQ(if_, name) << c.addr;
		EXPECT_EQ(idx_, idx) << c.addr;
		EXPECT_EQ(env(c.mac), mac_str(&ea)) << c.addr;
	}

	struct in_addr a = v4("OST_RT_SILENT4");
	struct ether_addr ea;
	uint32_t idx = 4711;
	hrtime_t t0 = gethrtime();
	EXPECT_FALSE(ost_get_eaddr_v4(&a, &ea, &idx, nullptr));
	EXPECT_LE((gethrtime() - t0) / 1000000, 3000);
	EXPECT_EQ(4711u, idx);
}

TEST_F(ResolveNs, IPv6AddressChoiceAndScope)
{
	struct in6_addr out, ll[8], gl[8];
	char name[OST_IFNAME_SIZE];
	bool t = true, f = false;
	int nll = addrs_of(idx_, true, ll), ngl = addrs_of(idx_, false, gl);

	/* Two of each, so that first and last differ. */
	ASSERT_GE(nll, 2);
	ASSERT_GE(ngl, 2);
	for (bool *want_ll : { (bool *)nullptr, &f, &t }) {
		ASSERT_TRUE(ost_get_if_info_v6(idx_, want_ll, &out, name));
		EXPECT_TRUE(same(want_ll == &t ? ll[0] : gl[0], out));
		EXPECT_STREQ(if_, name);
	}
	/* Only link-local addresses: the last one when any will do. */
	nll = addrs_of(idx2_, true, ll);
	ASSERT_GE(nll, 2);
	ASSERT_EQ(0, addrs_of(idx2_, false, gl));
	ASSERT_TRUE(ost_get_if_info_v6(idx2_, nullptr, &out, name));
	EXPECT_TRUE(same(ll[nll - 1], out));
	EXPECT_STREQ(if2_, name);
	EXPECT_FALSE(ost_get_if_info_v6(idx2_, &f, &out, name));

	/* One link-local address on two interfaces: the scope id decides. */
	struct in6_addr shared = v6("OST_RT_SHARED_LL");
	ost_ifref_t ifr;
	for (uint32_t idx : { idx2_, idx_ }) {
		ASSERT_TRUE(ost_find_if_v6(&shared, idx, &ifr));
		EXPECT_EQ(idx, ifr.ir_index);
		EXPECT_STREQ(idx == idx_ ? if_ : if2_, ifr.ir_name);
	}
	/* An own address under another interface's scope has no owner. */
	struct in6_addr self = v6("OST_RT_SELF6");
	struct ether_addr ea;
	uint32_t idx = idx2_;
	name[0] = '\0';
	EXPECT_FALSE(ost_get_eaddr_v6(&self, &ea, &idx, name));
	idx = 0;
	ASSERT_TRUE(ost_get_eaddr_v6(&self, &ea, &idx, name));
	EXPECT_EQ(idx_, idx);
	EXPECT_EQ(env("OST_RT_MAC"), mac_str(&ea));
}

TEST_F(ResolveNs, NoDescriptorOutlivesThousandsOfCalls)
{
	struct in_addr s4 = v4("OST_RT_STATIC4"), self4 = v4("OST_RT_SELF4"),
	    no4 = v4("OST_RT_NOROUTE4"), gw4;
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
		    ost_get_eaddr_v4(&self4, &ea, &idx, name) &&
		    ost_get_if_info_v6(idx_, nullptr, &gw6, name) &&
		    ost_find_if_v6(&self6, 0, &ifr)) << i;
		name[0] = '\0';
		ASSERT_TRUE(ost_get_eaddr_v6(&self6, &ea, &idx, name) &&
		    ost_get_eaddr_v6(&s6, &ea, nullptr, name) &&
		    !ost_get_eaddr_v6(&silent6, &ea, nullptr, name)) << i;
	}
	EXPECT_EQ(fds, count_fds());
}

} // namespace
