/*
 * Received frames: is this frame the socket's, where is its payload, who
 * sent it; and the copy of the payload into the application's buffers.
 *
 * A frame reaches a socket only through the receive filter of its handle,
 * so a frame that is not UDP or not addressed to the socket means the
 * filter or the frame library let something through; it is dropped and
 * counted rather than delivered, and never ends the process: whoever sends
 * frames must not be able to.  So is a frame whose lengths do not add up
 * (nothing beyond the frame is read, whatever they say) and one from a
 * source the kernel would call martian.
 *
 * IPv4 and IPv6 differ here only in where the fields lie and how long the
 * addresses are: one table per family says so.
 */
#include <arpa/inet.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "core/addr.h"
#include "core/receive.h"

/* Offsets from the first byte of the Ethernet header. */
typedef struct ost_pkt_layout {
	const char *pl_name;
	size_t pl_payload;  /* the UDP payload */
	size_t pl_len;      /* the IP length field */
	size_t pl_len_base; /* where the IP length field counts from */
	size_t pl_len_min;  /* the least it may say: the UDP header */
	size_t pl_proto;    /* protocol or next header */
	size_t pl_src;
	size_t pl_dst;
	size_t pl_addr_len;
	size_t pl_udp;         /* the UDP header */
	size_t pl_udp_len_off; /* the UDP length is the IP length less this */
	uint16_t pl_ethertype;
	uint8_t pl_ver_mask; /* the IP header's first byte, masked... */
	uint8_t pl_ver;      /* ...is this: the version, IPv4 without options */
	uint8_t pl_group_mask; /* a group address's first byte, masked... */
	uint8_t pl_group;      /* ...is this */
} ost_pkt_layout_t;

static const ost_pkt_layout_t ost_layout_v4 = {
	.pl_name = "IPv4",
	.pl_payload = OST_PKT_OFF_V4,
	.pl_len = 16,
	.pl_len_base = 14,
	.pl_len_min = 28,
	.pl_proto = 23,
	.pl_src = 26,
	.pl_dst = 30,
	.pl_addr_len = 4,
	.pl_udp = 34,
	.pl_udp_len_off = 20,
	.pl_ethertype = 0x0800,
	.pl_ver_mask = 0xff,
	.pl_ver = 0x45,
	.pl_group_mask = 0xf0,
	.pl_group = 0xe0,
};
static const ost_pkt_layout_t ost_layout_v6 = {
	.pl_name = "IPv6",
	.pl_payload = OST_PKT_OFF_V6,
	.pl_len = 18,
	.pl_len_base = 54,
	.pl_len_min = 8,
	.pl_proto = 20,
	.pl_src = 22,
	.pl_dst = 38,
	.pl_addr_len = 16,
	.pl_udp = 54,
	.pl_udp_len_off = 0,
	.pl_ethertype = 0x86dd,
	.pl_ver_mask = 0xf0,
	.pl_ver = 0x60,
	.pl_group_mask = 0xff,
	.pl_group = 0xff,
};

static inline const ost_pkt_layout_t *
ost_layout(const uost_t *up)
{
	return up->uost_is_v6 ? &ost_layout_v6 : &ost_layout_v4;
}

/* The record's addresses as they lie in a frame of the socket's family. */
static inline const uint8_t *
ost_addr_bytes(const uost_t *up, const struct in6_addr *a)
{
	return up->uost_is_v6 ? a->s6_addr : &a->s6_addr[12];
}

static inline size_t
be16_at(const uint8_t *p)
{
	return (size_t)p[0] << 8 | p[1];
}

static inline in_port_t
port_at(const uint8_t *p)
{
	in_port_t port;

	memcpy(&port, p, sizeof(port));
	return port;
}

static const uint8_t ost_zero_addr[16] = {};

/*
 * Sources the kernel drops a datagram for: multicast, the limited
 * broadcast, "this network", loopback arriving on a real link, and in
 * IPv6 an IPv4-mapped one, which could pass for an IPv4 sender.
 */
static bool
ost_martian_src(const uost_t *up, const uint8_t *src)
{
	if (up->uost_is_v6) {
		static const uint8_t loop6[16] = { 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
			0, 0, 0, 0, 0, 1 };
		static const uint8_t mapped[12] = { 0, 0, 0, 0, 0, 0, 0, 0, 0,
			0, 0xff, 0xff };

		return src[0] == 0xff || memcmp(src, loop6, 16) == 0 ||
		    memcmp(src, mapped, sizeof(mapped)) == 0;
	}
	return src[0] == 0 || src[0] == 127 || (src[0] & 0xf0) == 0xe0 ||
	    (src[0] == 255 && src[1] == 255 && src[2] == 255 && src[3] == 255);
}

