/*
 * Received frames: is this frame the socket's, where is its payload, who
 * sent it; and the copy of the payload into the application's buffers.
 *
 * A frame reaches a socket only through the receive filter of its handle,
 * so a frame that is not UDP or not addressed to the socket means the
 * filter or the frame library is broken: the process ends with a message
 * rather than deliver someone else's data.  A frame whose IP length runs
 * past the end of the frame ends it too.  A frame that is not even as long
 * as its own headers, or whose IP length claims less than them, is dropped:
 * none of its lengths can be trusted to locate a payload.  Whatever the
 * length fields say, nothing beyond the frame is read.
 */
#include <arpa/inet.h>
#include <libintl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "ost_impl.h"

/* Offsets from the first byte of the Ethernet header. */
#define V4_LEN		16	/* total length */
#define V4_PROTO	23
#define V4_SRC		26
#define V4_DST		30
#define V4_SPORT	34
#define V4_DPORT	36
#define V4_HDRS		28	/* IPv4 + UDP headers */

#define V6_PLEN		18	/* payload length: UDP header + payload */
#define V6_NXT		20
#define V6_SRC		22
#define V6_DST		38
#define V6_SPORT	54
#define V6_DPORT	56
#define V6_IP_END	54	/* Ethernet + IPv6 headers */

#define ETH_LEN		14

static inline unsigned
be16_at(const uint8_t *p)
{
	return (unsigned)p[0] << 8 | p[1];
}

static inline in_port_t
port_at(const uint8_t *p)
{
	in_port_t port;

	memcpy(&port, p, sizeof (port));
	return port;
}

static const uint8_t ost_zero_addr[16] = {};

ost_pkt_verdict_t
ost_check_pkt_v4(const uost_t *up, const uint8_t *frame, size_t framelen,
    ost_pkt_info_t *pi)
{
	const uint8_t *laddr = &up->uost_laddr_v6.s6_addr[12];
	size_t iplen;

	if (framelen < OST_PKT_OFF_V4)
		return OST_PKT_SHORT;
	pi->pi_proto = frame[V4_PROTO];
	if (pi->pi_proto != IPPROTO_UDP)
		return OST_PKT_NOT_UDP;
	iplen = be16_at(frame + V4_LEN);
	if (iplen + ETH_LEN > framelen)
		return OST_PKT_TRUNCATED;
	if (iplen < V4_HDRS)
		return OST_PKT_SHORT;
	pi->pi_len = iplen - V4_HDRS;
	pi->pi_dport = port_at(frame + V4_DPORT);
	pi->pi_sport = port_at(frame + V4_SPORT);
	/* A group's frames carry the group, not the local address; only
	 * the socket's own group filters bring them here. */
	if ((memcmp(laddr, ost_zero_addr, 4) != 0 &&
	    memcmp(laddr, frame + V4_DST, 4) != 0 &&
	    (frame[V4_DST] & 0xf0) != 0xe0) ||
	    pi->pi_dport != up->uost_lport)
		return OST_PKT_NOT_FOR_US;
	if (up->uost_connected && (pi->pi_sport != up->uost_fport ||
	    memcmp(frame + V4_SRC, &up->uost_faddr_v6.s6_addr[12], 4) != 0))
		return OST_PKT_FOREIGN;
	return OST_PKT_ACCEPT;
}

ost_pkt_verdict_t
ost_check_pkt_v6(const uost_t *up, const uint8_t *frame, size_t framelen,
    ost_pkt_info_t *pi)
{
	size_t plen;

	if (framelen < OST_PKT_OFF_V6)
		return OST_PKT_SHORT;
	pi->pi_proto = frame[V6_NXT];
	if (pi->pi_proto != IPPROTO_UDP)
		return OST_PKT_NOT_UDP;
	plen = be16_at(frame + V6_PLEN);
	if (plen + V6_IP_END > framelen)
		return OST_PKT_TRUNCATED;
	if (plen < sizeof (struct udphdr))
		return OST_PKT_SHORT;
	pi->pi_len = plen - sizeof (struct udphdr);
	pi->pi_dport = port_at(frame + V6_DPORT);
	pi->pi_sport = port_at(frame + V6_SPORT);
	if ((memcmp(&up->uost_laddr_v6, ost_zero_addr, 16) != 0 &&
	    memcmp(&up->uost_laddr_v6, frame + V6_DST, 16) != 0 &&
	    frame[V6_DST] != 0xff) ||
	    pi->pi_dport != up->uost_lport)
		return OST_PKT_NOT_FOR_US;
	if (up->uost_connected && (pi->pi_sport != up->uost_fport ||
	    memcmp(frame + V6_SRC, &up->uost_faddr_v6, 16) != 0))
		return OST_PKT_FOREIGN;
	return OST_PKT_ACCEPT;
}

/* The message catalogue's text on standard error, then exit(1). */
[[noreturn]] static void __attribute__((format(printf, 1, 2)))
ost_pkt_fatal(const char *fmt, ...)
{
	va_list ap;

	va_start(ap, fmt);
	(void) vfprintf(stderr, dgettext(OST_TEXT_DOMAIN, fmt), ap);
	va_end(ap);
	exit(1);
}

