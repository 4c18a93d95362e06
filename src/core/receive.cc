/*
 * The receive engine and the receive calls.  A bypass socket's datagrams
 * come from its frame handle, or from its receive stash where a readiness
 * test or a MSG_PEEK receive left one whole frame.  With nothing there a
 * receive fails at once (non-blocking), or spins on the handle for as long
 * as the wait policy gives it (RCV_BUSY_WAIT; core/wait_policy.h) and then
 * sleeps in poll until the handle has a frame (at once with RCV_POLL).
 *
 * The receive slot gives one thread at a time the stash and the handle's
 * receive side without uost_lock (senders hold that through a transmit),
 * and no lock is held across the frame library, a copy or a wait.
 * While it waits, a receive allocates nothing and calls nothing but the
 * clock and frio_rx_get.
 *
 * A frame longer than the stash is never put there: a receive that takes
 * it from the handle delivers it straight from the frame (with MSG_PEEK it
 * is then consumed, as it cannot be kept), and a readiness test drops it.
 */
#include <errno.h>
#include <limits.h>
#include <string.h>

#include "core/receive.h"
#include "core/signals.h"
#include "core/wait_policy.h"
#include "os/frio_loader.h"

/*
 * What this thread's receive holds while it may run a signal handler: a
 * handler that leaves the receive by siglongjmp would otherwise strand
 * the slot and the reference, and the socket's next receive or close
 * would wait for them for ever (ost_recv_abandoned).
 */
static __thread struct {
	uost_t *slot_up; /* holds the receive slot of */
	uost_t *ref_up;  /* holds a reference to, inside ost_recvmsg */
} ost_recv_held __attribute__((tls_model("initial-exec")));

void
ost_recv_abandoned(void)
{
	uost_t *slot_up = ost_recv_held.slot_up;
	uost_t *ref_up = ost_recv_held.ref_up;

	ost_wait_abandoned();
	if (slot_up != NULL) {
		ost_recv_slot_give(slot_up);
		ost_recv_held.slot_up = NULL;
	}
	if (ref_up != NULL) {
		ost_recv_held.ref_up = NULL;
		ost_release(ref_up);
	}
}

/* The reference ost_recvmsg holds goes back. */
static void
ost_recv_release(uost_t *up)
{
	ost_recv_held.ref_up = NULL;
	ost_release(up);
}

/*
 * The slot is a flag taken with one atomic exchange, so that a receive
 * never waits for uost_lock, which a sender holds through its transmit.
 * Only a thread that finds the slot taken sleeps, under uost_lock: it
 * raises uost_want_recv before each try, and a giver looks at the flag
 * after it let go (both sequentially consistent), so one of the two sees
 * the other and no wake-up is lost.
 */
static bool
ost_recv_slot_try(uost_t *up)
{
	bool free_ = false;

	return __atomic_compare_exchange_n(&up->uost_receiving, &free_, true,
	    false, __ATOMIC_SEQ_CST, __ATOMIC_RELAXED);
}

bool
ost_recv_slot_take(uost_t *up, bool leave_if_closing)
{
	if (!(leave_if_closing && ost_seen_closing(up)) &&
	    ost_recv_slot_try(up)) {
		ost_recv_held.slot_up = up;
		return true;
	}
	(void)pthread_mutex_lock(&up->uost_lock);
	for (;;) {
		if (leave_if_closing && up->uost_closing) {
			(void)pthread_mutex_unlock(&up->uost_lock);
			return false;
		}
		__atomic_store_n(&up->uost_want_recv, true, __ATOMIC_SEQ_CST);
		if (ost_recv_slot_try(up))
			break;
		(void)pthread_cond_wait(&up->uost_recv_cv, &up->uost_lock);
	}
	__atomic_store_n(&up->uost_want_recv, false, __ATOMIC_RELAXED);
	(void)pthread_mutex_unlock(&up->uost_lock);
	ost_recv_held.slot_up = up;
	return true;
}

/*
 * The taker clears uost_want_recv, so with several waiters a single signal
 * could leave the others asleep with the flag down: wake them all, and
 * each one that loses the race raises the flag again before it tries.
 * The drops the holder counted go to the statistics first, while the
 * slot still makes it their only writer.
 */
