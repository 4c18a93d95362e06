/*
 * The transmit path: a datagram to the socket's cached peer leaves as the
 * frame template followed by the caller's buffers, handed to the frame
 * library under the record's lock.  Everything the bypass path cannot carry
 * (another destination, a payload above the fixed 1500-byte MTU, control
 * data, a socket without peer or handle) goes to the C library unchanged.
 *
 * Per datagram: one lock, the length stores and the pseudo-header seed, one
 * frio_tx_vec.  Nothing is allocated and nothing formatted unless the debug
 * log is on.  Once the library has been offered a frame there is no
 * fallback: a frame it refuses is EIO.
 */
#include <arpa/inet.h>
#include <errno.h>
#include <limits.h>
#include <string.h>

#include "core/addr.h"
#include "ost_impl.h"
#include "platform/frio_loader.h"

#define OST_MTU 1500
#define OST_BATCH_MAX 1024	/* larger batches go to the kernel whole */

static inline size_t
ost_max_payload(const uost_t *up)
{
	return OST_MTU - up->uost_ip_hdr_len;
}

/*
 * Offers the frame up to send_busy_wait_cnt times; a full ring is met by a
 * random spin of up to 2 us so that senders that collided spread out.
 * Called with uost_lock held; the lock stays held through the spins.
 */
static boolean_t
ost_transmit_locked(uost_t *up, const struct iovec *iov, int iovcnt,
    size_t payload)
{
	frio_tx_args_t v6_args = { FRIO_TX_OPT_IPV6_CKSUM, 0, 0, 0 };
	frio_tx_args_t *args = NULL;
	uint32_t retries = 0;

	up->uost_udph->uh_ulen = (uint16_t)(payload + sizeof (struct udphdr));
	if (up->uost_is_v6) {
		ost_hdr_csum_v6(up->uost_ip6h, up->uost_udph);
		args = &v6_args;
	} else {
		ost_hdr_csum_v4(up->uost_iph, up->uost_udph);
	}
	for (;;) {
		frio_status_t st = ost_frio->tx_vec(up->uost_frio_hdl, args,
		    up->uost_eth, up->uost_hdr_len, iov, iovcnt);

		if (st == FRIO_STATUS_OK)
			break;
		if (st != FRIO_STATUS_NOMEM)
			return B_FALSE;
		hrtime_t deadline = (gethrtime() & 0x7ff) + gethrtime();
		while (gethrtime() < deadline)
			;
		if (++retries >= send_busy_wait_cnt)
			return B_FALSE;
	}
	up->uost_stats.osts_opkts++;
	if (retries != 0) {
		up->uost_stats.osts_opkts_spin++;
		if (retries > up->uost_stats.osts_send_spin_max)
			up->uost_stats.osts_send_spin_max = retries;
	}
	return B_TRUE;
}

ssize_t
ost_send(uost_t *up, const void *buf, size_t len)
{
	struct iovec iov = { const_cast<void *>(buf), len };
	boolean_t ok;

	(void) pthread_mutex_lock(&up->uost_lock);
	ok = ost_transmit_locked(up, &iov, 1, len);
	ost_release_locked(up);
	(void) pthread_mutex_unlock(&up->uost_lock);
	if (!ok) {
		errno = EIO;
		return -1;
	}
	return (ssize_t)len;
}

/* Whether to is the cached peer; for IPv6 a scope id of 0 matches any. */
static boolean_t
ost_is_peer(const uost_t *up, const struct sockaddr *to, boolean_t scope)
{
	if (up->uost_is_v6) {
		const struct sockaddr_in6 *sin6 =
		    (const struct sockaddr_in6 *)to;

		return IN6_ARE_ADDR_EQUAL(&sin6->sin6_addr,
		    &up->uost_faddr_v6) && sin6->sin6_port == up->uost_fport &&
		    (!scope || sin6->sin6_scope_id == 0 ||
		    sin6->sin6_scope_id == up->uost_if_index) ? B_TRUE : B_FALSE;
	}
	const struct sockaddr_in *sin = (const struct sockaddr_in *)to;

	return sin->sin_addr.s_addr == ost_unmap_v4(&up->uost_faddr_v6) &&
	    sin->sin_port == up->uost_fport ? B_TRUE : B_FALSE;
}