/* Ends the process for a fatal verdict; returns for the others. */
static void
ost_pkt_verdict_fatal(ost_pkt_verdict_t v, boolean_t v6, const uost_t *up,
    const ost_pkt_info_t *pi, size_t framelen)
{
	switch (v) {
	case OST_PKT_NOT_UDP:
		if (v6)
			ost_pkt_fatal("Not IPv6/UDP packet received: proto %u\n",
			    pi->pi_proto);
		ost_pkt_fatal("Not IPv4/UDP packet: proto %u\n", pi->pi_proto);
	case OST_PKT_TRUNCATED:
		if (v6)
			ost_pkt_fatal("Truncated IPv6 packet (len %lu) "
			    "received\n", (unsigned long)framelen);
		ost_pkt_fatal("Truncated IPv4 packet (len %lu) received\n",
		    (unsigned long)framelen);
	case OST_PKT_NOT_FOR_US:
		ost_pkt_fatal("Packet not for us received: my port %d, "
		    "packet dst port %d, data len %lu\n", ntohs(up->uost_lport),
		    ntohs(pi->pi_dport), (unsigned long)pi->pi_len);
	default:
		return;
	}
}

static void
ost_log_short(const char *fn, size_t framelen)
{
	ost_debug("%s: frame shorter than its headers (len %lu): dropped\n",
	    fn, (unsigned long)framelen);
}

boolean_t
ost_parse_pkt_v4(uost_t *up, const void *frame, uint8_t **payload,
    size_t *len, struct sockaddr_in *from, socklen_t *fromlen)
{
	static const char fn[] = "ost_parse_pkt_v4";
	const uint8_t *f = (const uint8_t *)frame;
	ost_pkt_info_t pi;
	ost_pkt_verdict_t v = ost_check_pkt_v4(up, f, *len, &pi);

	ost_pkt_verdict_fatal(v, B_FALSE, up, &pi, *len);
	if (v == OST_PKT_SHORT) {
		ost_log_short(fn, *len);
		return B_FALSE;
	}
	*len = pi.pi_len;
	if (v == OST_PKT_FOREIGN) {
		if (ost_debug_flag) {
			struct in_addr src;

			memcpy(&src, f + V4_SRC, sizeof (src));
			ost_debug("%s: connected socket: fport %d pkt sport %d "
			    "pkt src %s\n", fn, ntohs(up->uost_fport),
			    ntohs(pi.pi_sport), inet_ntoa(src));
		}
		return B_FALSE;
	}
	if (from != NULL && *fromlen >= (socklen_t)sizeof (*from)) {
		*fromlen = sizeof (*from);
		from->sin_family = AF_INET;
		from->sin_port = pi.pi_sport;
		memcpy(&from->sin_addr, f + V4_SRC, sizeof (from->sin_addr));
	}
	if (payload != NULL)
		*payload = const_cast<uint8_t *>(f) + OST_PKT_OFF_V4;
	return B_TRUE;
}

boolean_t
ost_parse_pkt_v6(uost_t *up, const void *frame, uint8_t **payload,
    size_t *len, struct sockaddr_in6 *from, socklen_t *fromlen)
{
	const uint8_t *f = (const uint8_t *)frame;
	ost_pkt_info_t pi;
	ost_pkt_verdict_t v = ost_check_pkt_v6(up, f, *len, &pi);

	ost_pkt_verdict_fatal(v, B_TRUE, up, &pi, *len);
	if (v == OST_PKT_SHORT) {
		ost_log_short("ost_parse_pkt_v6", *len);
		return B_FALSE;
	}
	*len = pi.pi_len;
	if (v == OST_PKT_FOREIGN)
		return B_FALSE;
	if (from != NULL && *fromlen >= (socklen_t)sizeof (*from)) {
		*fromlen = sizeof (*from);
		from->sin6_family = AF_INET6;
		from->sin6_port = pi.pi_sport;
		from->sin6_flowinfo = 0;
		memcpy(&from->sin6_addr, f + V6_SRC, sizeof (from->sin6_addr));
		/* As the kernel does: a link-local sender needs its link. */
		from->sin6_scope_id = IN6_IS_ADDR_LINKLOCAL(&from->sin6_addr) ?
		    up->uost_if_index : 0;
	}
	if (payload != NULL)
		*payload = const_cast<uint8_t *>(f) + OST_PKT_OFF_V6;
	return B_TRUE;
}

ssize_t
ost_copy_pkt_cut(uost_t *up, struct msghdr *msg, const void *frame,
    size_t len, boolean_t *cut)
{
	socklen_t *fromlen = msg->msg_name != NULL ? &msg->msg_namelen : NULL;
	uint8_t *p;
	size_t left = len, copied = 0;
	boolean_t ok;

	ok = up->uost_is_v6 ?
	    ost_parse_pkt_v6(up, frame, &p, &left,
	    (struct sockaddr_in6 *)msg->msg_name, fromlen) :
	    ost_parse_pkt_v4(up, frame, &p, &left,
	    (struct sockaddr_in *)msg->msg_name, fromlen);
	if (!ok)
		return -1;
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
	*cut = left != 0 ? B_TRUE : B_FALSE;
	return (ssize_t)copied;
}

ssize_t
ost_copy_pkt(uost_t *up, struct msghdr *msg, void *frame, size_t len)
{
	boolean_t cut;

	return ost_copy_pkt_cut(up, msg, frame, len, &cut);
}