void
ost_recv_slot_give(uost_t *up)
{
	if (up->uost_rx_dropped != 0) {
		ost_stat_add(&up->uost_stats.osts_idrops, up->uost_rx_dropped);
		up->uost_rx_dropped = 0;
	}
	if (ost_recv_held.slot_up == up)
		ost_recv_held.slot_up = NULL;
	__atomic_store_n(&up->uost_receiving, false, __ATOMIC_SEQ_CST);
	if (__atomic_load_n(&up->uost_want_recv, __ATOMIC_SEQ_CST)) {
		(void)pthread_mutex_lock(&up->uost_lock);
		(void)pthread_cond_broadcast(&up->uost_recv_cv);
		(void)pthread_mutex_unlock(&up->uost_lock);
	}
}

/* Raised once, under uost_lock; a spinning receiver looks without it. */
bool
ost_seen_closing(uost_t *up)
{
	return __atomic_load_n(&up->uost_closing, __ATOMIC_ACQUIRE);
}

/*
 * The stashed frame's receive time, taken when it is first delivered, so
 * that a peek and the receive after it tell the same time; null when no
 * option asks for it.
 */
static const struct timespec *
ost_stash_time(uost_t *up)
{
	if ((__atomic_load_n(&up->uost_rx_cmsgs, __ATOMIC_RELAXED) &
		OST_RX_STAMP_MASK) == 0)
		return NULL;
	if (!up->uost_recv_buf_stamped) {
		(void)clock_gettime(CLOCK_REALTIME, &up->uost_recv_buf_ts);
		up->uost_recv_buf_stamped = true;
	}
	return &up->uost_recv_buf_ts;
}

/* Delivers the stashed frame; -1 when validation drops it. */
static ssize_t
ost_recv_stash(uost_t *up, struct msghdr *msg, int flags, size_t *whole)
{
	size_t len = up->uost_recv_buf_len;
	ssize_t n;

	OST_VERIFY(up->uost_recv_buf != NULL);
	n = ost_copy_pkt_cut(up, msg, up->uost_recv_buf, len, whole);
	if (n >= 0)
		ost_pkt_cmsgs(up, msg, up->uost_recv_buf, ost_stash_time(up));
	if (n < 0 || !(flags & MSG_PEEK)) {
		up->uost_recv_buf_len = 0;
		up->uost_recv_buf_stamped = false;
	}
	return n;
}

/*
 * Delivers frames from the handle until one is the socket's; -2 when the
 * handle has none.  With MSG_PEEK the frame stays in the stash.
 */
static ssize_t
ost_recv_handle(uost_t *up, struct msghdr *msg, int flags, size_t *whole)
{
	frio_rx_args_t rx;
	void *frame;
	ssize_t n;

	do {
		bool kept = false;

		if (ost_frio->rx_get(up->uost_frio_hdl, &rx, &frame) !=
		    FRIO_STATUS_OK)
			return -2;
		if ((flags & MSG_PEEK) && rx.ur_pkt_len <= OST_RECV_BUF_SIZE) {
			OST_VERIFY(up->uost_recv_buf_len == 0);
			memcpy(up->uost_recv_buf, frame, rx.ur_pkt_len);
			up->uost_recv_buf_len = rx.ur_pkt_len;
			kept = true;
		}
		n = ost_copy_pkt_cut(up, msg, frame, rx.ur_pkt_len, whole);
		if (n >= 0)
			ost_pkt_cmsgs(up, msg, frame,
			    kept ? ost_stash_time(up) : NULL);
		(void)ost_frio->rx_put(up->uost_frio_hdl, frame);
		if (n < 0 && kept)
			up->uost_recv_buf_len = 0;
	} while (n < 0);
	return n;
}

/* Gives back the slot and the reference; -1 with err. */
static ssize_t
ost_recv_fail(uost_t *up, bool holds_slot, int err)
{
	if (holds_slot)
		ost_recv_slot_give(up);
	ost_recv_release(up);
	errno = err;
	return -1;
}

/*
 * One datagram from the kernel socket, as the kernel gives it (addresses,
 * control data, flags): its length, -2 when it has none, or -1 with the
 * kernel's error (a refused peer, a shut-down socket).
 */
