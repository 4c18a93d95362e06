/*
 * rtnetlink plumbing shared by the route and link-address look-ups.
 *
 * Each look-up opens its own socket, so its port id alone tells its answers
 * from everybody else's; the sequence number tells a second request's
 * answer from the rest of the first one.  Every length in a received
 * buffer is checked against what is left of the buffer before it is
 * followed: the parsers are fed whatever recvmsg() returned.
 */
#include <errno.h>
#include <limits.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <sys/ioctl.h>
#include <netpacket/packet.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>

#include "os/libc.h"
#include "os/log.h"
#include "resolve/netlink.h"

bool
ost_nl_open(ost_nl_t *nl)
{
	struct sockaddr_nl sa;
	socklen_t salen = sizeof(sa);
	int fd, err;

	/* Close-on-exec: a concurrent fork and exec must not inherit it. */
	fd = real_socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
	if (fd < 0)
		return false;
	memset(&sa, 0, sizeof(sa));
	sa.nl_family = AF_NETLINK;
	if (real_bind(fd, (struct sockaddr *)&sa, sizeof(sa)) < 0 ||
	    getsockname(fd, (struct sockaddr *)&sa, &salen) < 0) {
		err = errno;
		(void)real_close(fd);
		errno = err;
		return false;
	}
	nl->nl_fd = fd;
	nl->nl_portid = sa.nl_pid;
	nl->nl_seq = 0;
	return true;
}

void
ost_nl_close(ost_nl_t *nl)
{
	if (nl->nl_fd >= 0)
		(void)real_close(nl->nl_fd);
	nl->nl_fd = -1;
}

bool
ost_nl_send(ost_nl_t *nl, struct nlmsghdr *req)
{
	struct sockaddr_nl kernel;

	req->nlmsg_seq = ++nl->nl_seq;
	req->nlmsg_pid = nl->nl_portid;
	memset(&kernel, 0, sizeof(kernel));
	kernel.nl_family = AF_NETLINK;
	return real_sendto(nl->nl_fd, req, req->nlmsg_len, 0,
		   (struct sockaddr *)&kernel, sizeof(kernel)) < 0 ?
	    false :
	    true;
}

ssize_t
ost_nl_recv(ost_nl_t *nl, void *buf, size_t size, hrtime_t deadline)
{
	for (;;) {
		struct sockaddr_nl from;
		struct iovec iov = { buf, size };
		struct msghdr msg;
		struct pollfd pfd = { nl->nl_fd, POLLIN, 0 };
		hrtime_t left = deadline - gethrtime();
		ssize_t n;

		if (left <= 0) {
			errno = ETIMEDOUT;
			return -1;
		}
		/* Rounded up, so that the last wait does not spin at 0 ms. */
		if (real_poll(&pfd, 1, (int)((left + 999999) / 1000000)) < 0) {
			if (errno == EINTR)
				continue;
			return -1;
		}
		memset(&msg, 0, sizeof(msg));
		msg.msg_name = &from;
		msg.msg_namelen = sizeof(from);
		msg.msg_iov = &iov;
		msg.msg_iovlen = 1;
		n = real_recvmsg(nl->nl_fd, &msg, MSG_DONTWAIT);
		if (n < 0) {
			if (errno == EAGAIN || errno == EINTR)
				continue;
			return -1;
		}
		if (msg.msg_flags & MSG_TRUNC) {
			errno = EMSGSIZE;
			return -1;
		}
		if (msg.msg_namelen < sizeof(from) || from.nl_pid != 0)
			continue;
		return n;
	}
}

/* One message or attribute of a received buffer, bounds checked. */
typedef struct nl_cursor {
	const uint8_t *nc_p;
	size_t nc_left;
} nl_cursor_t;

/* Moves past step bytes, or to the end when fewer are left. */
static void
nl_skip(nl_cursor_t *c, size_t step)
{
	if (step >= c->nc_left) {
		c->nc_left = 0;
	} else {
		c->nc_p += step;
		c->nc_left -= step;
	}
}

/*
 * The next netlink message: its header copied out (the buffer need not be
 * aligned), its payload and the payload's length.
 */
