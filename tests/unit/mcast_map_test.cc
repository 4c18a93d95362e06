/* Multicast group to Ethernet address, both families. */
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/ether.h>

#include "support.h"

namespace {

std::string
map(const char *group)
{
	uint8_t a[16];
	struct ether_addr e;

	memset(&e, 0xee, sizeof (e));
	if (inet_pton(AF_INET, group, a) == 1) {
		ost_maddr_ip2e_v4(*(in_addr_t *)a, &e);
	} else {
		EXPECT_EQ(inet_pton(AF_INET6, group, a), 1) << group;
		ost_maddr_ip2e_v6((struct in6_addr *)a, &e);
	}
	return mac_str(&e);
}

TEST(McastMap, LowBitsOfTheGroup)
{
	/* IPv4 keeps the low 23 bits, IPv6 the last four bytes. */
	EXPECT_EQ(map("239.255.1.2"), "01:00:5e:7f:01:02");
	EXPECT_EQ(map("224.128.1.2"), "01:00:5e:00:01:02");
	EXPECT_EQ(map("225.1.2.3"), map("226.129.2.3"));
	EXPECT_EQ(map("ff02::1:ff00:1234"), "33:33:ff:00:12:34");
}

} // namespace