static ssize_t
ost_recv_kernel(uost_t *up, struct msghdr *msg, int flags,
    const uint64_t *kcount, uint64_t kcount_now)
{
	ssize_t n;

	up->uost_kernel_due = gethrtime() +
	    (kcount != NULL ? OST_KERNEL_CHECK_COUNTED_NS :
			      OST_KERNEL_CHECK_NS);
	n = real_recvmsg(up->uost_sd, msg, flags | MSG_DONTWAIT);
	if (n >= 0) {
		up->uost_kernel_peeked = (flags & MSG_PEEK) != 0;
		return n;
	}
	if (errno != EAGAIN && errno != EWOULDBLOCK)
		return -1;
	/* The filter counts a datagram just before the kernel queues it:
	 * news found empty is asked again soon. */
	if (kcount != NULL &&
	    __atomic_exchange_n(&up->uost_kcount_seen, kcount_now,
		__ATOMIC_RELAXED) != kcount_now)
		up->uost_kernel_due = gethrtime() + OST_KERNEL_CHECK_NS;
	return -2;
}

/*
 * One look at both sources, with the receive slot.  The stash comes first
 * (a readiness test or a peek promised it), then the handle; the kernel
 * socket whenever it is due, first, so that a busy handle cannot starve
 * it.  It is due when its arrival count moved since it was last found
 * empty, and on a timer (for what is not a datagram, or without a count);
 * without a count also on every first look of a call that finds the
 * handle empty.  -2: neither has a datagram.  The kernel fills msg itself;
 * the ring fills rmsg, whose sender goes to a whole address of the
 * library's own.
 */
static ssize_t
ost_recv_look(uost_t *up, struct msghdr *msg, struct msghdr *rmsg, int flags,
    bool first, size_t *whole, bool *from_kernel)
{
	uint64_t kc_now;
	const uint64_t *kc = ost_kcount(up, &kc_now);
	bool due = up->uost_kernel_peeked ||
	    (kc != NULL &&
		kc_now !=
		    __atomic_load_n(&up->uost_kcount_seen, __ATOMIC_RELAXED)) ||
	    gethrtime() >= up->uost_kernel_due;
	ssize_t n;

	*from_kernel = false;
	if (rmsg->msg_name != NULL)
		rmsg->msg_namelen = sizeof(struct sockaddr_in6);
	if (up->uost_recv_buf_len != 0 &&
	    (n = ost_recv_stash(up, rmsg, flags, whole)) >= 0)
		return n;
	if (due && (n = ost_recv_kernel(up, msg, flags, kc, kc_now)) != -2) {
		*from_kernel = true;
		return n;
	}
	if ((n = ost_recv_handle(up, rmsg, flags, whole)) != -2)
		return n;
	if (first && !due && kc == NULL &&
	    (n = ost_recv_kernel(up, msg, flags, kc, kc_now)) != -2) {
		*from_kernel = true;
		return n;
	}
	__atomic_add_fetch(&up->uost_empty_seq, 1, __ATOMIC_RELAXED);
	return -2;
}

/*
 * What the ring delivered, as the kernel hands it over: the sender cut to
 * the caller's length, which then says the whole address's.
 */
static void
ost_recv_hand_over(struct msghdr *msg, const struct msghdr *rmsg,
    const struct sockaddr_in6 *from)
{
	msg->msg_controllen = rmsg->msg_controllen;
	msg->msg_flags = rmsg->msg_flags;
	if (msg->msg_name != NULL) {
		socklen_t len = msg->msg_namelen < rmsg->msg_namelen ?
		    msg->msg_namelen :
		    rmsg->msg_namelen;

		memcpy(msg->msg_name, from, len);
		msg->msg_namelen = rmsg->msg_namelen;
	}
}

/* Milliseconds to a deadline (0: none), rounded up; -1 for none. */
static int
ost_recv_ms_left(hrtime_t deadline)
{
	hrtime_t left;

	if (deadline == 0)
		return -1;
	left = deadline - gethrtime();
	if (left <= 0)
		return 0;
	left = left / 1000000 + 1;
	return left > INT_MAX ? INT_MAX : (int)left;
}