static bool
nl_next_msg(nl_cursor_t *c, struct nlmsghdr *h, const uint8_t **data,
    size_t *dlen)
{
	if (c->nc_left < sizeof(*h))
		return false;
	memcpy(h, c->nc_p, sizeof(*h));
	if (h->nlmsg_len < NLMSG_HDRLEN || h->nlmsg_len > c->nc_left)
		return false;
	*data = c->nc_p + NLMSG_HDRLEN;
	*dlen = h->nlmsg_len - NLMSG_HDRLEN;
	nl_skip(c, NLMSG_ALIGN(h->nlmsg_len));
	return true;
}

/* The next attribute of a message's attribute area. */
static bool
nl_next_attr(nl_cursor_t *c, uint16_t *type, const uint8_t **data, size_t *dlen)
{
	struct rtattr a;

	if (c->nc_left < sizeof(a))
		return false;
	memcpy(&a, c->nc_p, sizeof(a));
	if (a.rta_len < RTA_LENGTH(0) || a.rta_len > c->nc_left)
		return false;
	*type = a.rta_type;
	*data = c->nc_p + RTA_LENGTH(0);
	*dlen = a.rta_len - RTA_LENGTH(0);
	nl_skip(c, RTA_ALIGN(a.rta_len));
	return true;
}

/* The attributes after a fixed header of hdrlen bytes. */
static bool
nl_attrs(const uint8_t *data, size_t dlen, size_t hdrlen, nl_cursor_t *c)
{
	size_t off = NLMSG_ALIGN(hdrlen);

	if (dlen < hdrlen)
		return false;
	c->nc_p = data + (off < dlen ? off : dlen);
	c->nc_left = off < dlen ? dlen - off : 0;
	return true;
}

/* The error of an NLMSG_ERROR or NLMSG_DONE payload, as a positive errno. */
static int
nl_errno(const uint8_t *data, size_t dlen)
{
	int err;

	if (dlen < sizeof(err))
		return EPROTO;
	memcpy(&err, data, sizeof(err));
	if (err == INT_MIN)
		return EPROTO;
	return err < 0 ? -err : err;
}

/* What the kernel itself answers for these route types. */
static int
route_type_errno(uint8_t type)
{
	switch (type) {
	case RTN_UNREACHABLE:
		return EHOSTUNREACH;
	case RTN_PROHIBIT:
		return EACCES;
	case RTN_BLACKHOLE:
		return EINVAL;
	case RTN_THROW:
		return EAGAIN;
	default:
		return 0;
	}
}

/* The usable facts of a route answer; nr_oif stays 0 if there are none. */
static void
route_answer(const uint8_t *data, size_t dlen, int family, ost_nl_route_t *rt)
{
	size_t alen = family == AF_INET ? 4 : 16;
	struct rtmsg rtm;
	nl_cursor_t c;
	uint16_t type;
	const uint8_t *a;
	size_t len;
	uint32_t oif = 0;
	bool bad = false;

	memset(rt, 0, sizeof(*rt));
	if (!nl_attrs(data, dlen, sizeof(rtm), &c))
		return;
	memcpy(&rtm, data, sizeof(rtm));
	if (rtm.rtm_family != family)
		return;
	while (nl_next_attr(&c, &type, &a, &len)) {
		switch (type) {
		case RTA_OIF:
			if (len != sizeof(oif)) {
				bad = true;
				break;
			}
			memcpy(&oif, a, sizeof(oif));
			break;
		case RTA_GATEWAY:
			/* A gateway we cannot read must not pass for on-link. */
			if (len != alen) {
				bad = true;
				break;
			}
			memcpy(rt->nr_gw, a, alen);
			rt->nr_has_gw = true;
			break;
		case RTA_VIA: {
			/* A next hop of another family cannot be reached. */
			uint16_t vf;

			if (len != sizeof(vf) + alen) {
				bad = true;
				break;
			}
			memcpy(&vf, a, sizeof(vf));
			if (vf != family) {
				bad = true;
				break;
			}
			memcpy(rt->nr_gw, a + sizeof(vf), alen);
			rt->nr_has_gw = true;
			break;
		}
		default:
			break;
		}
	}
	rt->nr_oif = bad ? 0 : oif;
}