ost_pkt_verdict_t
ost_check_pkt(const uost_t *up, const uint8_t *frame, size_t framelen,
    ost_pkt_info_t *pi)
{
	const ost_pkt_layout_t *l = ost_layout(up);
	const uint8_t *laddr = ost_addr_bytes(up, &up->uost_laddr_v6);
	size_t iplen;

	if (framelen < l->pl_payload)
		return OST_PKT_SHORT;
	pi->pi_proto = frame[l->pl_proto];
	/* The fixed offsets hold only for plain UDP in an unfragmented
	 * IPv4 header without options, or an IPv6 one without extensions. */
	if (pi->pi_proto != IPPROTO_UDP ||
	    be16_at(frame + 12) != l->pl_ethertype ||
	    (frame[14] & l->pl_ver_mask) != l->pl_ver ||
	    (!up->uost_is_v6 && (be16_at(frame + 20) & 0x3fff) != 0))
		return OST_PKT_NOT_UDP;
	iplen = be16_at(frame + l->pl_len);
	if (iplen + l->pl_len_base > framelen)
		return OST_PKT_TRUNCATED;
	if (iplen < l->pl_len_min)
		return OST_PKT_SHORT;
	/* The payload's length comes from the IP header: a UDP length that
	 * says otherwise makes the lengths disagree, which counts as cut. */
	if (be16_at(frame + l->pl_udp + 4) != iplen - l->pl_udp_len_off)
		return OST_PKT_TRUNCATED;
	pi->pi_len = iplen - l->pl_len_min;
	pi->pi_sport = port_at(frame + l->pl_udp);
	pi->pi_dport = port_at(frame + l->pl_udp + 2);
	if (ost_martian_src(up, frame + l->pl_src))
		return OST_PKT_MARTIAN;
	/* A group's frames carry the group, not the local address; only
	 * the socket's own group filters bring them here. */
	if ((memcmp(laddr, ost_zero_addr, l->pl_addr_len) != 0 &&
		memcmp(laddr, frame + l->pl_dst, l->pl_addr_len) != 0 &&
		(frame[l->pl_dst] & l->pl_group_mask) != l->pl_group) ||
	    pi->pi_dport != up->uost_lport)
		return OST_PKT_NOT_FOR_US;
	if (up->uost_connected &&
	    (pi->pi_sport != up->uost_fport ||
		memcmp(frame + l->pl_src,
		    ost_addr_bytes(up, &up->uost_faddr_v6),
		    l->pl_addr_len) != 0))
		return OST_PKT_FOREIGN;
	return OST_PKT_ACCEPT;
}

static const char *const ost_verdict_text[] = {
	[OST_PKT_ACCEPT] = "accepted",
	[OST_PKT_FOREIGN] = "another peer",
	[OST_PKT_SHORT] = "shorter than its headers",
	[OST_PKT_NOT_UDP] = "not plain UDP",
	[OST_PKT_TRUNCATED] = "truncated",
	[OST_PKT_NOT_FOR_US] = "not for this socket",
	[OST_PKT_MARTIAN] = "martian source",
};

/* The sender, as the kernel writes it: cut to the caller's length. */
static void
ost_pkt_from(const uost_t *up, const uint8_t *frame, in_port_t sport,
    void *from, socklen_t *fromlen)
{
	const ost_pkt_layout_t *l = ost_layout(up);

	if (up->uost_is_v6) {
		struct sockaddr_in6 *sin6 = (struct sockaddr_in6 *)from;

		if (*fromlen < (socklen_t)sizeof(*sin6))
			return;
		*fromlen = sizeof(*sin6);
		sin6->sin6_family = AF_INET6;
		sin6->sin6_port = sport;
		sin6->sin6_flowinfo = 0;
		memcpy(&sin6->sin6_addr, frame + l->pl_src, l->pl_addr_len);
		/* As the kernel does: a link-local sender needs its link. */
		sin6->sin6_scope_id = IN6_IS_ADDR_LINKLOCAL(&sin6->sin6_addr) ?
		    up->uost_if_index :
		    0;
	} else {
		struct sockaddr_in *sin = (struct sockaddr_in *)from;

		if (*fromlen < (socklen_t)sizeof(*sin))
			return;
		*fromlen = sizeof(*sin);
		sin->sin_family = AF_INET;
		sin->sin_port = sport;
		memcpy(&sin->sin_addr, frame + l->pl_src, l->pl_addr_len);
	}
}

bool
ost_parse_pkt(uost_t *up, const void *frame, uint8_t **payload, size_t *len,
    void *from, socklen_t *fromlen)
{
	const uint8_t *f = (const uint8_t *)frame;
	ost_pkt_info_t pi;
	ost_pkt_verdict_t v = ost_check_pkt(up, f, *len, &pi);

	if (v != OST_PKT_ACCEPT) {
		ost_debug("%d: frame of %zu bytes dropped: %s (port %d)\n",
		    up->uost_sd, *len, ost_verdict_text[v],
		    v >= OST_PKT_NOT_FOR_US ? ntohs(pi.pi_dport) : 0);
		if (v != OST_PKT_FOREIGN)
			up->uost_rx_dropped++;
		return false;
	}
	*len = pi.pi_len;
	if (from != NULL)
		ost_pkt_from(up, f, pi.pi_sport, from, fromlen);
	if (payload != NULL)
		*payload =
		    const_cast<uint8_t *>(f) + ost_layout(up)->pl_payload;
	return true;
}