/*
 * A receive on the kernel socket alone, once the socket left the bypass
 * under a waiting receive: the teardown put what the ring held back into
 * it.  Without a deadline the kernel's own receive waits, with the
 * kernel's answer to signals; with one, poll waits for the time left.
 */
static ssize_t
ost_recv_kernel_wait(int fd, struct msghdr *msg, int flags, hrtime_t deadline,
    ost_sigcount_t *sigs, bool rcvtimeo)
{
	if (deadline == 0 || (flags & MSG_DONTWAIT))
		return real_recvmsg(fd, msg, flags);
	for (;;) {
		struct pollfd pfd = { fd, POLLIN | POLLRDHUP, 0 };
		int ms = ost_recv_ms_left(deadline), r;
		ssize_t n;

		if (ms == 0) {
			errno = EAGAIN;
			return -1;
		}
		r = real_poll(&pfd, 1, ms);
		if (r < 0 && errno == EINTR && ost_sig_restart(sigs, rcvtimeo))
			continue;
		if (r < 0)
			return -1;
		if (r == 0)
			continue; /* the deadline decides */
		n = real_recvmsg(fd, msg, flags | MSG_DONTWAIT);
		if (n >= 0 || (errno != EAGAIN && errno != EWOULDBLOCK))
			return n;
		/* Shut down and empty: the kernel's receive says so at once
		 * (a non-blocking descriptor: EAGAIN). */
		if (pfd.revents & (POLLRDHUP | POLLNVAL))
			return real_recvmsg(fd, msg, flags);
	}
}

/*
 * A waiting receive whose socket is being torn down: close() ends it with
 * EBADF; any other teardown leaves the descriptor open, and the receive
 * goes on waiting on the kernel socket.
 */
static ssize_t
ost_recv_left(uost_t *up, bool holds_slot, struct msghdr *msg, int flags,
    hrtime_t deadline, ost_sigcount_t *sigs, bool rcvtimeo, int saved_errno)
{
	int fd = up->uost_sd;
	bool closed;
	ssize_t n;

	if (holds_slot)
		ost_recv_slot_give(up);
	/* A teardown's path, not a datagram's: the lock is worth it. */
	(void)pthread_mutex_lock(&up->uost_lock);
	closed = up->uost_sd_closed;
	(void)pthread_mutex_unlock(&up->uost_lock);
	ost_recv_release(up);
	if (closed) {
		errno = EBADF;
		return -1;
	}
	n = ost_recv_kernel_wait(fd, msg, flags, deadline, sigs, rcvtimeo);
	if (n >= 0)
		errno = saved_errno;
	return n;
}

/* Written by setsockopt while a receive may be waiting: a relaxed read. */
static hrtime_t
ost_rcvtimeo(uost_t *up)
{
	return __atomic_load_n(&up->uost_rcvtimeo, __ATOMIC_RELAXED);
}

/*
 * What a wait that began at start (0: the call did not wait) teaches the
 * socket's spin budget.
 */
static void
ost_recv_learn(uost_t *up, hrtime_t start, bool got, const ost_spinner_t *sp)
{
	if (start != 0)
		ost_spin_learn(&up->uost_spin_ns, gethrtime() - start, got, sp);
}

/* A receive that waited in vain for its time-out: EAGAIN. */
static ssize_t
ost_recv_timed_out(uost_t *up, bool holds_slot, hrtime_t start,
    const ost_spinner_t *sp)
{
	ost_recv_learn(up, start, false, sp);
	return ost_recv_fail(up, holds_slot, EAGAIN);
}

