/* Multicast group to Ethernet address, both families. */
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/ether.h>

#include "support.h"

namespace {

std::string
map_v4(const char *group)
{
	struct in_addr a;
	struct ether_addr e;

	inet_pton(AF_INET, group, &a);
	memset(&e, 0xee, sizeof (e));
	ost_maddr_ip2e_v4(a.s_addr, &e);
	char buf[32];
	snprintf(buf, sizeof (buf), "%02x:%02x:%02x:%02x:%02x:%02x",
	    e.ether_addr_octet[0], e.ether_addr_octet[1], e.ether_addr_octet[2],
	    e.ether_addr_octet[3], e.ether_addr_octet[4], e.ether_addr_octet[5]);
	return buf;
}

std::string
map_v6(const char *group)
{
	struct in6_addr a;
	struct ether_addr e;

	inet_pton(AF_INET6, group, &a);
	ost_maddr_ip2e_v6(&a, &e);
	char buf[32];
	snprintf(buf, sizeof (buf), "%02x:%02x:%02x:%02x:%02x:%02x",
	    e.ether_addr_octet[0], e.ether_addr_octet[1], e.ether_addr_octet[2],
	    e.ether_addr_octet[3], e.ether_addr_octet[4], e.ether_addr_octet[5]);
	return buf;
}

TEST(McastMap, IPv4KeepsTheLow23Bits)
{
	EXPECT_EQ(map_v4("239.255.1.2"), "01:00:5e:7f:01:02");
	EXPECT_EQ(map_v4("224.128.1.2"), "01:00:5e:00:01:02");
	EXPECT_EQ(map_v4("224.0.0.1"), "01:00:5e:00:00:01");
	EXPECT_EQ(map_v4("225.1.2.3"), map_v4("226.129.2.3"));
}

TEST(McastMap, IPv6KeepsTheLastFourBytes)
{
	EXPECT_EQ(map_v6("ff02::1:ff00:1234"), "33:33:ff:00:12:34");
	EXPECT_EQ(map_v6("ff02::1"), "33:33:00:00:00:01");
}

} // namespace
