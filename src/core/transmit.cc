/*
 * The transmit path: a datagram to the socket's cached peer leaves as the
 * frame template followed by the caller's buffers, handed to the frame
 * library under the record's lock.  Everything the bypass path cannot carry
 * (another destination, a payload above the interface's MTU, control
 * data, a socket without peer or handle, a peer whose next hop is not
 * resolved yet) goes to the C library unchanged.  A call that names no
 * destination uses the peer only on a connected socket: elsewhere the
 * kernel answers it (EDESTADDRREQ).
 *
 * Per datagram: one lock, a clock read and a compare with the watch's
 * generation (a change of the kernel's tables resolves the peer again),
 * the length stores and the pseudo-header seed, one frio_tx_vec.  Nothing
 * is allocated and nothing formatted unless the debug log is on.
 *
 * A full ring is the kernel socket's full send buffer: after a short spin
 * a blocking socket waits for room (bounded by SO_SNDTIMEO, then EAGAIN),
 * sleeping without the record's lock, and a non-blocking one or
 * MSG_DONTWAIT gets EAGAIN.  A frame the library refuses is EIO.
 */
#include <arpa/inet.h>
#include <errno.h>
#include <limits.h>
#include <string.h>

#include "core/addr.h"
#include "core/ost.h"
#include "core/signals.h"
#include "os/frio_loader.h"

#define OST_BATCH_MAX 1024 /* larger batches go to the kernel whole */

/* What became of a datagram offered to the bypass path. */
typedef enum {
	OST_TX_SENT,
	OST_TX_FAILED, /* the frame library refused it: EIO */
	OST_TX_FULL,   /* no room in the ring after the spins */
	OST_TX_AGAIN,  /* no room, and the call may not wait: EAGAIN */
	OST_TX_INTR,   /* a signal handler ran while the call waited */
	OST_TX_RETRY,  /* the wait for room ended: decide again */
	OST_TX_KERNEL  /* not the bypass path's: the kernel sends it */
} ost_tx_t;

/* The first and the longest sleep of a send waiting for room. */
#define OST_TX_PAUSE_MIN_NS (20 * 1000)
#define OST_TX_PAUSE_MAX_NS (1000 * 1000)

/* What one frame on the handle's interface carries; uost_frio_set. */
static inline size_t
ost_max_payload(const uost_t *up)
{
	return up->uost_mtu - up->uost_ip_hdr_len;
}

/*
 * Offers the frame up to send_busy_wait_cnt times; a full ring is met by a
 * random spin of up to 2 us so that senders that collided spread out.
 * Called with uost_lock held; the lock stays held through the spins.
 */
static ost_tx_t
ost_transmit_locked(uost_t *up, const struct iovec *iov, int iovcnt,
    size_t payload)
{
	frio_tx_args_t v6_args = {};
	frio_tx_args_t *args = NULL;
	uint32_t retries = 0;

	ost_tpl_set_payload(up, payload);
	if (up->uost_is_v6) {
		v6_args.ut_pkt_options = FRIO_TX_OPT_IPV6_CKSUM;
		args = &v6_args;
	}
	for (;;) {
		frio_status_t st = ost_frio->tx_vec(up->uost_frio_hdl, args,
		    up->uost_eth, up->uost_hdr_len, iov, iovcnt);

		if (st == FRIO_STATUS_OK)
			break;
		if (st != FRIO_STATUS_NOMEM)
			return OST_TX_FAILED;
		if (++retries >= send_busy_wait_cnt)
			return OST_TX_FULL;
		hrtime_t deadline = (gethrtime() & 0x7ff) + gethrtime();
		while (gethrtime() < deadline)
			;
	}
	ost_stat_add(&up->uost_stats.osts_opkts, 1);
	if (retries != 0) {
		ost_stat_add(&up->uost_stats.osts_opkts_spin, 1);
		if (retries > up->uost_stats.osts_send_spin_max)
			__atomic_store_n(&up->uost_stats.osts_send_spin_max,
			    retries, __ATOMIC_RELAXED);
	}
	return OST_TX_SENT;
}

/*
 * A connected socket's kernel socket holds the errors ICMP brought back
 * (ECONNREFUSED ...), which the kernel reports on the next send.  Asked
 * at most every OST_ERR_CHECK_NS: an error met between two looks is as
 * if the ICMP message had come a little later.
 */
#define OST_ERR_CHECK_NS (1000 * 1000)

static bool
ost_error_pending_locked(uost_t *up, hrtime_t now)
{
	struct pollfd pfd = { up->uost_sd, 0, 0 };

	if (!up->uost_connected || now < up->uost_err_due)
		return false;
	up->uost_err_due = now + OST_ERR_CHECK_NS;
	return real_poll(&pfd, 1, 0) == 1 && (pfd.revents & POLLERR);
}