ssize_t
ost_copy_pkt_cut(uost_t *up, struct msghdr *msg, const void *frame, size_t len,
    size_t *whole)
{
	socklen_t *fromlen = msg->msg_name != NULL ? &msg->msg_namelen : NULL;
	uint8_t *p;
	size_t left = len, copied = 0;

	if (!ost_parse_pkt(up, frame, &p, &left, msg->msg_name, fromlen))
		return -1;
	*whole = left;
	for (size_t i = 0; i < msg->msg_iovlen && left != 0; i++) {
		const struct iovec *iov = &msg->msg_iov[i];
		size_t n = left < iov->iov_len ? left : iov->iov_len;

		if (n == 0)
			continue;
		memcpy(iov->iov_base, p, n);
		p += n;
		copied += n;
		left -= n;
	}
	return (ssize_t)copied;
}

ssize_t
ost_copy_pkt(uost_t *up, struct msghdr *msg, void *frame, size_t len)
{
	size_t whole;

	return ost_copy_pkt_cut(up, msg, frame, len, &whole);
}

/* Where the next control message goes, and what is left of the buffer. */
typedef struct ost_cmsg_out {
	uint8_t *co_p;
	size_t co_left;
	int co_flags;
} ost_cmsg_out_t;

static bool
ost_cmsg_room(const ost_cmsg_out_t *o)
{
	return o->co_p != NULL && o->co_left >= sizeof(struct cmsghdr);
}

/* As the kernel's put_cmsg: a message cut to what is left, then none. */
static void
ost_put_cmsg(ost_cmsg_out_t *o, int level, int type, const void *data,
    size_t len)
{
	struct cmsghdr h;
	size_t step = CMSG_SPACE(len);

	memset(&h, 0, sizeof(h));
	h.cmsg_len = CMSG_LEN(len);
	h.cmsg_level = level;
	h.cmsg_type = type;
	if (!ost_cmsg_room(o)) {
		o->co_flags |= MSG_CTRUNC;
		return;
	}
	if (o->co_left < h.cmsg_len) {
		o->co_flags |= MSG_CTRUNC;
		h.cmsg_len = o->co_left;
	}
	memcpy(o->co_p, &h, sizeof(h));
	memcpy(o->co_p + CMSG_LEN(0), data, h.cmsg_len - CMSG_LEN(0));
	if (step > o->co_left)
		step = o->co_left;
	o->co_p += step;
	o->co_left -= step;
}

/*
 * The kernel's order: the socket's receive time first, then the IP
 * level's packet information.  A group's datagram names an address of the
 * interface as its local one; the socket's own is that address.
 */
void
ost_pkt_cmsgs(const uost_t *up, struct msghdr *msg, const void *frame,
    const struct timespec *ts)
{
	uint32_t want = __atomic_load_n(&up->uost_rx_cmsgs, __ATOMIC_RELAXED);
	const ost_pkt_layout_t *l = ost_layout(up);
	const uint8_t *dst = (const uint8_t *)frame + l->pl_dst;
	ost_cmsg_out_t o = { (uint8_t *)msg->msg_control, msg->msg_controllen,
		0 };
	int stamp = (int)(want & OST_RX_STAMP_MASK);

	if (stamp != 0) {
		struct timespec now = {};
		int64_t t[2];

		if (ts == NULL && ost_cmsg_room(&o)) {
			(void)clock_gettime(CLOCK_REALTIME, &now);
			ts = &now;
		} else if (ts == NULL) {
			ts = &now;
		}
		/* timeval or timespec: two 64-bit fields either way here. */
		t[0] = ts->tv_sec;
		t[1] = stamp == SO_TIMESTAMP_OLD || stamp == SO_TIMESTAMP_NEW ?
		    ts->tv_nsec / 1000 :
		    ts->tv_nsec;
		ost_put_cmsg(&o, SOL_SOCKET, stamp, t, sizeof(t));
	}
	if (want & OST_RX_PKTINFO) {
		if (up->uost_is_v6) {
			struct in6_pktinfo pi;

			memcpy(&pi.ipi6_addr, dst, sizeof(pi.ipi6_addr));
			pi.ipi6_ifindex = up->uost_if_index;
			ost_put_cmsg(&o, SOL_IPV6, IPV6_PKTINFO, &pi,
			    sizeof(pi));
		} else {
			struct in_pktinfo pi;

			pi.ipi_ifindex = (int)up->uost_if_index;
			memcpy(&pi.ipi_addr, dst, sizeof(pi.ipi_addr));
			if ((dst[0] & l->pl_group_mask) == l->pl_group)
				pi.ipi_spec_dst.s_addr =
				    ost_unmap_v4(&up->uost_laddr_v6);
			else
				pi.ipi_spec_dst = pi.ipi_addr;
			ost_put_cmsg(&o, SOL_IP, IP_PKTINFO, &pi, sizeof(pi));
		}
	}
	msg->msg_controllen =
	    o.co_p == NULL ? 0 : (size_t)(o.co_p - (uint8_t *)msg->msg_control);
	msg->msg_flags = o.co_flags;
}