ssize_t
ost_recvmsg(uost_t *up, struct msghdr *msg, int flags, hrtime_t timeout)
{
	hrtime_t deadline = 0, wait_start = 0;
	ost_spinner_t spin = {};
	int saved_errno = errno;
	bool paused = false, from_kernel = false, shut = false;
	bool rcvtimeo = ost_rcvtimeo(up) != 0;
	ost_sigcount_t sigs = ost_sig_snap();
	struct sockaddr_in6 from;
	struct msghdr rmsg = *msg;
	size_t whole = 0;
	ssize_t n;

	ost_recv_held.ref_up = up;
	if (msg->msg_name != NULL) {
		memset(&from, 0, sizeof(from));
		rmsg.msg_name = &from;
	}
	if (timeout != 0) {
		deadline = gethrtime();
		deadline = timeout > INT64_MAX - deadline ? INT64_MAX :
							    deadline + timeout;
	}
	for (;;) {
		if (!ost_recv_slot_take(up, true))
			return ost_recv_left(up, false, msg, flags, deadline,
			    &sigs, rcvtimeo, saved_errno);
		for (bool first = true;; first = false) {
			n = ost_recv_look(up, msg, &rmsg, flags, first, &whole,
			    &from_kernel);
			if (n == -1)
				return ost_recv_fail(up, true, errno);
			if (n >= 0)
				goto delivered;
			if (__atomic_load_n(&up->uost_nonblock,
				__ATOMIC_RELAXED) ||
			    (flags & MSG_DONTWAIT))
				return ost_recv_fail(up, true, EAGAIN);
			if (shut) {
				/* Shut down for reading, nothing left: the
				 * kernel's receive ends at once, with 0 and
				 * its own outputs. */
				n = real_recvmsg(up->uost_sd, msg, flags);
				if (n < 0)
					return ost_recv_fail(up, true, errno);
				from_kernel = true;
				goto delivered;
			}
			if (deadline != 0 && gethrtime() >= deadline)
				return ost_recv_timed_out(up, true, wait_start,
				    &spin);
			if (ost_seen_closing(up))
				return ost_recv_left(up, true, msg, flags,
				    deadline, &sigs, rcvtimeo, saved_errno);
			/* A handler ran during the spin: the kernel would
			 * have restarted the receive or ended it. */
			if (ost_sig_ran(&sigs) &&
			    !ost_sig_restart(&sigs, rcvtimeo))
				return ost_recv_fail(up, true, EINTR);
			/*
			 * Spin for what the policy gives (no longer than the
			 * time-out), then wait in poll: an idle socket must
			 * not hold a CPU for ever.  One spin per call.
			 */
			if (wait_start == 0) {
				hrtime_t ns = recv_mode == RCV_POLL ?
				    0 :
				    ost_spin_budget(&up->uost_spin_ns);

				if (timeout != 0 && timeout < ns)
					ns = timeout;
				wait_start = gethrtime();
				ost_spin_start(&spin, ns, false);
			}
			if (!ost_spin_pause(&spin))
				break;
			paused = true;
		}

		/* Sleep without the slot, so that readiness tests of other
		 * threads may fill the stash meanwhile.  The poll wakes for
		 * the kernel socket and for the handle. */
		ost_recv_slot_give(up);
		struct pollfd pfd = { up->uost_sd, POLLIN | POLLRDHUP, 0 };
		int r = ost_poll_wait(up, &pfd, 1, ost_recv_ms_left(deadline),
		    &sigs);

		if (r == 0) {
			/* Time-out, or poll saw the socket being torn down. */
			if (ost_seen_closing(up))
				return ost_recv_left(up, false, msg, flags,
				    deadline, &sigs, rcvtimeo, saved_errno);
			if (deadline == 0 || gethrtime() >= deadline)
				return ost_recv_timed_out(up, false, wait_start,
				    &spin);
			continue;
		}
		if (r < 0) {
			if (errno == EINTR && ost_sig_restart(&sigs, rcvtimeo))
				continue;
			return ost_recv_fail(up, false, errno);
		}
		if (pfd.revents & POLLRDHUP)
			shut = true;
	}

delivered:
	ost_recv_learn(up, wait_start, true, &spin);
	if (!from_kernel) {
		ost_recv_hand_over(msg, &rmsg, &from);
		/* ost_pkt_cmsgs set the control data and MSG_CTRUNC. */
		if (whole > (size_t)n)
			msg->msg_flags |= MSG_TRUNC;
		/* As the kernel: MSG_TRUNC asks for the datagram's length. */
		if (flags & MSG_TRUNC)
			n = (ssize_t)whole;
	}
	/* The slot makes this thread the counters' only writer. */
	ost_stat_add(from_kernel ? &up->uost_stats.osts_kernel_ipkts :
				   &up->uost_stats.osts_ipkts,
	    1);
	if (paused)
		ost_stat_add(&up->uost_stats.osts_ipkts_spin, 1);
	ost_recv_slot_give(up);
	ost_recv_release(up);
	errno = saved_errno;
	return n;
}