/*
 * A datagram to the cached peer; uost_lock held.  The peer's facts are
 * resolved again first if the kernel's tables changed since.
 */
static ost_tx_t
ost_send_peer_locked(uost_t *up, const struct iovec *iov, int iovcnt,
    size_t len)
{
	hrtime_t now;
	uint32_t gen;

	if (!up->uost_peer_set) {
		ost_debug("%d: no peer on the bypass\n", up->uost_sd);
		return OST_TX_KERNEL;
	}
	now = gethrtime();
	if (up->uost_shut_wr || ost_error_pending_locked(up, now))
		return OST_TX_KERNEL;
	gen = ost_watch_gen_at(now);
	if (gen != up->uost_dst_gen)
		ost_dst_refresh_locked(up, gen);
	if (!up->uost_dst_ok || !up->uost_frio_set) {
		ost_debug("%d: the peer is the kernel's for now\n",
		    up->uost_sd);
		return OST_TX_KERNEL;
	}
	if (up->uost_peer_group && !up->uost_mc_noloop) {
		ost_debug("%d: group datagram loops back: the kernel sends "
			  "it\n",
		    up->uost_sd);
		return OST_TX_KERNEL;
	}
	if (len > ost_max_payload(up)) {
		ost_debug("%d: %zu bytes: above the MTU\n", up->uost_sd, len);
		return OST_TX_KERNEL;
	}
	return ost_transmit_locked(up, iov, iovcnt, len);
}

/* A send's wait for transmit room. */
typedef struct ost_tx_wait {
	bool tw_started;
	hrtime_t tw_deadline; /* 0: none */
	hrtime_t tw_pause;
	ost_sigcount_t tw_sigs; /* the handlers run when the wait began */
} ost_tx_wait_t;

/*
 * The ring stayed full.  A call that may wait sleeps a while without
 * uost_lock (receivers and other senders need it, and the ring drains
 * without us) and has the caller decide again: a connect meanwhile may
 * have changed the peer.  A socket being torn down leaves the datagram to
 * the kernel socket, whose answer is the kernel's.  uost_lock held on
 * entry and on return.
 */
static ost_tx_t
ost_tx_wait_locked(uost_t *up, int flags, ost_tx_wait_t *w)
{
	hrtime_t now = gethrtime(), pause;
	struct timespec ts;
	int r;

	if (__atomic_load_n(&up->uost_nonblock, __ATOMIC_RELAXED) ||
	    (flags & MSG_DONTWAIT))
		return OST_TX_AGAIN;
	if (!w->tw_started) {
		hrtime_t timeo =
		    __atomic_load_n(&up->uost_sndtimeo, __ATOMIC_RELAXED);

		w->tw_started = true;
		w->tw_deadline =
		    timeo == 0 || timeo > INT64_MAX - now ? 0 : now + timeo;
		w->tw_pause = OST_TX_PAUSE_MIN_NS;
		w->tw_sigs = ost_sig_snap();
	} else if (w->tw_deadline != 0 && now >= w->tw_deadline) {
		return OST_TX_AGAIN;
	}
	pause = w->tw_pause;
	if (w->tw_deadline != 0 && w->tw_deadline - now < pause)
		pause = w->tw_deadline - now;
	if (w->tw_pause < OST_TX_PAUSE_MAX_NS)
		w->tw_pause *= 2;
	ts.tv_sec = pause / NANOSEC;
	ts.tv_nsec = pause % NANOSEC;
	(void)pthread_mutex_unlock(&up->uost_lock);
	r = nanosleep(&ts, NULL);
	(void)pthread_mutex_lock(&up->uost_lock);
	/* A handler ran: the kernel restarts the send for SA_RESTART, unless
	 * the socket has a send time-out. */
	if (r != 0 && errno == EINTR &&
	    !ost_sig_restart(&w->tw_sigs, w->tw_deadline != 0))
		return OST_TX_INTR;
	return up->uost_closing ? OST_TX_KERNEL : OST_TX_RETRY;
}

/* The call's result for a datagram the bypass path took. */
static ssize_t
ost_tx_result(ost_tx_t r, size_t len)
{
	switch (r) {
	case OST_TX_FAILED:
		errno = EIO;
		return -1;
	case OST_TX_AGAIN:
		errno = EAGAIN;
		return -1;
	case OST_TX_INTR:
		errno = EINTR;
		return -1;
	default:
		return (ssize_t)len;
	}
}

/* Whether the decision step must run again after a wait for room. */
static bool
ost_tx_again(uost_t *up, int flags, ost_tx_wait_t *w, ost_tx_t *r)
{
	if (*r != OST_TX_FULL)
		return false;
	*r = ost_tx_wait_locked(up, flags, w);
	return *r == OST_TX_RETRY;
}