static void
ost_log_other_peer(const uost_t *up, const struct sockaddr *to)
{
	static const char fn[] = "ost_sendto";

	if (up->uost_is_v6) {
		const struct sockaddr_in6 *sin6 =
		    (const struct sockaddr_in6 *)to;
		char dst[INET6_ADDRSTRLEN];

		(void) inet_ntop(AF_INET6, &sin6->sin6_addr, dst, sizeof (dst));
		ost_debug("%s: different peer, using normal sendto "
		    "(%s:%d/%u): %s:%d/%u\n", fn, dst, ntohs(sin6->sin6_port),
		    sin6->sin6_scope_id, ost_ntoa_v6(&up->uost_faddr_v6),
		    ntohs(up->uost_fport), up->uost_if_index);
	} else {
		const struct sockaddr_in *sin = (const struct sockaddr_in *)to;
		char dst[INET_ADDRSTRLEN];

		(void) inet_ntop(AF_INET, &sin->sin_addr, dst, sizeof (dst));
		ost_debug("%s: different peer, using normal sendto "
		    "(%s:%d): %s:%d\n", fn, dst, ntohs(sin->sin_port),
		    ost_ntoa_v6(&up->uost_faddr_v6), ntohs(up->uost_fport));
	}
}

/* Runs the destination set-up for to; uost_lock held. */
static boolean_t
ost_set_destination(uost_t *up, const struct sockaddr *to)
{
	return up->uost_is_v6 ?
	    ost_sendto_frio_set_v6(up, (const struct sockaddr_in6 *)to,
	    B_TRUE) :
	    ost_sendto_frio_set_v4(up, (const struct sockaddr_in *)to, B_TRUE);
}

ssize_t
ost_sendto(int sd, const void *buf, size_t len, int flags,
    const struct sockaddr *to, socklen_t tolen)
{
	static const char fn[] = "ost_sendto";
	uost_t *up = ost_find_sd(sd);
	boolean_t ok;

	if (up == NULL)
		goto kernel;
	/* A connected socket may name no destination: its peer is meant. */
	if (to == NULL) {
		if (up->uost_frio_set && up->uost_peer_set &&
		    len <= ost_max_payload(up))
			return ost_send(up, buf, len);
		goto release;
	}
	if (tolen < sizeof (sa_family_t) ||
	    to->sa_family != (up->uost_is_v6 ? AF_INET6 : AF_INET)) {
		ost_debug("%s: wrong family: %d\n", fn,
		    tolen < sizeof (sa_family_t) ? -1 : to->sa_family);
		goto release;
	}
	if (tolen < (up->uost_is_v6 ? sizeof (struct sockaddr_in6) :
	    sizeof (struct sockaddr_in))) {
		ost_debug("%s: invalid addr len %u\n", fn, (unsigned)tolen);
		goto release;
	}
	if (len > ost_max_payload(up)) {
		ost_debug("%s: sendto len too big %u\n", fn, (unsigned)len);
		goto release;
	}

	(void) pthread_mutex_lock(&up->uost_lock);
	if (up->uost_peer_set && up->uost_frio_set) {
		ok = ost_is_peer(up, to, B_TRUE);
		if (!ok && ost_debug_flag)
			ost_log_other_peer(up, to);
	} else {
		ok = ost_set_destination(up, to);
		if (!ok)
			ost_debug("%s: using normal sendto\n", fn);
	}
	(void) pthread_mutex_unlock(&up->uost_lock);
	if (ok)
		return ost_send(up, buf, len);
release:
	ost_release(up);
kernel:
	return xsendto(sd, buf, len, flags, to, tolen);
}

ssize_t
ost_send_call(int sd, const void *buf, size_t len, int flags)
{
	uost_t *up = ost_find_sd(sd);

	if (up == NULL)
		return libc_send(sd, buf, len, flags);
	if (len > ost_max_payload(up)) {
		ost_release(up);
		ost_debug("%s: send len too big %u\n", "send", (unsigned)len);
		return libc_send(sd, buf, len, flags);
	}
	/* Read unlocked: both only ever go from false to true while the
	 * record lives, and ost_send takes the lock. */
	if (up->uost_frio_set && up->uost_peer_set)
		return ost_send(up, buf, len);
	ost_release(up);
	ost_debug("%s: frio not set\n", "send");
	return libc_send(sd, buf, len, flags);
}

