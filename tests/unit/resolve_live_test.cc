/*
 * Path resolution against the running kernel.
 *
 * ResolveLocal needs nothing but the loopback interface.  ResolveNs runs
 * only inside the namespaces that tests/integration/resolve.sh builds; it
 * learns their names and addresses from OST_RT_* variables and skips when
 * they are absent.
 */
#include <arpa/inet.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "sub/netlink.h"
#include "sub/resolve.h"
#include "support.h"

namespace {

int
count(const std::string &hay, const std::string &needle)
{
	int n = 0;

	for (size_t at = hay.find(needle); at != std::string::npos;
	    at = hay.find(needle, at + 1))
		n++;
	return n;
}

struct in_addr
v4(const char *s)
{
	struct in_addr a = {};

	EXPECT_EQ(1, inet_pton(AF_INET, s, &a)) << s;
	return a;
}

struct in6_addr
v6(const char *s)
{
	struct in6_addr a = {};

	EXPECT_EQ(1, inet_pton(AF_INET6, s, &a)) << s;
	return a;
}

bool
same(const struct in6_addr &a, const struct in6_addr &b)
{
	return memcmp(&a, &b, sizeof (a)) == 0;
}

TEST(ResolveLocal, LoopbackRouteAndAddress)
{
	struct in_addr lo4 = v4("127.0.0.1"), gw = v4("1.2.3.4");
	struct in6_addr lo6 = in6addr_loopback, gw6 = v6("fd00::1");
	struct ether_addr ea;
	uint32_t lo = if_nametoindex("lo"), idx = 0;
	char name[OST_IFNAME_SIZE] = "";
	std::string log;

	ost_test_init();
	if (lo == 0 || !ost_get_route_v4(&lo4, &idx, &gw))
		GTEST_SKIP() << "no loopback interface up";
	EXPECT_EQ(lo, idx);
	EXPECT_EQ(0u, gw.s_addr);
	if (ost_get_route_v6(&lo6, &idx, &gw6)) {
		EXPECT_EQ(lo, idx);
		EXPECT_TRUE(IN6_IS_ADDR_UNSPECIFIED(&gw6));
	}
	/* An own address, answered from the interface list: no attempt is
	 * provoked, and loopback has no Ethernet address to give. */
	idx = 0;
	log = logged([&] {
		EXPECT_FALSE(ost_get_eaddr_v4(&lo4, &ea, &idx, name));
	});
	EXPECT_EQ("ost_get_eaddr_v4: not an Ethernet interface: lo\n",
	    log.substr(5)) << log;
	EXPECT_EQ(0u, idx);
}

TEST(ResolveLocal, RefusalsAreSilentOpenNothingAndKeepErrno)
{
	struct in_addr a4 = v4("127.0.0.1");
	struct in6_addr out = v6("fd00::5"), before = out;
	struct ether_addr ea;
	uint32_t idx = 77;
	char name[OST_IFNAME_SIZE] = "keep";
	boolean_t t = B_TRUE, f = B_FALSE;
	int fds = count_fds();
	std::string log;

	ost_test_init();
	errno = 4242;
	log = logged([&] {
		EXPECT_FALSE(ost_get_eaddr_v4(nullptr, &ea, &idx, nullptr));
		EXPECT_FALSE(ost_get_eaddr_v4(&a4, nullptr, &idx, nullptr));
		EXPECT_FALSE(ost_get_eaddr_v4(&a4, &ea, nullptr, nullptr));
		EXPECT_FALSE(ost_tmp_connect(AF_UNIX, &a4));
		EXPECT_FALSE(ost_tmp_connect(AF_PACKET, &a4));
		/* An index no interface has, 0 included. */
		for (uint32_t i : { 0u, 0x7ffffff0u }) {
			EXPECT_FALSE(ost_get_if_info_v6(i, nullptr, &out, name));
			EXPECT_FALSE(ost_get_if_info_v6(i, &t, &out, name));
			EXPECT_FALSE(ost_get_if_info_v6(i, &f, &out, name));
		}
	});
	EXPECT_EQ("", log);
	EXPECT_EQ(77u, idx);
	EXPECT_STREQ("keep", name);
	EXPECT_TRUE(same(before, out));
	EXPECT_EQ(fds, count_fds());
	EXPECT_EQ(4242, errno);
	/* Failing deeper inside leaves errno alone as well. */
	strcpy(name, "no-such-if");
	EXPECT_FALSE(ost_get_eaddr_v6(&before, &ea, nullptr, name));
	EXPECT_FALSE(ost_get_eaddr_v4(&a4, &ea, &idx, nullptr));
	EXPECT_EQ(4242, errno);
}

TEST(ResolveLocal, ThreadsLookUpAtOnceAndLeakNothing)
{
	constexpr int kThreads = 6;
	pthread_t t[kThreads];
	int failures[kThreads] = {};
	int fds;

	ost_test_init();
	fds = count_fds();
	for (int i = 0; i < kThreads; i++)
		ASSERT_EQ(0, pthread_create(&t[i], nullptr, [](void *p)
		    -> void * {
			struct in_addr a = { htonl(INADDR_LOOPBACK) }, gw;
			struct in6_addr a6 = in6addr_loopback, out;
			struct ether_addr ea;
			ost_lifreq_t lifr;
			uint32_t lo = if_nametoindex("lo");

			for (int j = 0; j < 300; j++) {
				uint32_t idx = 0;
				char name[OST_IFNAME_SIZE] = "lo";

				if (!ost_get_route_v4(&a, &idx, &gw) || idx != lo)
					(*(int *)p)++;
				(void) ost_get_eaddr_v4(&a, &ea, &idx, name);
				(void) ost_get_if_info_v6(lo, nullptr, &out,
				    name);
				(void) ost_find_if_v6(&a6, 0, &lifr);
				(void) ost_get_eaddr_v6(&a6, &ea, nullptr, name);
			}
			return nullptr;
		}, &failures[i]));
	for (int i = 0; i < kThreads; i++) {
		pthread_join(t[i], nullptr);
		EXPECT_EQ(0, failures[i]) << i;
	}
	EXPECT_EQ(fds, count_fds());
}

/* --- inside the namespaces of tests/integration/resolve.sh --- */

class ResolveNs : public ::testing::Test {
protected:
	void SetUp() override
	{
		ost_test_init();
		if (getenv("OST_RT_IF") == nullptr)
			GTEST_SKIP() << "run by tests/integration/resolve.sh";
		if_ = env("OST_RT_IF");
		if2_ = env("OST_RT_IF2");
		idx_ = if_nametoindex(if_);
		idx2_ = if_nametoindex(if2_);
		ASSERT_NE(0u, idx_);
		ASSERT_NE(0u, idx2_);
	}
	static bool neigh_known(int family, const void *a, uint32_t idx)
	{
		ost_nl_t nl;
		ost_nl_neigh_t nb = {};

		EXPECT_TRUE(ost_nl_open(&nl));
		EXPECT_NE(OST_NL_ERROR,
		    ost_nl_neigh_query(&nl, family, a, idx, &nb));
		ost_nl_close(&nl);
		return nb.nn_found;
	}
	/* idx's addresses that are (or are not) link-local, in list order. */
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

/* First: it needs a router that nothing has resolved yet. */
TEST_F(ResolveNs, NeighbourWithoutEntryAnswersWithReset)
{
	struct in_addr r = v4(env("OST_RT_ROUTER4"));
	struct ether_addr ea;
	uint32_t idx = 0;
	char name[OST_IFNAME_SIZE] = "";

	ASSERT_FALSE(neigh_known(AF_INET, &r, 0)) << "router already known";
	std::string log;
	log = logged([&] {
		EXPECT_TRUE(ost_get_eaddr_v4(&r, &ea, &idx, name));
	});
	EXPECT_EQ(1, count(log, std::string("ost_get_eaddr_v4: SIOCGXARP no "
	    "entry: ") + env("OST_RT_ROUTER4") + "\n")) << log;
	EXPECT_EQ(0, count(log, "connect:")) << log;
	EXPECT_EQ(env("OST_RT_ROUTER_MAC"), mac_str(&ea));
	EXPECT_EQ(idx_, idx);
	EXPECT_STREQ(if_, name);

	/* Behind the router, an address answers but never gets an entry:
	 * the second query ends it. */
	r = v4(env("OST_RT_OFFLINK4"));
	idx = 4711;
	log = logged([&] {
		EXPECT_FALSE(ost_get_eaddr_v4(&r, &ea, &idx, name));
	});
	EXPECT_EQ(2, count(log, std::string("ost_get_eaddr_v4: SIOCGXARP no "
	    "entry: ") + env("OST_RT_OFFLINK4") + "\n")) << log;
	EXPECT_EQ(0, count(log, "connect:")) << log;
	EXPECT_EQ(4711u, idx);
}

TEST_F(ResolveNs, RoutesOnLinkThroughRouterAndNone)
{
	struct in_addr d4 = v4(env("OST_RT_STATIC4")), gw4;
	struct in6_addr d6 = v6(env("OST_RT_STATIC6")), gw6;
	uint32_t idx = 0;
	std::string log = logged([&] {
		ASSERT_TRUE(ost_get_route_v4(&d4, &idx, &gw4));
		EXPECT_EQ(idx_, idx);
		EXPECT_EQ(0u, gw4.s_addr);
		ASSERT_TRUE(ost_get_route_v6(&d6, &idx, &gw6));
		EXPECT_TRUE(IN6_IS_ADDR_UNSPECIFIED(&gw6));
	});
	EXPECT_EQ("", log);

	d4 = v4(env("OST_RT_REMOTE4"));
	d6 = v6(env("OST_RT_REMOTE6"));
	log = logged([&] {
		ASSERT_TRUE(ost_get_route_v4(&d4, &idx, &gw4));
		EXPECT_EQ(idx_, idx);
		EXPECT_EQ(v4(env("OST_RT_ROUTER4")).s_addr, gw4.s_addr);
		ASSERT_TRUE(ost_get_route_v6(&d6, &idx, &gw6));
		EXPECT_TRUE(same(v6(env("OST_RT_ROUTER6")), gw6));
	});
	EXPECT_EQ(std::string("ost: ost_get_route_v4: gw: ") +
	    env("OST_RT_ROUTER4") + "\nost: ost_get_route_v6: gw: " +
	    env("OST_RT_ROUTER6") + "\n", log);

	/* No route: the kernel's errno logged, the outputs left alone. */
	d4 = v4(env("OST_RT_NOROUTE4"));
	d6 = v6(env("OST_RT_NOROUTE6"));
	gw4 = v4("9.9.9.9");
	idx = 4711;
	log = logged([&] {
		EXPECT_FALSE(ost_get_route_v4(&d4, &idx, &gw4));
		EXPECT_FALSE(ost_get_route_v6(&d6, &idx, &gw6));
	});
	EXPECT_EQ(1, count(log, "ost_get_route_v4: route get errno: " +
	    std::to_string(ENETUNREACH) + "\n")) << log;
	EXPECT_EQ(1, count(log, "ost_get_route_v6: route get errno: "));
	EXPECT_EQ(4711u, idx);
	EXPECT_EQ(v4("9.9.9.9").s_addr, gw4.s_addr);
}

TEST_F(ResolveNs, NeighboursOwnAddressesAndAliases)
{
	/* The static entry's owner does not exist: an attempt would run
	 * into the bound and fail. */
	struct in_addr a = v4(env("OST_RT_STATIC4"));
	struct ether_addr ea;
	uint32_t idx = 0;
	std::string log = logged([&] {
		EXPECT_TRUE(ost_get_eaddr_v4(&a, &ea, &idx, nullptr));
	});
	EXPECT_EQ("", log);
	EXPECT_EQ(env("OST_RT_STATIC_MAC"), mac_str(&ea));
	EXPECT_EQ(idx_, idx);

	for (const char *var : { "OST_RT_SELF4", "OST_RT_ALIAS4" }) {
		char name[OST_IFNAME_SIZE];

		a = v4(env(var));
		memset(name, 'x', sizeof (name));
		log = logged([&] {
			EXPECT_TRUE(ost_get_eaddr_v4(&a, &ea, &idx, name));
		});
		EXPECT_EQ("", log) << var;
		EXPECT_STREQ(if_, name) << var;	/* the label's suffix cut */
		EXPECT_EQ(idx_, idx) << var;
		EXPECT_EQ(env("OST_RT_MAC"), mac_str(&ea)) << var;
	}
}

TEST_F(ResolveNs, SilentAddressGivesUpAfterTheBound)
{
	struct in_addr a = v4(env("OST_RT_SILENT4"));
	struct ether_addr ea;
	uint32_t idx = 4711;
	hrtime_t ms = 0;
	std::string log = logged([&] {
		hrtime_t t0 = gethrtime();
		EXPECT_FALSE(ost_get_eaddr_v4(&a, &ea, &idx, nullptr));
		ms = (gethrtime() - t0) / 1000000;
	});

	EXPECT_GE(ms, 400);
	EXPECT_LE(ms, 3000);
	/* One query, one attempt, no second query. */
	EXPECT_EQ(1, count(log, std::string("SIOCGXARP no entry: ") +
	    env("OST_RT_SILENT4") + "\n")) << log;
	EXPECT_EQ(1, count(log, "ost_tmp_connect: connect: ")) << log;
	EXPECT_EQ(2, count(log, "\n")) << log;
	EXPECT_EQ(4711u, idx);
}

TEST_F(ResolveNs, AddressChoice)
{
	struct in6_addr out, ll[8], gl[8];
	char name[OST_IFNAME_SIZE];
	boolean_t t = B_TRUE, f = B_FALSE;
	int nll = addrs_of(idx_, true, ll), ngl = addrs_of(idx_, false, gl);

	/* Two of each, so that first and last differ. */
	ASSERT_GE(nll, 2);
	ASSERT_GE(ngl, 2);
	ASSERT_TRUE(ost_get_if_info_v6(idx_, nullptr, &out, name));
	EXPECT_TRUE(same(gl[0], out));
	EXPECT_STREQ(if_, name);
	ASSERT_TRUE(ost_get_if_info_v6(idx_, &f, &out, name));
	EXPECT_TRUE(same(gl[0], out));
	ASSERT_TRUE(ost_get_if_info_v6(idx_, &t, &out, name));
	EXPECT_TRUE(same(ll[0], out));

	/* Only link-local addresses: the last one when any will do. */
	nll = addrs_of(idx2_, true, ll);
	ASSERT_GE(nll, 2);
	ASSERT_EQ(0, addrs_of(idx2_, false, gl));
	ASSERT_TRUE(ost_get_if_info_v6(idx2_, nullptr, &out, name));
	EXPECT_TRUE(same(ll[nll - 1], out));
	EXPECT_STREQ(if2_, name);
	EXPECT_FALSE(ost_get_if_info_v6(idx2_, &f, &out, name));
}

TEST_F(ResolveNs, OwnerOfAnAddress)
{
	struct in6_addr shared = v6(env("OST_RT_SHARED_LL"));
	struct in6_addr down = v6(env("OST_RT_DOWN6"));
	ost_lifreq_t lifr;
	struct ether_addr ea;
	uint32_t idx = 0;
	char name[OST_IFNAME_SIZE] = "";
	std::string log = logged([&] {
		ASSERT_TRUE(ost_find_if_v6(&shared, idx2_, &lifr));
		EXPECT_STREQ(if2_, lifr.lifr_name);
		EXPECT_EQ(idx2_, lifr.lifr_index);
		ASSERT_TRUE(ost_find_if_v6(&shared, idx_, &lifr));
		EXPECT_STREQ(if_, lifr.lifr_name);
		EXPECT_EQ(idx_, lifr.lifr_index);
	});
	/* Whichever interface the list shows first, one look-up passed it
	 * over for its scope. */
	EXPECT_EQ(1, count(log, "ost_find_if_v6: mismatched scope_id: "))
	    << log;
	EXPECT_NE(0, count(log, "ost_find_if_v6: mismatched address: "));

	log = logged([&] {
		EXPECT_FALSE(ost_find_if_v6(&down, 0, &lifr));
		EXPECT_FALSE(ost_get_eaddr_v6(&down, &ea, &idx, name));
	});
	EXPECT_EQ(2, count(log, "ost_find_if_v6: addr not up\n")) << log;
	EXPECT_STREQ("", name);
	EXPECT_EQ(0u, idx);
}

TEST_F(ResolveNs, LinkAddressesV6)
{
	struct in6_addr self = v6(env("OST_RT_SELF6"));
	struct in6_addr nb = v6(env("OST_RT_STATIC6"));
	struct in6_addr silent = v6(env("OST_RT_SILENT6"));
	struct ether_addr ea;
	uint32_t idx = 0;
	char name[OST_IFNAME_SIZE] = "";
	std::string log = logged([&] {
		ASSERT_TRUE(ost_get_eaddr_v6(&self, &ea, &idx, name));
	});
	EXPECT_STREQ(if_, name);
	EXPECT_EQ(idx_, idx);
	EXPECT_EQ(env("OST_RT_MAC"), mac_str(&ea));
	EXPECT_EQ(1, count(log, "ost_get_eaddr_v6: use " + std::string(if_) +
	    " (" + std::to_string(idx_) + ")\n")) << log;
	/* The scope id of another interface finds no owner. */
	name[0] = '\0';
	idx = idx2_;
	EXPECT_FALSE(ost_get_eaddr_v6(&self, &ea, &idx, name));
	EXPECT_EQ(idx2_, idx);

	/* Named: own addresses and the table's entries on that interface. */
	strcpy(name, if_);
	memset(&ea, 0, sizeof (ea));
	ASSERT_TRUE(ost_get_eaddr_v6(&self, &ea, nullptr, name));
	EXPECT_EQ(env("OST_RT_MAC"), mac_str(&ea));
	log = logged([&] {
		ASSERT_TRUE(ost_get_eaddr_v6(&nb, &ea, nullptr, name));
	});
	EXPECT_EQ(env("OST_RT_STATIC_MAC"), mac_str(&ea));
	EXPECT_EQ(std::string("ost: ost_get_eaddr_v6: given ") + if_ + "\n",
	    log);
	log = logged([&] {
		EXPECT_FALSE(ost_get_eaddr_v6(&silent, &ea, nullptr, name));
		strcpy(name, if2_);
		EXPECT_FALSE(ost_get_eaddr_v6(&nb, &ea, nullptr, name));
	});
	EXPECT_EQ(2, count(log, "ost_get_eaddr_v6: ioctl: " +
	    std::to_string(ENOENT) + "\n")) << log;
	/* Discovery would have left an entry behind. */
	EXPECT_FALSE(neigh_known(AF_INET6, &silent, idx_));
}

TEST_F(ResolveNs, NoDescriptorOutlivesThousandsOfCalls)
{
	struct in_addr s4 = v4(env("OST_RT_STATIC4")),
	    self4 = v4(env("OST_RT_SELF4")), no4 = v4(env("OST_RT_NOROUTE4")),
	    gw4;
	struct in6_addr s6 = v6(env("OST_RT_STATIC6")),
	    self6 = v6(env("OST_RT_SELF6")),
	    silent6 = v6(env("OST_RT_SILENT6")), gw6;
	struct ether_addr ea;
	ost_lifreq_t lifr;
	int fds = count_fds();

	for (int i = 0; i < 1000; i++) {
		uint32_t idx = 0;
		char name[OST_IFNAME_SIZE] = "";

		ASSERT_TRUE(ost_get_route_v4(&s4, &idx, &gw4));
		ASSERT_FALSE(ost_get_route_v4(&no4, &idx, &gw4));
		ASSERT_TRUE(ost_get_route_v6(&s6, &idx, &gw6));
		ASSERT_TRUE(ost_get_eaddr_v4(&s4, &ea, &idx, name));
		ASSERT_TRUE(ost_get_eaddr_v4(&self4, &ea, &idx, name));
		ASSERT_TRUE(ost_get_if_info_v6(idx_, nullptr, &gw6, name));
		ASSERT_TRUE(ost_find_if_v6(&self6, 0, &lifr));
		name[0] = '\0';
		ASSERT_TRUE(ost_get_eaddr_v6(&self6, &ea, &idx, name));
		ASSERT_TRUE(ost_get_eaddr_v6(&s6, &ea, nullptr, name));
		ASSERT_FALSE(ost_get_eaddr_v6(&silent6, &ea, nullptr, name));
	}
	EXPECT_EQ(fds, count_fds());
}

} // namespace