ost_nl_status_t
ost_nl_route_parse(const void *buf, size_t len, uint32_t seq, uint32_t portid,
    int family, ost_nl_route_t *rt)
{
	nl_cursor_t c = { (const uint8_t *)buf, len };
	struct nlmsghdr h;
	const uint8_t *data;
	size_t dlen;

	while (nl_next_msg(&c, &h, &data, &dlen)) {
		if (h.nlmsg_seq != seq || h.nlmsg_pid != portid)
			continue;
		if (h.nlmsg_type == NLMSG_ERROR) {
			int err = nl_errno(data, dlen);

			if (err == 0) {
				/* An acknowledgement without a route. */
				memset(rt, 0, sizeof(*rt));
				return OST_NL_ANSWER;
			}
			memset(rt, 0, sizeof(*rt));
			rt->nr_error = err;
			return OST_NL_ERROR;
		}
		if (h.nlmsg_type != RTM_NEWROUTE)
			continue;
		if (dlen >= sizeof(struct rtmsg)) {
			struct rtmsg rtm;
			int err;

			memcpy(&rtm, data, sizeof(rtm));
			err = route_type_errno(rtm.rtm_type);
			if (err != 0) {
				memset(rt, 0, sizeof(*rt));
				rt->nr_error = err;
				return OST_NL_ERROR;
			}
		}
		route_answer(data, dlen, family, rt);
		return OST_NL_ANSWER;
	}
	return OST_NL_MORE;
}

/* States in which the kernel holds, and reports, a link-layer address. */
#define NEIGH_COMPLETE_STATES                                                \
	(NUD_REACHABLE | NUD_STALE | NUD_DELAY | NUD_PROBE | NUD_PERMANENT | \
	    NUD_NOARP)

/* true if the message is an entry for dst; fills e. */
static bool
neigh_entry(const uint8_t *data, size_t dlen, int family, const void *dst,
    uint32_t ifindex, ost_nl_neigh_t *e)
{
	size_t alen = family == AF_INET ? 4 : 16;
	struct ndmsg ndm;
	nl_cursor_t c;
	uint16_t type;
	const uint8_t *a;
	size_t len;
	bool match = false, has_ll = false;

	if (!nl_attrs(data, dlen, sizeof(ndm), &c))
		return false;
	memcpy(&ndm, data, sizeof(ndm));
	if (ndm.ndm_family != family || (ndm.ndm_flags & NTF_PROXY) ||
	    ndm.ndm_ifindex <= 0 ||
	    (ifindex != 0 && (uint32_t)ndm.ndm_ifindex != ifindex))
		return false;
	memset(e, 0, sizeof(*e));
	while (nl_next_attr(&c, &type, &a, &len)) {
		switch (type) {
		case NDA_DST:
			match = len == alen && memcmp(a, dst, alen) == 0;
			break;
		case NDA_LLADDR:
			has_ll = true;
			e->nn_lladdr_len = (uint32_t)len;
			memcpy(e->nn_lladdr, a,
			    len < sizeof(e->nn_lladdr) ? len :
							 sizeof(e->nn_lladdr));
			break;
		default:
			break;
		}
	}
	if (!match)
		return false;
	e->nn_found = true;
	e->nn_ifindex = (uint32_t)ndm.ndm_ifindex;
	e->nn_state = ndm.ndm_state;
	e->nn_complete = has_ll && (ndm.ndm_state & NEIGH_COMPLETE_STATES);
	return true;
}

ost_nl_status_t
ost_nl_neigh_parse(const void *buf, size_t len, uint32_t seq, uint32_t portid,
    int family, const void *dst, uint32_t ifindex, ost_nl_neigh_t *nb)
{
	nl_cursor_t c = { (const uint8_t *)buf, len };
	struct nlmsghdr h;
	const uint8_t *data;
	size_t dlen;
	ost_nl_neigh_t e;

	while (nl_next_msg(&c, &h, &data, &dlen)) {
		if (h.nlmsg_seq != seq || h.nlmsg_pid != portid)
			continue;
		if (h.nlmsg_type == NLMSG_ERROR || h.nlmsg_type == NLMSG_DONE) {
			int err = nl_errno(data, dlen);

			if (err != 0 &&
			    (h.nlmsg_type == NLMSG_ERROR ||
				dlen >= sizeof(int))) {
				nb->nn_error = err;
				return OST_NL_ERROR;
			}
			return OST_NL_ANSWER;
		}
		if (h.nlmsg_type != RTM_NEWNEIGH ||
		    !neigh_entry(data, dlen, family, dst, ifindex, &e))
			continue;
		if (e.nn_complete) {
			*nb = e;
			return OST_NL_ANSWER;
		}
		if (!nb->nn_found)
			*nb = e;
	}
	return OST_NL_MORE;
}

