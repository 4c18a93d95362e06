/*
 * setsockopt and getsockopt.  The kernel always gets the option first, so
 * the kernel socket holds every setting and stays a correct fallback.
 * Then, for a bypass socket, the options that shape our frames are copied
 * into the template, the multicast ones are carried out on the handle, and
 * the ones the bypass path cannot honour (ancillary data other than the
 * receive time and the packet information, error queues, routing and
 * delivery rules it does not follow) take the socket off it.
 * The kernel accepted the value with its length, so it is read as the
 * option's own type.
 */
#include <errno.h>
#include <net/if.h>
#include <netinet/udp.h>
#include <string.h>

#include "core/addr.h"
#include "core/ost.h"

typedef enum {
	OST_OPT_KEEP = 0,
	OST_OPT_LEAVE = -1
} ost_opt_result_t;

/* Options the bypass path cannot honour, by level. */
static bool
ost_v4_opt_leaves(int optname)
{
	switch (optname) {
	case IP_OPTIONS:
	case IP_RECVOPTS:
	case IP_RETOPTS: /* also IP_RECVRETOPTS */
	case IP_RECVTTL:
	case IP_BLOCK_SOURCE:
	case IP_UNBLOCK_SOURCE:
	case IP_ADD_SOURCE_MEMBERSHIP:
	case IP_DROP_SOURCE_MEMBERSHIP:
	case IP_MTU_DISCOVER:
	case IP_IPSEC_POLICY:
	case IP_XFRM_POLICY:
	case MCAST_BLOCK_SOURCE:
	case MCAST_UNBLOCK_SOURCE:
	case MCAST_JOIN_SOURCE_GROUP:
	case MCAST_LEAVE_SOURCE_GROUP:
	/* Linux's own: ancillary data and error queues on receive... */
	case IP_RECVTOS:
	case IP_RECVERR:
	case IP_RECVERR_RFC4884:
	case IP_RECVORIGDSTADDR:
	case IP_RECVFRAGSIZE:
	case IP_PASSSEC:
	/* ...and routing or delivery that the bypass does not follow. */
	case IP_UNICAST_IF:
	case IP_TRANSPARENT:
	case IP_MINTTL:
	case IP_ROUTER_ALERT:
	case IP_MULTICAST_ALL:
	case IP_MSFILTER:
	case MCAST_MSFILTER:
		return true;
	default:
		return false;
	}
}

static bool
ost_v6_opt_leaves(int optname)
{
	switch (optname) {
	case IPV6_PKTINFO:
	case IPV6_HOPLIMIT:
	case IPV6_NEXTHOP:
	case IPV6_HOPOPTS:
	case IPV6_DSTOPTS:
	case IPV6_RTHDR:
	case IPV6_RTHDRDSTOPTS:
	case IPV6_RECVHOPLIMIT:
	case IPV6_RECVHOPOPTS:
	case IPV6_RECVRTHDR:
	case IPV6_CHECKSUM:
	case IPV6_RECVTCLASS:
	case IPV6_DONTFRAG:
	case IPV6_MTU_DISCOVER:
	case IPV6_IPSEC_POLICY:
	case IPV6_XFRM_POLICY:
	case IPV6_ADDR_PREFERENCES:
	case IPV6_RECVPATHMTU:
	case IPV6_PATHMTU:
	case IPV6_TCLASS:
	case IPV6_V6ONLY:
	case IPV6_RECVDSTOPTS:
	case MCAST_BLOCK_SOURCE:
	case MCAST_UNBLOCK_SOURCE:
	case MCAST_JOIN_SOURCE_GROUP:
	case MCAST_LEAVE_SOURCE_GROUP:
	case MCAST_MSFILTER:
	case IPV6_2292PKTINFO:
	case IPV6_2292HOPOPTS:
	case IPV6_2292DSTOPTS:
	case IPV6_2292RTHDR:
	case IPV6_2292PKTOPTIONS:
	case IPV6_2292HOPLIMIT:
	case IPV6_RECVERR:
	case IPV6_RECVORIGDSTADDR:
	case IPV6_RECVFRAGSIZE:
	case IPV6_UNICAST_IF:
	case IPV6_TRANSPARENT:
	case IPV6_MINHOPCOUNT:
	case IPV6_ROUTER_ALERT:
	case IPV6_MULTICAST_ALL:
	case IPV6_JOIN_ANYCAST:
	case IPV6_ADDRFORM:
	case IPV6_AUTOFLOWLABEL:
		return true;
	default:
		return false;
	}
}