/* Whether to is the cached peer; for IPv6 a scope id of 0 matches any. */
static bool
ost_is_peer(const uost_t *up, const struct sockaddr *to, bool scope)
{
	if (up->uost_is_v6) {
		const struct sockaddr_in6 *sin6 =
		    (const struct sockaddr_in6 *)to;

		return IN6_ARE_ADDR_EQUAL(&sin6->sin6_addr,
			   &up->uost_faddr_v6) &&
		    sin6->sin6_port == up->uost_fport &&
		    (!scope || sin6->sin6_scope_id == 0 ||
			sin6->sin6_scope_id == up->uost_if_index);
	}
	const struct sockaddr_in *sin = (const struct sockaddr_in *)to;

	return sin->sin_addr.s_addr == ost_unmap_v4(&up->uost_faddr_v6) &&
	    sin->sin_port == up->uost_fport;
}

/* A whole address of the socket's own family. */
static bool
ost_addr_fits(const uost_t *up, const struct sockaddr *to, socklen_t tolen)
{
	if (tolen < (up->uost_is_v6 ? sizeof(struct sockaddr_in6) :
				      sizeof(struct sockaddr_in))) {
		ost_debug("invalid addr len %u\n", (unsigned)tolen);
		return false;
	}
	if (to->sa_family != (up->uost_is_v6 ? AF_INET6 : AF_INET)) {
		ost_debug("wrong family: %d\n", to->sa_family);
		return false;
	}
	return true;
}

/*
 * Whether a datagram to to is for the peer's path: it is the cached peer,
 * or it becomes the peer, through the destination set-up, of an
 * unconnected socket whose peer (if any) cannot take the bypass.  Unlike
 * sendto, sendmsg does not compare the scope id.  uost_lock held.
 */
static bool
ost_to_peer_locked(uost_t *up, const struct sockaddr *to, bool scope)
{
	char text[INET6_ADDRSTRLEN];

	if (up->uost_peer_set && ost_is_peer(up, to, scope))
		return true;
	if (!up->uost_connected && !(up->uost_peer_set && up->uost_dst_ok)) {
		(void)ost_set_destination(up, to, true);
		return true;
	}
	ost_debug("different peer, using the kernel (%s:%d): %s:%d\n",
	    inet_ntop(to->sa_family,
		up->uost_is_v6 ?
		    (const void *)&((const struct sockaddr_in6 *)to)
			->sin6_addr :
		    (const void *)&((const struct sockaddr_in *)to)->sin_addr,
		text, sizeof(text)),
	    ntohs(((const struct sockaddr_in *)to)->sin_port),
	    ost_ntoa_v6(&up->uost_faddr_v6), ntohs(up->uost_fport));
	return false;
}

ssize_t
ost_sendto(int sd, const void *buf, size_t len, int flags,
    const struct sockaddr *to, socklen_t tolen)
{
	struct iovec iov = { const_cast<void *>(buf), len };
	ost_tx_wait_t w = {};
	uost_t *up;
	ost_tx_t r;

	/* A connected socket may name no destination: its peer is meant. */
	if (to == NULL)
		return ost_send_call(sd, buf, len, flags);
	up = ost_find_sd(sd);
	if (up == NULL)
		return real_sendto(sd, buf, len, flags, to, tolen);
	(void)pthread_mutex_lock(&up->uost_lock);
	do {
		r = OST_TX_KERNEL;
		if (ost_addr_fits(up, to, tolen) &&
		    ost_to_peer_locked(up, to, true))
			r = ost_send_peer_locked(up, &iov, 1, len);
	} while (ost_tx_again(up, flags, &w, &r));
	ost_release_locked(up);
	(void)pthread_mutex_unlock(&up->uost_lock);
	if (r != OST_TX_KERNEL)
		return ost_tx_result(r, len);
	return real_sendto(sd, buf, len, flags, to, tolen);
}

typedef enum {
	OST_BY_SEND,
	OST_BY_WRITE,
	OST_BY_WRITEV
} ost_by_t;

/* send, write and writev: to the peer, or by the kernel as asked. */
static ssize_t
ost_send_common(int sd, const struct iovec *iov, int iovcnt, int flags,
    ost_by_t by)
{
	ost_tx_wait_t w = {};
	uost_t *up = NULL;
	size_t len = 0;
	ost_tx_t r;

	if (iovcnt >= 0 && iovcnt <= IOV_MAX && (iov != NULL || iovcnt == 0))
		up = ost_find_sd(sd);
	if (up != NULL) {
		for (int i = 0; i < iovcnt && len <= IP_MAXPACKET; i++)
			len += iov[i].iov_len;
		(void)pthread_mutex_lock(&up->uost_lock);
		/* Without a destination only a connected socket has one. */
		do {
			r = up->uost_connected && len <= IP_MAXPACKET ?
			    ost_send_peer_locked(up, iov, iovcnt, len) :
			    OST_TX_KERNEL;
		} while (ost_tx_again(up, flags, &w, &r));
		ost_release_locked(up);
		(void)pthread_mutex_unlock(&up->uost_lock);
		if (r != OST_TX_KERNEL)
			return ost_tx_result(r, len);
	}
	switch (by) {
	case OST_BY_SEND:
		return real_send(sd, iov[0].iov_base, iov[0].iov_len, flags);
	case OST_BY_WRITE:
		return real_write(sd, iov[0].iov_base, iov[0].iov_len);
	default:
		return real_writev(sd, iov, iovcnt);
	}
}