/*
 * The record of a descriptor the engine may serve, with a reference; null
 * when the C library serves it (fn: the debug line for a socket without a
 * receive filter, or none).
 */
/*
 * A filter is installed on an open handle, and only the teardown, which
 * waits for every reference, removes it: the caller's reference keeps the
 * answer true, so the receive path reads it without the record's lock.
 */
bool
ost_rx_served(uost_t *up)
{
	return __atomic_load_n(&up->uost_filter_set, __ATOMIC_ACQUIRE);
}

/*
 * Flags only the kernel socket can answer: its error queue, out-of-band
 * data.  The engine serves the rest (MSG_PEEK, MSG_DONTWAIT, MSG_TRUNC) or,
 * as the kernel does for UDP, has nothing to do for them (MSG_NOSIGNAL,
 * MSG_WAITALL, MSG_CMSG_CLOEXEC).
 */
#define OST_KERNEL_RECV_FLAGS (MSG_ERRQUEUE | MSG_OOB)

static uost_t *
ost_recv_record(int fd, int flags)
{
	uost_t *up;

	if (flags & OST_KERNEL_RECV_FLAGS)
		return NULL;
	up = ost_find_sd(fd);
	if (up == NULL || ost_rx_served(up))
		return up;
	ost_release(up);
	ost_debug("no filter set %d\n", fd);
	return NULL;
}

bool
ost_next_len(int fd, int *len)
{
	uost_t *up = ost_recv_record(fd, 0);
	ost_pkt_info_t pi;
	bool ours = false;

	if (up == NULL)
		return false;
	if (ost_rx_ready(up, true)) {
		(void)ost_recv_slot_take(up, false);
		if (up->uost_recv_buf_len != 0 &&
		    ost_check_pkt(up, (const uint8_t *)up->uost_recv_buf,
			up->uost_recv_buf_len, &pi) == OST_PKT_ACCEPT) {
			*len = (int)pi.pi_len;
			ours = true;
		}
		ost_recv_slot_give(up);
	}
	ost_release(up);
	return ours;
}

ssize_t
ost_recvfrom_call(int fd, void *buf, size_t len, int flags,
    struct sockaddr *from, socklen_t *fromlen)
{
	uost_t *up = ost_recv_record(fd, flags);
	struct iovec iov = { buf, len };
	struct msghdr msg;
	ssize_t n;

	if (up == NULL)
		return real_recvfrom(fd, buf, len, flags, from, fromlen);
	memset(&msg, 0, sizeof(msg));
	msg.msg_name = from;
	msg.msg_namelen = fromlen != NULL ? *fromlen : 0;
	msg.msg_iov = &iov;
	msg.msg_iovlen = 1;
	n = ost_recvmsg(up, &msg, flags, ost_rcvtimeo(up));
	if (fromlen != NULL)
		*fromlen = msg.msg_namelen;
	return n;
}

/* read and readv: a receive without flags or sender. */
static ssize_t
ost_readv_common(int fd, const struct iovec *iov, int iovcnt, bool vector)
{
	struct msghdr msg;
	uost_t *up;

	if (iovcnt < 0 || iovcnt > IOV_MAX || (iov == NULL && iovcnt != 0) ||
	    (up = ost_recv_record(fd, 0)) == NULL)
		return vector ? real_readv(fd, iov, iovcnt) :
				real_read(fd, iov[0].iov_base, iov[0].iov_len);
	/* As the kernel's read of a socket: nothing asked, nothing taken. */
	size_t total = 0;

	for (int i = 0; i < iovcnt; i++)
		total |= iov[i].iov_len;
	if (total == 0) {
		ost_release(up);
		return 0;
	}
	memset(&msg, 0, sizeof(msg));
	msg.msg_iov = const_cast<struct iovec *>(iov);
	msg.msg_iovlen = (size_t)iovcnt;
	return ost_recvmsg(up, &msg, 0, ost_rcvtimeo(up));
}