static bool
ost_socket_opt_leaves(int level, int optname)
{
	if (level == SOL_UDP)
		return optname == UDP_GRO || optname == UDP_CORK ||
		    optname == UDP_SEGMENT || optname == UDP_ENCAP;
	if (level != SOL_SOCKET)
		return false;
	switch (optname) {
	case SO_TIMESTAMPING_OLD:
	case SO_TIMESTAMPING_NEW:
	case SO_RXQ_OVFL:
	case SO_BINDTODEVICE:
	case SO_BINDTOIFINDEX:
	case SO_MARK:
	case SO_TXTIME:
		return true;
	default:
		return false;
	}
}

/* The receive-time options the bypass path answers itself. */
static bool
ost_is_stamp_opt(int optname)
{
	return optname == SO_TIMESTAMP_OLD || optname == SO_TIMESTAMP_NEW ||
	    optname == SO_TIMESTAMPNS_OLD || optname == SO_TIMESTAMPNS_NEW;
}

/*
 * An int option's value as the kernel read it: an int, or a single byte
 * when the caller gave less.
 */
static int
ost_opt_int(const void *optval, socklen_t optlen)
{
	int v;

	if (optlen >= sizeof(int)) {
		memcpy(&v, optval, sizeof(v));
		return v;
	}
	return *(const uint8_t *)optval;
}

/*
 * The control data of datagrams from the ring: bits of uost_rx_cmsgs set
 * or cleared.  The receive time's option carries its own cmsg type, the
 * SO_TIMESTAMP* value itself; as in the kernel the last one set is the
 * one, and any of them set to 0 turns the receive time off.
 */
static int
ost_set_rx_cmsgs(uost_t *up, uint32_t mask, uint32_t bits)
{
	(void)pthread_mutex_lock(&up->uost_lock);
	__atomic_store_n(&up->uost_rx_cmsgs, (up->uost_rx_cmsgs & ~mask) | bits,
	    __ATOMIC_RELAXED);
	(void)pthread_mutex_unlock(&up->uost_lock);
	return OST_OPT_KEEP;
}

/*
 * A TTL or hop-limit option the kernel accepted: the frames to the peer
 * carry what the kernel socket now reports, which turns -1 into the
 * kernel's default as the kernel does (1 for groups).
 */
static int
ost_sync_hops(uost_t *up)
{
	(void)pthread_mutex_lock(&up->uost_lock);
	if (up->uost_peer_set)
		ost_tpl_sync_hops(up);
	(void)pthread_mutex_unlock(&up->uost_lock);
	return OST_OPT_KEEP;
}

/*
 * Group datagrams the socket sends loop back to this host's members unless
 * the option says not to; frames on the handle never would, so while it
 * is on (the kernel's default) they go through the kernel socket.
 */
static void
ost_set_mc_loop(uost_t *up, bool loop)
{
	(void)pthread_mutex_lock(&up->uost_lock);
	up->uost_mc_noloop = !loop;
	(void)pthread_mutex_unlock(&up->uost_lock);
}

/*
 * The interface of an IPv4 membership: by index, by one of its addresses,
 * or, for neither, the one the kernel picks: the route to the group.
 */
