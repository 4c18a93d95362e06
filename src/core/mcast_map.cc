/* Multicast groups to the Ethernet addresses their frames carry. */
#include <string.h>

#include "core/addr.h"
#include "core/ost.h"

/* RFC 1112: 01:00:5e followed by the group's low 23 bits. */
void
ost_maddr_ip2e_v4(uint32_t group, struct ether_addr *ether)
{
	uint32_t low = ntohl(group) & 0x007fffff;

	ether->ether_addr_octet[0] = 0x01;
	ether->ether_addr_octet[1] = 0x00;
	ether->ether_addr_octet[2] = 0x5e;
	ether->ether_addr_octet[3] = (uint8_t)(low >> 16);
	ether->ether_addr_octet[4] = (uint8_t)(low >> 8);
	ether->ether_addr_octet[5] = (uint8_t)low;
}

/* RFC 2464: 33:33 followed by the group's last four bytes. */
void
ost_maddr_ip2e_v6(const struct in6_addr *group, struct ether_addr *ether)
{
	ether->ether_addr_octet[0] = 0x33;
	ether->ether_addr_octet[1] = 0x33;
	memcpy(&ether->ether_addr_octet[2], &group->s6_addr[12], 4);
}

void
ost_maddr_ip2e(const struct in6_addr *group, struct ether_addr *ether)
{
	if (IN6_IS_ADDR_V4MAPPED(group))
		ost_maddr_ip2e_v4(ost_unmap_v4(group), ether);
	else
		ost_maddr_ip2e_v6(group, ether);
}