ssize_t
ost_read_call(int fd, void *buf, size_t len)
{
	struct iovec iov = { buf, len };

	return ost_readv_common(fd, &iov, 1, false);
}

ssize_t
ost_readv_call(int fd, const struct iovec *iov, int iovcnt)
{
	return ost_readv_common(fd, iov, iovcnt, true);
}

/* An iovec array the engine can walk; the kernel answers the others. */
static bool
ost_msg_ok(const struct msghdr *msg)
{
	return msg->msg_iovlen <= IOV_MAX &&
	    (msg->msg_iov != NULL || msg->msg_iovlen == 0);
}

/* The X/Open recvmsg, glibc's own shape. */
ssize_t
ost_recvmsg_call(int fd, struct msghdr *msg, int flags)
{
	uost_t *up;

	if (msg == NULL || !ost_msg_ok(msg))
		return real_recvmsg(fd, msg, flags);
	up = ost_recv_record(fd, flags);
	if (up == NULL)
		return real_recvmsg(fd, msg, flags);
	return ost_recvmsg(up, msg, flags, ost_rcvtimeo(up));
}

/*
 * Linux's batch receive.  Each datagram is counted in its own entry, an
 * empty one too; with a time-out the time left is written back, as the
 * kernel does, once at least one datagram has arrived.  A batch is cut
 * to the kernel's UIO_MAXIOV entries.
 */
int
ost_recvmmsg_call(int fd, struct mmsghdr *vec, unsigned int vlen, int flags,
    struct timespec *timeout)
{
	hrtime_t deadline = 0;
	unsigned int count = 0;
	int saved_errno = errno;
	uost_t *up;

	if (vlen < 1 || vec == NULL)
		return real_recvmmsg(fd, vec, vlen, flags, timeout);
	if (vlen > OST_RECV_BATCH_MAX)
		vlen = OST_RECV_BATCH_MAX;
	for (unsigned int i = 0; i < vlen; i++) {
		if (!ost_msg_ok(&vec[i].msg_hdr))
			return real_recvmmsg(fd, vec, vlen, flags, timeout);
	}
	if (timeout != NULL &&
	    (timeout->tv_sec < 0 || timeout->tv_nsec < 0 ||
		timeout->tv_nsec >= NANOSEC))
		return real_recvmmsg(fd, vec, vlen, flags, timeout);
	up = ost_recv_record(fd, flags);
	if (up == NULL)
		return real_recvmmsg(fd, vec, vlen, flags, timeout);
	/*
	 * As the kernel's: each datagram waits as a recvmsg on the socket
	 * would (SO_RCVTIMEO, or for ever), and the time-out is looked at
	 * only after each one arrived.
	 */
	if (timeout != NULL) {
		hrtime_t t = timeout->tv_sec > (INT64_MAX - NANOSEC) / NANOSEC ?
		    INT64_MAX - NANOSEC :
		    (hrtime_t)timeout->tv_sec * NANOSEC;

		t += timeout->tv_nsec;
		deadline = gethrtime();
		deadline = t > INT64_MAX - deadline ? INT64_MAX : deadline + t;
	}
	while (count < vlen) {
		ssize_t r;

		if ((flags & MSG_WAITFORONE) && count >= 1)
			flags = (flags & ~MSG_WAITFORONE) | MSG_DONTWAIT;
		/* The engine gives one reference back per datagram. */
		ost_hold(up);
		r = ost_recvmsg(up, &vec[count].msg_hdr, flags,
		    ost_rcvtimeo(up));
		if (r < 0)
			break;
		vec[count].msg_len = (unsigned int)r;
		count++;
		if (timeout != NULL && gethrtime() >= deadline)
			break;
	}
	ost_release(up);
	if (count == 0)
		return -1;
	if (timeout != NULL) {
		hrtime_t left = deadline - gethrtime();

		if (left < 0)
			left = 0;
		timeout->tv_sec = (time_t)(left / NANOSEC);
		timeout->tv_nsec = (long)(left % NANOSEC);
	}
	errno = saved_errno; /* the receive that ended the batch failed */
	return (int)count;
}