static bool
ost_member_if_v4(const struct in_addr *group, uint32_t index,
    const struct in_addr *ifaddr, uint32_t *if_index, char *if_name)
{
	struct ether_addr scratch;
	struct in_addr gw;
	char name[IF_NAMESIZE];

	if (index == 0 && ifaddr != NULL && ifaddr->s_addr != INADDR_ANY)
		return ost_get_eaddr_v4(ifaddr, &scratch, if_index, if_name);
	if (index == 0 && !ost_get_route_v4(group, &index, &gw))
		return false;
	if (if_indextoname(index, name) == NULL)
		return false;
	if (if_name != NULL) {
		memset(if_name, 0, OST_IFNAME_SIZE);
		memcpy(if_name, name, strlen(name));
	}
	*if_index = index;
	return true;
}

/* ip_mreq, or Linux's ip_mreqn (told apart by the length). */
static void
ost_read_mreq(const void *optval, socklen_t optlen, struct in_addr *group,
    struct in_addr *ifaddr, uint32_t *index)
{
	const struct ip_mreqn *mn = (const struct ip_mreqn *)optval;

	*group = mn->imr_multiaddr;
	*ifaddr = mn->imr_address;
	*index =
	    optlen >= sizeof(struct ip_mreqn) ? (uint32_t)mn->imr_ifindex : 0;
}

static int
ost_join_v4(uost_t *up, const struct in_addr *group, uint32_t index,
    const struct in_addr *ifaddr)
{
	char name[OST_IFNAME_SIZE];
	struct in6_addr mapped;
	uint32_t if_index;

	/* An interface we cannot find: the kernel socket has the group. */
	if (!ost_member_if_v4(group, index, ifaddr, &if_index, name))
		return OST_OPT_KEEP;
	ost_map_v4(&mapped, group->s_addr);
	return ost_multicast_join(up, if_index, name, &mapped);
}

static int
ost_leave_v4(uost_t *up, const struct in_addr *group, uint32_t index,
    const struct in_addr *ifaddr)
{
	struct in6_addr mapped;
	uint32_t if_index;

	if (!ost_member_if_v4(group, index, ifaddr, &if_index, NULL))
		return OST_OPT_KEEP;
	ost_map_v4(&mapped, group->s_addr);
	return ost_multicast_leave(up, if_index, &mapped);
}

int
ost_process_v4_opt(uost_t *up, int optname, const void *optval,
    socklen_t optlen)
{
	struct in_addr group, ifaddr;
	uint32_t index;

	switch (optname) {
	case IP_TOS:
		(void)pthread_mutex_lock(&up->uost_lock);
		ost_tpl_set_tos(up, *(const uint8_t *)optval);
		(void)pthread_mutex_unlock(&up->uost_lock);
		return OST_OPT_KEEP;
	case IP_TTL:
	case IP_MULTICAST_TTL:
		return ost_sync_hops(up);
	case IP_MULTICAST_LOOP:
		ost_set_mc_loop(up, *(const uint8_t *)optval != 0);
		return OST_OPT_KEEP;
	case IP_MULTICAST_IF: {
		ost_mcast_if_t want;

		memset(&want, 0, sizeof(want));
		/* As the kernel reads it: ip_mreqn, ip_mreq (its second
		 * field), or a bare address. */
		if (optlen >= sizeof(struct ip_mreqn))
			ost_read_mreq(optval, optlen, &group, &want.omi_addr,
			    &want.omi_index);
		else if (optlen >= sizeof(struct ip_mreq))
			want.omi_addr =
			    ((const struct ip_mreq *)optval)->imr_interface;
		else
			memcpy(&want.omi_addr, optval, sizeof(want.omi_addr));
		/* "Whatever the route says": no fixed interface to follow,
		 * so group datagrams keep going through the kernel. */
		if (want.omi_index == 0 && want.omi_addr.s_addr == INADDR_ANY)
			return OST_OPT_KEEP;
		return ost_process_mcast_if(up, IP_MULTICAST_IF, &want);
	}
	case IP_PKTINFO:
		return ost_set_rx_cmsgs(up, OST_RX_PKTINFO,
		    ost_opt_int(optval, optlen) != 0 ? OST_RX_PKTINFO : 0);
	case IP_ADD_MEMBERSHIP:
		ost_read_mreq(optval, optlen, &group, &ifaddr, &index);
		return ost_join_v4(up, &group, index, &ifaddr);
	case IP_DROP_MEMBERSHIP:
		ost_read_mreq(optval, optlen, &group, &ifaddr, &index);
		return ost_leave_v4(up, &group, index, &ifaddr);
	case MCAST_JOIN_GROUP:
	case MCAST_LEAVE_GROUP: {
		const struct group_req *gr = (const struct group_req *)optval;

		if (gr->gr_group.ss_family != AF_INET)
			return OST_OPT_KEEP;
		group = ((const struct sockaddr_in *)&gr->gr_group)->sin_addr;
		return optname == MCAST_JOIN_GROUP ?
		    ost_join_v4(up, &group, gr->gr_interface, NULL) :
		    ost_leave_v4(up, &group, gr->gr_interface, NULL);
	}
	default:
		return ost_v4_opt_leaves(optname) ? OST_OPT_LEAVE :
						    OST_OPT_KEEP;
	}
}

