/*
 * Handing datagrams back to the kernel socket.  When a socket leaves the
 * bypass (close excepted: nobody will read), what its stash and its
 * handle's ring still hold must not be lost with the handle.  Each such
 * datagram is sent again, through a raw IP socket, to the socket's own
 * address with its original source and ports, so the kernel delivers it to
 * the kernel socket as it would have in the first place: after whatever
 * the kernel socket already holds, in the ring's order.  A group datagram
 * goes to loopback instead, which only a socket bound to the wildcard
 * address (the only kind that receives groups) accepts.
 */
#include <errno.h>
#include <string.h>

#include "core/receive.h"
#include "os/frio_loader.h"

/* A ring holds no more than this; the bound keeps a flood from holding
 * the teardown. */
#define OST_REQUEUE_MAX 8192

static uint32_t
ost_sum(const uint8_t *p, size_t len, uint32_t sum)
{
	for (size_t i = 0; i + 1 < len; i += 2)
		sum += (uint32_t)p[i] << 8 | p[i + 1];
	if (len & 1)
		sum += (uint32_t)p[len - 1] << 8;
	return sum;
}

static uint16_t
ost_fold_csum(uint32_t sum)
{
	while (sum >> 16)
		sum = (sum & 0xffff) + (sum >> 16);
	return (uint16_t)~sum;
}

/* One frame of the socket's, sent again as an IP datagram; false if not. */
static bool
ost_requeue_frame(uost_t *up, int raw, const uint8_t *frame, size_t len)
{
	uint8_t pkt[OST_RECV_BUF_SIZE];
	struct sockaddr_storage to;
	socklen_t tolen;
	ost_pkt_info_t pi;
	size_t iplen;

	if (len > sizeof(pkt) + sizeof(struct ether_header) ||
	    ost_check_pkt(up, frame, len, &pi) != OST_PKT_ACCEPT)
		return false;
	memset(&to, 0, sizeof(to));
	if (up->uost_is_v6) {
		struct sockaddr_in6 *sin6 = (struct sockaddr_in6 *)&to;
		struct ip6_hdr *ip6 = (struct ip6_hdr *)pkt;
		struct udphdr *uh = (struct udphdr *)(ip6 + 1);
		uint32_t sum;

		iplen = sizeof(*ip6) + sizeof(*uh) + pi.pi_len;
		memcpy(pkt, frame + sizeof(struct ether_header), iplen);
		if (IN6_IS_ADDR_MULTICAST(&ip6->ip6_dst))
			ip6->ip6_dst = in6addr_loopback;
		uh->uh_sum = 0;
		sum = ost_sum((const uint8_t *)&ip6->ip6_src, 32, 0);
		sum += (uint32_t)(sizeof(*uh) + pi.pi_len) + IPPROTO_UDP;
		sum =
		    ost_sum((const uint8_t *)uh, sizeof(*uh) + pi.pi_len, sum);
		uh->uh_sum = htons(ost_fold_csum(sum));
		if (uh->uh_sum == 0)
			uh->uh_sum = 0xffff;
		sin6->sin6_family = AF_INET6;
		sin6->sin6_addr = ip6->ip6_dst;
		tolen = sizeof(*sin6);
	} else {
		struct sockaddr_in *sin = (struct sockaddr_in *)&to;
		struct ip *ip4 = (struct ip *)pkt;
		struct udphdr *uh = (struct udphdr *)(ip4 + 1);

		iplen = sizeof(*ip4) + sizeof(*uh) + pi.pi_len;
		memcpy(pkt, frame + sizeof(struct ether_header), iplen);
		if (IN_MULTICAST(ntohl(ip4->ip_dst.s_addr)))
			ip4->ip_dst.s_addr = htonl(INADDR_LOOPBACK);
		ip4->ip_sum = 0; /* the kernel completes the header */
		uh->uh_sum = 0;  /* none, which IPv4 allows */
		sin->sin_family = AF_INET;
		sin->sin_addr = ip4->ip_dst;
		tolen = sizeof(*sin);
	}
	return real_sendto(raw, pkt, iplen, 0, (struct sockaddr *)&to, tolen) ==
	    (ssize_t)iplen;
}

void
ost_requeue_locked(uost_t *up)
{
	ost_errno_keep keep;
	unsigned requeued = 0, lost = 0;
	frio_rx_args_t rx;
	void *frame;
	int raw, on = 1;

	raw = real_socket(up->uost_is_v6 ? AF_INET6 : AF_INET,
	    SOCK_RAW | SOCK_CLOEXEC, IPPROTO_RAW);
	if (raw < 0) {
		ost_debug("%d: no raw socket: %d\n", up->uost_sd, errno);
		return;
	}
	if (up->uost_is_v6)
		(void)real_setsockopt(raw, IPPROTO_IPV6, IPV6_HDRINCL, &on,
		    sizeof(on));
	if (up->uost_recv_buf_len != 0) {
		if (ost_requeue_frame(up, raw,
			(const uint8_t *)up->uost_recv_buf,
			up->uost_recv_buf_len))
			requeued++;
		else
			lost++;
		up->uost_recv_buf_len = 0;
		up->uost_recv_buf_stamped = false;
	}
	for (unsigned i = 0; i < OST_REQUEUE_MAX &&
	     ost_frio->rx_get(up->uost_frio_hdl, &rx, &frame) == FRIO_STATUS_OK;
	     i++) {
		if (ost_requeue_frame(up, raw, (const uint8_t *)frame,
			rx.ur_pkt_len))
			requeued++;
		else
			lost++;
		(void)ost_frio->rx_put(up->uost_frio_hdl, frame);
	}
	(void)real_close(raw);
	if (requeued != 0 || lost != 0)
		ost_debug("%d: %u datagrams back to the kernel socket, %u "
			  "not\n",
		    up->uost_sd, requeued, lost);
}