ssize_t
ost_send_call(int sd, const void *buf, size_t len, int flags)
{
	struct iovec iov = { const_cast<void *>(buf), len };

	return ost_send_common(sd, &iov, 1, flags, OST_BY_SEND);
}

ssize_t
ost_write_call(int sd, const void *buf, size_t len)
{
	struct iovec iov = { const_cast<void *>(buf), len };

	return ost_send_common(sd, &iov, 1, 0, OST_BY_WRITE);
}

ssize_t
ost_writev_call(int sd, const struct iovec *iov, int iovcnt)
{
	return ost_send_common(sd, iov, iovcnt, 0, OST_BY_WRITEV);
}

/*
 * One message on the bypass path, under uost_lock.  Control data asks for
 * what only the kernel gives; a length the kernel would refuse is the
 * kernel's to refuse.
 */
static ost_tx_t
ost_sendmsg_locked(uost_t *up, const struct msghdr *msg, size_t *total)
{
	const struct sockaddr *to = (const struct sockaddr *)msg->msg_name;

	*total = 0;
	if (msg->msg_control != NULL || msg->msg_iovlen > IOV_MAX ||
	    (msg->msg_iov == NULL && msg->msg_iovlen != 0))
		return OST_TX_KERNEL;
	if (to == NULL ? !up->uost_connected :
			 !ost_addr_fits(up, to, msg->msg_namelen) ||
		    !ost_to_peer_locked(up, to, false))
		return OST_TX_KERNEL;
	for (size_t i = 0; i < msg->msg_iovlen; i++) {
		*total += msg->msg_iov[i].iov_len;
		/* No datagram is larger; the sum must not wrap either. */
		if (*total > IP_MAXPACKET)
			return OST_TX_KERNEL;
	}
	return ost_send_peer_locked(up, msg->msg_iov, (int)msg->msg_iovlen,
	    *total);
}

ssize_t
ost_sendmsg_call(int sd, const struct msghdr *msg, int flags)
{
	ost_tx_wait_t w = {};
	uost_t *up;
	size_t total;
	ost_tx_t r;

	if (msg == NULL || (up = ost_find_sd(sd)) == NULL)
		return real_sendmsg(sd, msg, flags);
	(void)pthread_mutex_lock(&up->uost_lock);
	do
		r = ost_sendmsg_locked(up, msg, &total);
	while (ost_tx_again(up, flags, &w, &r));
	ost_release_locked(up);
	(void)pthread_mutex_unlock(&up->uost_lock);
	if (r != OST_TX_KERNEL)
		return ost_tx_result(r, total);
	return real_sendmsg(sd, msg, flags);
}

int
ost_sendmmsg_call(int sd, struct mmsghdr *vec, unsigned int vlen, int flags)
{
	int saved_errno = errno;
	unsigned int sent = 0;
	uost_t *up;

	if (vlen < 1 || vlen > OST_BATCH_MAX || vec == NULL)
		return real_sendmmsg(sd, vec, vlen, flags);
	up = ost_find_sd(sd);
	if (up == NULL)
		return real_sendmmsg(sd, vec, vlen, flags);
	for (unsigned int i = 0; i < vlen; i++) {
		if (vec[i].msg_hdr.msg_control != NULL) {
			ost_release(up);
			return real_sendmmsg(sd, vec, vlen, flags);
		}
	}
	for (; sent < vlen; sent++) {
		ost_tx_wait_t w = {};
		size_t total;
		ssize_t n;
		ost_tx_t r;

		(void)pthread_mutex_lock(&up->uost_lock);
		do
			r = ost_sendmsg_locked(up, &vec[sent].msg_hdr, &total);
		while (ost_tx_again(up, flags, &w, &r));
		(void)pthread_mutex_unlock(&up->uost_lock);
		n = r == OST_TX_KERNEL ?
		    real_sendmsg(sd, &vec[sent].msg_hdr, flags) :
		    ost_tx_result(r, total);
		if (n == -1)
			break;
		vec[sent].msg_len = (unsigned int)n;
	}
	ost_release(up);
	if (sent == 0)
		return -1;
	/* What stopped the batch is for the next call to report. */
	errno = saved_errno;
	return (int)sent;
}