int
ost_process_v6_opt(uost_t *up, int optname, const void *optval)
{
	switch (optname) {
	case IPV6_UNICAST_HOPS:
	case IPV6_MULTICAST_HOPS:
		return ost_sync_hops(up);
	case IPV6_MULTICAST_LOOP:
		ost_set_mc_loop(up, *(const int *)optval != 0);
		return OST_OPT_KEEP;
	case IPV6_RECVPKTINFO:
		return ost_set_rx_cmsgs(up, OST_RX_PKTINFO,
		    *(const int *)optval != 0 ? OST_RX_PKTINFO : 0);
	case IPV6_MULTICAST_IF:
		return ost_process_mcast_if(up, IPV6_MULTICAST_IF, optval);
	case IPV6_JOIN_GROUP:
	case IPV6_LEAVE_GROUP: {
		const struct ipv6_mreq *mr = (const struct ipv6_mreq *)optval;

		if (optname == IPV6_JOIN_GROUP)
			return ost_multicast_join(up, mr->ipv6mr_interface,
			    NULL, &mr->ipv6mr_multiaddr);
		return ost_multicast_leave(up, mr->ipv6mr_interface,
		    &mr->ipv6mr_multiaddr);
	}
	case MCAST_JOIN_GROUP:
	case MCAST_LEAVE_GROUP: {
		const struct group_req *gr = (const struct group_req *)optval;
		const struct in6_addr *group;

		if (gr->gr_group.ss_family != AF_INET6)
			return OST_OPT_LEAVE;
		group =
		    &((const struct sockaddr_in6 *)&gr->gr_group)->sin6_addr;
		if (optname == MCAST_JOIN_GROUP)
			return ost_multicast_join(up, gr->gr_interface, NULL,
			    group);
		return ost_multicast_leave(up, gr->gr_interface, group);
	}
	default:
		return ost_v6_opt_leaves(optname) ? OST_OPT_LEAVE :
						    OST_OPT_KEEP;
	}
}

/*
 * A receive or send time-out bounds the bypass path's waits as it bounds
 * the kernel's: EAGAIN when it passes.  Both layouts are two 64-bit fields
 * here, seconds and microseconds; the kernel has checked the range.
 */
static int
ost_set_timeo(hrtime_t *field, const void *optval)
{
	int64_t tv[2];

	memcpy(tv, optval, sizeof(tv));
	/* Beyond about 290 years: no limit, as far as anyone waits. */
	__atomic_store_n(field,
	    tv[0] >= INT64_MAX / NANOSEC - 1 ? 0 :
					       tv[0] * NANOSEC + tv[1] * 1000,
	    __ATOMIC_RELAXED);
	return OST_OPT_KEEP;
}

/*
 * IPv4 options on an IPv6 socket shape only its IPv4-mapped traffic, which
 * never takes the bypass, except a group that would bring IPv4 frames to
 * an IPv6 handle.
 */
