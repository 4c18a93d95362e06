/*
 * Route look-up: which interface a datagram to a destination leaves on and
 * whether it goes to a gateway, asked of the kernel with one RTM_GETROUTE
 * per call.  The transmit set-up stores the result; nothing is kept here.
 */
#include <arpa/inet.h>
#include <errno.h>
#include <linux/rtnetlink.h>
#include <string.h>

#include "os/libc.h"
#include "os/log.h"
#include "resolve/netlink.h"
#include "resolve/resolve.h"

/*
 * One route query for dst (alen bytes of family).  The outputs are written
 * only when the kernel names an interface.
 */
static bool
get_route(int family, const void *dst, size_t alen, uint32_t *if_index,
    void *gateway)
{
	struct {
		struct nlmsghdr h;
		struct rtmsg rtm;
		struct rtattr dst;
		uint8_t addr[16];
	} req;
	alignas(struct nlmsghdr) uint8_t buf[OST_NL_BUF_SIZE];
	ost_nl_t nl;
	ost_nl_route_t rt;
	ost_nl_status_t st = OST_NL_MORE;
	hrtime_t deadline;

	if (!ost_nl_open(&nl)) {
		ost_debug("cannot open routing socket\n");
		return false;
	}
	memset(&req, 0, sizeof(req));
	req.h.nlmsg_len =
	    NLMSG_LENGTH(sizeof(req.rtm)) + RTA_SPACE((unsigned int)alen);
	req.h.nlmsg_type = RTM_GETROUTE;
	req.h.nlmsg_flags = NLM_F_REQUEST;
	req.rtm.rtm_family = (uint8_t)family;
	req.rtm.rtm_dst_len = (uint8_t)(alen * 8);
	req.dst.rta_type = RTA_DST;
	req.dst.rta_len = RTA_LENGTH((unsigned int)alen);
	memcpy(req.addr, dst, alen);
	if (!ost_nl_send(&nl, &req.h)) {
		ost_debug("cannot write to routing socket\n");
		ost_nl_close(&nl);
		return false;
	}
	/*
	 * The kernel answers at once; the deadline only keeps a lost answer
	 * from holding the caller, and the socket record's lock, for ever.
	 */
	deadline = gethrtime() + (hrtime_t)OST_NL_TIMEOUT_MS * 1000000;
	while (st == OST_NL_MORE) {
		ssize_t n = ost_nl_recv(&nl, buf, sizeof(buf), deadline);

		if (n < 0) {
			ost_debug("cannot read from routing socket\n");
			ost_nl_close(&nl);
			return false;
		}
		st = ost_nl_route_parse(buf, (size_t)n, nl.nl_seq, nl.nl_portid,
		    family, &rt);
	}
	ost_nl_close(&nl);
	if (st == OST_NL_ERROR) {
		ost_debug("route get errno: %d\n", rt.nr_error);
		return false;
	}
	if (rt.nr_oif == 0)
		return false;
	if (rt.nr_has_gw) {
		char text[INET6_ADDRSTRLEN];

		memcpy(gateway, rt.nr_gw, alen);
		ost_debug("gw: %s\n",
		    inet_ntop(family, rt.nr_gw, text, sizeof(text)));
	} else {
		memset(gateway, 0, alen);
	}
	*if_index = rt.nr_oif;
	return true;
}

bool
ost_get_route_v4(const struct in_addr *dst, uint32_t *if_index,
    struct in_addr *gateway)
{
	ost_errno_keep keep;

	return get_route(AF_INET, dst, sizeof(*dst), if_index, gateway);
}

bool
ost_get_route_v6(const struct in6_addr *dst, uint32_t *if_index,
    struct in6_addr *gateway)
{
	ost_errno_keep keep;

	return get_route(AF_INET6, dst, sizeof(*dst), if_index, gateway);
}
