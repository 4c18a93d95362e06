/*
 * Address classes that decide what the bypass path may serve.  IPv4
 * addresses are in network order; records hold them IPv4-mapped.
 */
#ifndef OST_CORE_ADDR_H
#define OST_CORE_ADDR_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <string.h>

static inline bool
ost_is_loopback_v4(in_addr_t a)
{
	return (ntohl(a) >> 24) == 127;
}

/* Only the limited broadcast; a subnet broadcast is not recognised. */
static inline bool
ost_is_broadcast_v4(in_addr_t a)
{
	return a == INADDR_BROADCAST;
}

static inline bool
ost_is_multicast_v4(in_addr_t a)
{
	return IN_MULTICAST(ntohl(a));
}

static inline bool
ost_is_link_local_v6(const struct in6_addr *a)
{
	return IN6_IS_ADDR_LINKLOCAL(a);
}

/* Link-local, or multicast of interface-local or link-local scope. */
static inline bool
ost_is_scoped_v6(const struct in6_addr *a)
{
	return IN6_IS_ADDR_LINKLOCAL(a) || IN6_IS_ADDR_MC_NODELOCAL(a) ||
	    IN6_IS_ADDR_MC_LINKLOCAL(a);
}

static inline void
ost_map_v4(struct in6_addr *mapped, in_addr_t a)
{
	memset(mapped, 0, 10);
	mapped->s6_addr[10] = 0xff;
	mapped->s6_addr[11] = 0xff;
	memcpy(&mapped->s6_addr[12], &a, 4);
}

static inline in_addr_t
ost_unmap_v4(const struct in6_addr *mapped)
{
	in_addr_t a;

	memcpy(&a, &mapped->s6_addr[12], 4);
	return a;
}

#endif /* OST_CORE_ADDR_H */