static int
ost_v4_opt_on_v6(int optname)
{
	switch (optname) {
	case IP_ADD_MEMBERSHIP:
	case MCAST_JOIN_GROUP:
	case IP_MULTICAST_IF:
	case IP_ADD_SOURCE_MEMBERSHIP:
	case MCAST_JOIN_SOURCE_GROUP:
		return OST_OPT_LEAVE;
	default:
		return OST_OPT_KEEP;
	}
}

/*
 * The kernel socket's filter options: the socket leaves the bypass before
 * the kernel sees the call, so that the counting filter of ours is gone
 * and the application's call finds the socket as a kernel would.
 */
static bool
ost_filter_opt(int level, int optname)
{
	return level == SOL_SOCKET &&
	    (optname == SO_ATTACH_FILTER || optname == SO_ATTACH_BPF ||
		optname == SO_DETACH_FILTER || optname == SO_LOCK_FILTER);
}

int
ost_setsockopt(int sd, int level, int optname, const void *optval,
    socklen_t optlen)
{
	uost_t *up;
	int ret;

	if (ost_filter_opt(level, optname) && (up = ost_find_sd(sd)) != NULL) {
		ost_debug("%d leaves the bypass: level %d option %d\n", sd,
		    level, optname);
		ost_del(up, true);
		return real_setsockopt(sd, level, optname, optval, optlen);
	}
	ret = real_setsockopt(sd, level, optname, optval, optlen);
	if (ret != 0 || (up = ost_find_sd(sd)) == NULL)
		return ret;
	if (level == IPPROTO_IP && up->uost_is_v6)
		ret = ost_v4_opt_on_v6(optname);
	else if (level == IPPROTO_IP)
		ret = ost_process_v4_opt(up, optname, optval, optlen);
	else if (level == IPPROTO_IPV6)
		ret = ost_process_v6_opt(up, optname, optval);
	else if (level == SOL_SOCKET &&
	    (optname == SO_RCVTIMEO_OLD || optname == SO_RCVTIMEO_NEW))
		ret = ost_set_timeo(&up->uost_rcvtimeo, optval);
	else if (level == SOL_SOCKET &&
	    (optname == SO_SNDTIMEO_OLD || optname == SO_SNDTIMEO_NEW))
		ret = ost_set_timeo(&up->uost_sndtimeo, optval);
	else if (level == SOL_SOCKET && ost_is_stamp_opt(optname))
		ret = ost_set_rx_cmsgs(up, OST_RX_STAMP_MASK,
		    *(const int *)optval != 0 ? (uint32_t)optname : 0);
	else
		ret = ost_socket_opt_leaves(level, optname) ? OST_OPT_LEAVE :
							      OST_OPT_KEEP;
	if (ret != 0) {
		ost_debug("%d leaves the bypass: level %d option %d\n", sd,
		    level, optname);
		ost_del(up, true);
	} else {
		ost_release(up);
	}
	return 0;
}

int
ost_getsockopt(int sd, int level, int optname, void *optval, socklen_t *optlen)
{
	uost_t *up;

	if (level == SOL_SOCKET && optname == SO_OSTREL_STATS &&
	    optlen != NULL && optval != NULL &&
	    (up = ost_find_sd(sd)) != NULL) {
		bool served = false;

		(void)pthread_mutex_lock(&up->uost_lock);
		/* An older caller's shorter record gets its first fields. */
		if (*optlen >= SO_OSTREL_STATS_V1_SIZE && up->uost_frio_set) {
			so_ost_stats_t st;

			ost_stats_read(up, &st);
			if (*optlen > sizeof(so_ost_stats_t))
				*optlen = sizeof(so_ost_stats_t);
			memcpy(optval, &st, *optlen);
			served = true;
		}
		ost_release_locked(up);
		(void)pthread_mutex_unlock(&up->uost_lock);
		if (served)
			return 0;
	}
	return real_getsockopt(sd, level, optname, optval, optlen);
}