ssize_t
ost_write_call(int sd, const void *buf, size_t len)
{
	uost_t *up = ost_find_sd(sd);

	if (up == NULL)
		return real_write(sd, buf, len);
	if (up->uost_frio_set && up->uost_peer_set) {
		if (len <= ost_max_payload(up))
			return ost_send(up, buf, len);
		ost_release(up);
		ost_debug("%s: msg too big: using sys write\n", "write");
		return real_write(sd, buf, len);
	}
	ost_release(up);
	ost_debug("%s: %d frio not set\n", "write", sd);
	return real_write(sd, buf, len);
}

/*
 * The destination of a message: its name, or the peer when it has none.
 * Unlike sendto the scope id is not compared.  uost_lock held.
 */
static boolean_t
ost_msg_to_peer(uost_t *up, const struct msghdr *msg)
{
	const struct sockaddr *to = (const struct sockaddr *)msg->msg_name;

	if (to == NULL)
		return up->uost_peer_set;
	if (msg->msg_namelen < (up->uost_is_v6 ? sizeof (struct sockaddr_in6) :
	    sizeof (struct sockaddr_in)))
		return B_FALSE;
	/* The set-up reads the address as its own family's; check it. */
	if (to->sa_family != (up->uost_is_v6 ? AF_INET6 : AF_INET))
		return B_FALSE;
	if (up->uost_peer_set && up->uost_frio_set)
		return ost_is_peer(up, to, B_FALSE);
	return ost_set_destination(up, to);
}

ssize_t
ost_sendmsg(int sd, uost_t *up, const struct msghdr *msg, int flags)
{
	size_t total = 0;
	boolean_t ok;

	(void) pthread_mutex_lock(&up->uost_lock);
	/* A length the kernel would refuse is the kernel's to refuse. */
	if (msg->msg_iovlen > IOV_MAX ||
	    (msg->msg_iov == NULL && msg->msg_iovlen != 0) ||
	    !ost_msg_to_peer(up, msg) || !up->uost_frio_set)
		goto kernel;
	for (size_t i = 0; i < msg->msg_iovlen; i++) {
		total += msg->msg_iov[i].iov_len;
		if (total > ost_max_payload(up))
			goto kernel;
	}
	ok = ost_transmit_locked(up, msg->msg_iov, (int)msg->msg_iovlen,
	    total);
	ost_release_locked(up);
	(void) pthread_mutex_unlock(&up->uost_lock);
	if (!ok) {
		errno = EIO;
		return -1;
	}
	return (ssize_t)total;
kernel:
	ost_release_locked(up);
	(void) pthread_mutex_unlock(&up->uost_lock);
	return xsendmsg(sd, msg, flags);
}

ssize_t
ost_sendmsg_call(int sd, const struct msghdr *msg, int flags)
{
	uost_t *up;

	/* Control data asks for what only the kernel gives. */
	if (msg == NULL || msg->msg_control != NULL) {
		if (msg != NULL)
			ost_debug("%s: using normal sendmsg\n", "sendmsg");
		return xsendmsg(sd, msg, flags);
	}
	up = ost_find_sd(sd);
	if (up == NULL)
		return xsendmsg(sd, msg, flags);
	return ost_sendmsg(sd, up, msg, flags);
}

int
ost_sendmmsg_call(int sd, struct mmsghdr *vec, unsigned int vlen, int flags)
{
	uost_t *up;
	int sent = 0;

	if (vlen < 1 || vlen > OST_BATCH_MAX || vec == NULL)
		return xsendmmsg(sd, vec, vlen, flags);
	up = ost_find_sd(sd);
	if (up == NULL)
		return xsendmmsg(sd, vec, vlen, flags);
	for (unsigned int i = 0; i < vlen; i++) {
		if (vec[i].msg_hdr.msg_control != NULL) {
			ost_release(up);
			return xsendmmsg(sd, vec, vlen, flags);
		}
	}
	for (unsigned int i = 0; i < vlen; i++) {
		ssize_t n;

		/* ost_sendmsg consumes a reference per message. */
		(void) pthread_mutex_lock(&up->uost_lock);
		up->uost_refcnt++;
		(void) pthread_mutex_unlock(&up->uost_lock);
		n = ost_sendmsg(sd, up, &vec[i].msg_hdr, flags);
		if (n == -1)
			break;
		vec[i].msg_len = (unsigned int)n;
		sent++;
	}
	ost_release(up);
	return sent > 0 ? sent : -1;
}