ost_nl_status_t
ost_nl_neigh_query(ost_nl_t *nl, int family, const void *dst, uint32_t ifindex,
    ost_nl_neigh_t *nb)
{
	struct {
		struct nlmsghdr h;
		struct ndmsg ndm;
		struct rtattr ifa;
		uint32_t ifi;
	} req;
	alignas(struct nlmsghdr) uint8_t buf[OST_NL_BUF_SIZE];
	hrtime_t deadline;

	memset(nb, 0, sizeof(*nb));
	memset(&req, 0, sizeof(req));
	req.h.nlmsg_len = NLMSG_LENGTH(sizeof(req.ndm));
	req.h.nlmsg_type = RTM_GETNEIGH;
	req.h.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
	req.ndm.ndm_family = (uint8_t)family;
	if (ifindex != 0) {
		/* Lets the kernel leave out other interfaces' entries. */
		req.ifa.rta_type = NDA_IFINDEX;
		req.ifa.rta_len = RTA_LENGTH(sizeof(req.ifi));
		req.ifi = ifindex;
		req.h.nlmsg_len = sizeof(req);
	}
	if (!ost_nl_send(nl, &req.h)) {
		nb->nn_error = errno;
		return OST_NL_ERROR;
	}
	deadline = gethrtime() + (hrtime_t)OST_NL_TIMEOUT_MS * 1000000;
	for (;;) {
		ssize_t n = ost_nl_recv(nl, buf, sizeof(buf), deadline);
		ost_nl_status_t st;

		if (n < 0) {
			memset(nb, 0, sizeof(*nb));
			nb->nn_error = errno;
			return OST_NL_ERROR;
		}
		st = ost_nl_neigh_parse(buf, (size_t)n, nl->nl_seq,
		    nl->nl_portid, family, dst, ifindex, nb);
		if (st != OST_NL_MORE)
			return st;
	}
}

void
ost_if_name_copy(char *dst, const char *src)
{
	size_t i;

	for (i = 0; i < OST_IFNAME_SIZE - 1 && src[i] != '\0' && src[i] != ':';
	     i++)
		dst[i] = src[i];
	dst[i] = '\0';
}

bool
ost_if_ether(const struct ifaddrs *list, uint32_t index,
    struct ether_addr *ether)
{
	for (const struct ifaddrs *ifa = list; ifa != NULL;
	     ifa = ifa->ifa_next) {
		const struct sockaddr_ll *sll =
		    (const struct sockaddr_ll *)ifa->ifa_addr;

		if (sll == NULL || sll->sll_family != AF_PACKET ||
		    (uint32_t)sll->sll_ifindex != index)
			continue;
		if (sll->sll_hatype != ARPHRD_ETHER) {
			ost_debug("not an Ethernet interface: %s\n",
			    ifa->ifa_name);
			return false;
		}
		if (sll->sll_halen != ETHER_ADDR_LEN) {
			ost_debug("mismatched MAC address length: %d\n",
			    (int)sll->sll_halen);
			return false;
		}
		memcpy(ether->ether_addr_octet, sll->sll_addr, ETHER_ADDR_LEN);
		return true;
	}
	ost_debug("no link-layer address for index %u\n", index);
	return false;
}

uint32_t
ost_if_mtu(const char *if_name)
{
	ost_errno_keep keep;
	struct ifreq ifr;
	int fd, ret;

	fd = real_socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
	if (fd < 0)
		return 0;
	memset(&ifr, 0, sizeof(ifr));
	snprintf(ifr.ifr_name, sizeof(ifr.ifr_name), "%s", if_name);
	ret = real_ioctl(fd, SIOCGIFMTU, &ifr);
	(void)real_close(fd);
	if (ret != 0) {
		ost_debug("SIOCGIFMTU %s: %d\n", if_name, errno);
		return 0;
	}
	return ifr.ifr_mtu > 0 ? (uint32_t)ifr.ifr_mtu : 0;
}
