/*
 * poll and select over bypass sockets and ordinary descriptors.
 *
 * A bypass socket's datagrams never reach its kernel socket, so the
 * library tests it itself: it is readable when its receive stash holds a
 * frame or when a frame fetched from its handle can be put there (the next
 * receive delivers it, so a test never costs a datagram), and always
 * writable.  poll first spins over such tests (busy_poll) for poll_usec
 * microseconds, or when that is 0 for what the wait policy gives
 * (core/wait_policy.h), then sleeps in the kernel; select likewise.
 *
 * Sleeping in the kernel: the kernel socket never turns readable for a
 * frame on the handle, so the handle's own wait descriptor (frio_get_fd)
 * goes into the kernel poll beside the caller's descriptors.  When it
 * fires, the socket gets the same test as in the busy poll; a test that
 * finds nothing (the frame was dropped, or another thread took it) goes
 * back to sleep for the time left.  Such a sleep wakes every
 * OST_POLL_SLICE_MS to see whether one of its sockets is being torn down:
 * the poll holds references, which the teardown waits for, so it lets go
 * of them and starts over for the time left.
 */
#include <errno.h>
#include <signal.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>

#include "core/receive.h"
#include "core/signals.h"
#include "core/wait_policy.h"
#include "os/frio_loader.h"

#define OST_POLL_SLICE_MS 50

/* The learnt spin budget of this thread's poll and select calls: a
 * thread's loop around them is, most often, one wait set. */
static __thread uint32_t ost_mux_spin_ns
    __attribute__((tls_model("initial-exec")));

/*
 * The kernel's poll.  One that may sleep runs with every signal blocked
 * but for the sleep itself (ppoll's mask), after a last look at the
 * handler counts: a handler that ran since the wait began ends it, and one
 * that runs from here on ends the sleep.
 */
static int
ost_kpoll(struct pollfd *fds, nfds_t nfds, int ms, const ost_sigcount_t *sigs)
{
	struct timespec ts;
	sigset_t mask;
	int r;

	if (ms == 0)
		return real_poll(fds, nfds, 0);
	if (!ost_sig_hold(sigs, &mask))
		return -1;
	ts.tv_sec = ms / 1000;
	ts.tv_nsec = (long)(ms % 1000) * 1000000;
	r = real_ppoll(fds, nfds, ms < 0 ? NULL : &ts, &mask);
	ost_sig_unhold(&mask);
	return r;
}

/* The wait ends with EINTR: a handler ran during its spin. */
static bool
ost_interrupted(const ost_sigcount_t *sigs)
{
	if (!ost_sig_ran(sigs))
		return false;
	errno = EINTR;
	return true;
}

#define OST_NEVER INT64_MAX

#define OST_POLL_READ (POLLIN | POLLRDNORM)

bool
ost_rx_ready(uost_t *up, bool validate, bool *fetched)
{
	frio_rx_args_t rx;
	void *frame;
	bool ready = false;

	if (fetched != NULL)
		*fetched = false;
	(void)ost_recv_slot_take(up, false);
	if (up->uost_recv_buf_len != 0) {
		ready = true;
	} else {
		OST_VERIFY(up->uost_recv_buf != NULL);
		if (ost_frio->rx_get(up->uost_frio_hdl, &rx, &frame) ==
		    FRIO_STATUS_OK) {
			size_t len = rx.ur_pkt_len;

			if (validate &&
			    !ost_parse_pkt(up, frame, NULL, &len, NULL, NULL)) {
				/* dropped: not readable */
			} else if (rx.ur_pkt_len > OST_RECV_BUF_SIZE) {
				ost_debug("frame too long for the receive "
					  "stash (len %lu): dropped\n",
				    (unsigned long)rx.ur_pkt_len);
				up->uost_rx_dropped++;
			} else if (rx.ur_pkt_len != 0) {
				memcpy(up->uost_recv_buf, frame, rx.ur_pkt_len);
				up->uost_recv_buf_len = rx.ur_pkt_len;
				ready = true;
				if (fetched != NULL)
					*fetched = true;
			}
			(void)ost_frio->rx_put(up->uost_frio_hdl, frame);
		}
	}
	if (!ready)
		__atomic_add_fetch(&up->uost_empty_seq, 1, __ATOMIC_RELAXED);
	ost_recv_slot_give(up);
	return ready;
}

/*
 * Whether the kernel sockets of the table have news: a count that moved
 * since the socket was last found empty, or no count at all.  counted:
 * every one has a count.  The counts read stay in the table.
 */
static bool
ost_kernel_news(fd_uost_t *tbl, nfds_t n, bool *counted)
{
	bool news = false;

	*counted = true;
	for (nfds_t i = 0; i < n; i++) {
		tbl[i].kc = ost_kcount(tbl[i].up, &tbl[i].kc_now) != NULL;
		if (!tbl[i].kc)
			*counted = false;
		if (!tbl[i].kc ||
		    tbl[i].kc_now !=
			__atomic_load_n(&tbl[i].up->uost_kcount_seen,
			    __ATOMIC_RELAXED))
			news = true;
	}
	return news;
}

/*
 * The kernel's answer for the table noted: a counted socket it found
 * without a datagram was empty at the count read before asking.  When
 * to ask again: soon after news that proved empty (the filter counts a
 * datagram just before it is queued), else on the timer.
 */
static hrtime_t
ost_kernel_noted(fd_uost_t *tbl, const struct pollfd *kfds, nfds_t n,
    bool counted)
{
	hrtime_t next =
	    counted ? OST_KERNEL_CHECK_COUNTED_NS : OST_KERNEL_CHECK_NS;

	for (nfds_t i = 0; i < n; i++) {
		if (!tbl[i].kc || (kfds[i].revents & OST_POLL_READ))
			continue;
		if (__atomic_exchange_n(&tbl[i].up->uost_kcount_seen,
			tbl[i].kc_now, __ATOMIC_RELAXED) != tbl[i].kc_now)
			next = OST_KERNEL_CHECK_NS;
	}
	return gethrtime() + next;
}

static hrtime_t
ost_deadline_after(hrtime_t ns)
{
	hrtime_t now = gethrtime();

	if (ns < 0 || ns > OST_NEVER - now)
		return OST_NEVER;
	return now + ns;
}

/* Milliseconds to a deadline, rounded up; -1 for none. */
static int
ost_ms_left(hrtime_t deadline)
{
	hrtime_t left;

	if (deadline == OST_NEVER)
		return -1;
	left = deadline - gethrtime();
	if (left <= 0)
		return 0;
	left = (left + 999999) / 1000000;
	return left > INT_MAX ? INT_MAX : (int)left;
}

/* Nanoseconds to milliseconds for the C library's poll. */
static int
ost_ns_to_ms(hrtime_t ns)
{
	if (ns < 0)
		return -1;
	ns /= 1000000;
	return ns > INT_MAX ? INT_MAX : (int)ns;
}

/*
 * The references a wait of this thread holds while a handler may run: a
 * handler that leaves the wait by siglongjmp would strand them, and the
 * sockets' close would wait for them for ever (ost_wait_abandoned).
 */
static __thread struct {
	fd_uost_t *tbl; /* allocated; freed with its references */
	nfds_t n;
	void *extra; /* freed with it, or null */
} ost_wait_held __attribute__((tls_model("initial-exec")));

static void
ost_hold_tbl(fd_uost_t *tbl, nfds_t n, void *extra)
{
	ost_wait_held.tbl = tbl;
	ost_wait_held.n = n;
	ost_wait_held.extra = extra;
}

static void
ost_release_tbl(fd_uost_t *tbl, nfds_t n)
{
	if (ost_wait_held.tbl == tbl)
		ost_wait_held.tbl = NULL;
	for (nfds_t i = 0; i < n; i++)
		ost_release(tbl[i].up);
}

void
ost_wait_abandoned(void)
{
	fd_uost_t *tbl = ost_wait_held.tbl;

	if (tbl == NULL)
		return;
	ost_release_tbl(tbl, ost_wait_held.n);
	free(ost_wait_held.extra);
	free(tbl);
}

typedef enum {
	OST_WAIT_DONE,
	OST_WAIT_RESTART
} ost_wait_t;

/*
 * After a pass or a slice that found nothing: DONE when self is being torn
 * down (the engine then answers EBADF), RESTART when another of the
 * sockets is, so that its teardown need not wait for this call.
 */
static bool
ost_any_closing(uost_t *self, const fd_uost_t *tbl, nfds_t n, ost_wait_t *what)
{
	if (self != NULL && ost_seen_closing(self)) {
		*what = OST_WAIT_DONE;
		return true;
	}
	for (nfds_t i = 0; i < n; i++) {
		if (ost_seen_closing(tbl[i].up)) {
			*what = OST_WAIT_RESTART;
			return true;
		}
	}
	return false;
}

/*
 * The bypass sockets of a kernel poll: each one that asks for input, with a
 * reference, and the descriptors the kernel watches (the caller's, then one
 * handle wait descriptor per bypass socket).
 */
typedef struct ost_pollset {
	fd_uost_t *ps_tbl;
	nfds_t ps_nb;
	struct pollfd *ps_kfds; /* the caller's array when ps_nb is 0 */
	bool *ps_ready;
} ost_pollset_t;

static void
ost_pollset_close(ost_pollset_t *ps, struct pollfd *fds)
{
	int saved = errno;

	ost_release_tbl(ps->ps_tbl, ps->ps_nb);
	free(ps->ps_tbl);
	if (ps->ps_kfds != fds)
		free(ps->ps_kfds);
	errno = saved;
}

/* 0, or -1 with errno when memory runs out. */
static int
ost_pollset_open(ost_pollset_t *ps, struct pollfd *fds, nfds_t nfds)
{
	memset(ps, 0, sizeof(*ps));
	ps->ps_kfds = fds;
	for (nfds_t i = 0; i < nfds; i++) {
		uost_t *up = ost_find_sd(fds[i].fd);

		if (up == NULL)
			continue;
		if (!(fds[i].events & OST_POLL_READ) || !ost_rx_served(up)) {
			ost_release(up);
			continue;
		}
		if (ps->ps_tbl == NULL &&
		    (ps->ps_tbl = (fd_uost_t *)calloc(nfds,
			 sizeof(fd_uost_t))) == NULL) {
			ost_release(up);
			return -1;
		}
		ps->ps_tbl[ps->ps_nb].idx = i;
		ps->ps_tbl[ps->ps_nb].up = up;
		ps->ps_nb++;
	}
	if (ps->ps_nb == 0)
		return 0;
	ps->ps_kfds = (struct pollfd *)calloc(nfds + ps->ps_nb,
	    sizeof(struct pollfd) + sizeof(bool));
	if (ps->ps_kfds == NULL) {
		ps->ps_kfds = fds;
		ost_pollset_close(ps, fds);
		return -1;
	}
	ps->ps_ready = (bool *)(ps->ps_kfds + nfds + ps->ps_nb);
	ost_hold_tbl(ps->ps_tbl, ps->ps_nb, ps->ps_kfds);
	return 0;
}

/* Tests every bypass socket and lays out the kernel's array; any ready. */
static bool
ost_pollset_arm(ost_pollset_t *ps, const struct pollfd *fds, nfds_t nfds)
{
	bool any = false;

	for (nfds_t j = 0; j < ps->ps_nb; j++) {
		ps->ps_ready[j] = ost_rx_ready(ps->ps_tbl[j].up, true);
		any = any || ps->ps_ready[j];
	}
	if (ps->ps_nb == 0)
		return false;
	memcpy(ps->ps_kfds, fds, nfds * sizeof(struct pollfd));
	for (nfds_t j = 0; j < ps->ps_nb; j++) {
		struct pollfd *k = &ps->ps_kfds[nfds + j];

		k->fd = ost_frio->get_fd(ps->ps_tbl[j].up->uost_frio_hdl);
		k->events = POLLIN;
		k->revents = 0;
	}
	return any;
}

/*
 * After the kernel's poll: a handle whose descriptor fired gets the test
 * again (unless one passed before the poll), and the caller's array gets
 * the kernel's answers with the library's readability.  The ready count.
 */
static int
ost_pollset_collect(ost_pollset_t *ps, struct pollfd *fds, nfds_t nfds,
    bool retest)
{
	int ret = 0;

	for (nfds_t j = 0; retest && j < ps->ps_nb; j++) {
		if (ps->ps_kfds[nfds + j].revents != 0)
			ps->ps_ready[j] = ost_rx_ready(ps->ps_tbl[j].up, true);
	}
	for (nfds_t i = 0; ps->ps_nb != 0 && i < nfds; i++)
		fds[i].revents = ps->ps_kfds[i].revents;
	for (nfds_t j = 0; j < ps->ps_nb; j++) {
		struct pollfd *pfd = &fds[ps->ps_tbl[j].idx];

		/* Only the bits asked for, as the kernel answers. */
		if (ps->ps_ready[j])
			pfd->revents |= pfd->events & OST_POLL_READ;
	}
	for (nfds_t i = 0; i < nfds; i++)
		ret += fds[i].revents != 0;
	return ret;
}

/*
 * The kernel's poll, with each bypass socket that asks for input watched
 * through its handle's wait descriptor.  The caller's descriptors keep
 * what the kernel says of them, except that a bypass socket's readability
 * is the library's.
 */
static int
ost_poll_kernel(uost_t *self, struct pollfd *fds, nfds_t nfds, int timeout,
    const ost_sigcount_t *sigs)
{
	hrtime_t deadline = timeout < 0 ?
	    OST_NEVER :
	    ost_deadline_after((hrtime_t)timeout * 1000000);
	ost_pollset_t ps;
	int ret;

restart:
	if (ost_pollset_open(&ps, fds, nfds) != 0)
		return -1;
	if (ps.ps_nb == 0 && self == NULL)
		return ost_kpoll(fds, nfds, ost_ms_left(deadline), sigs);
	for (;;) {
		bool any = ost_pollset_arm(&ps, fds, nfds);
		int wait = any ? 0 : ost_ms_left(deadline);
		ost_wait_t what;

		/* Slices, so that a teardown of one of ours is seen. */
		if (wait < 0 || wait > OST_POLL_SLICE_MS)
			wait = OST_POLL_SLICE_MS;
		ret = ost_kpoll(ps.ps_kfds, nfds + ps.ps_nb, wait, sigs);
		if (ret < 0)
			break;
		ret = ost_pollset_collect(&ps, fds, nfds, ret > 0 && !any);
		if (ret > 0)
			break;
		if (ost_interrupted(sigs)) {
			ret = -1;
			break;
		}
		if (ost_any_closing(self, ps.ps_tbl, ps.ps_nb, &what)) {
			if (what == OST_WAIT_DONE)
				break;
			ost_pollset_close(&ps, fds);
			goto restart;
		}
		if (deadline != OST_NEVER && gethrtime() >= deadline)
			break;
	}
	ost_pollset_close(&ps, fds);
	return ret;
}

/*
 * Spins over the set for timeout nanoseconds.  An adaptive spin gives up
 * early when other threads want the processor, and does not spin at all
 * over a set with ordinary descriptors (0: the caller sleeps in the
 * kernel); an explicit one hands such a set to the kernel's poll.
 */
static int
ost_busy_poll(uost_t *self, struct pollfd *fds, nfds_t nfds, hrtime_t timeout,
    const ost_sigcount_t *sigs, ost_spinner_t *adaptive)
{
	hrtime_t deadline = ost_deadline_after(timeout);
	ost_spinner_t firm, &spin = adaptive != NULL ? *adaptive : firm;

	ost_spin_start(&spin, adaptive != NULL ? timeout : -1,
	    adaptive == NULL);
	if (nfds == 0 && adaptive != NULL)
		return 0;
	if (nfds == 0)
		return ost_poll_kernel(self, fds, 0, ost_ns_to_ms(timeout),
		    sigs);
restart:
	/* The table, then a copy of the caller's array for the kernel. */
	fd_uost_t *tbl =
	    (fd_uost_t *)calloc(nfds, sizeof(*tbl) + sizeof(struct pollfd));
	struct pollfd *kfds;
	hrtime_t kernel_due = 0;
	int n = 0;

	if (tbl == NULL)
		return -1;
	kfds = (struct pollfd *)(tbl + nfds);
	for (nfds_t i = 0; i < nfds; i++) {
		uost_t *up;

		fds[i].revents = 0;
		up = ost_find_sd(fds[i].fd);
		if (up == NULL || !ost_rx_served(up)) {
			/* The whole set goes to the kernel. */
			if (up != NULL)
				ost_release(up);
			ost_release_tbl(tbl, i);
			free(tbl);
			if (adaptive != NULL)
				return 0;
			return ost_poll_kernel(self, fds, nfds,
			    ost_ns_to_ms(timeout), sigs);
		}
		tbl[i].idx = i;
		tbl[i].up = up;
	}
	ost_hold_tbl(tbl, nfds, NULL);
	for (;;) {
		bool counted, news = ost_kernel_news(tbl, nfds, &counted);
		hrtime_t now = gethrtime();
		bool kernel;
		ost_wait_t what;

		/*
		 * The kernel sockets, one system call for the whole set: on
		 * the first pass and then every OST_KERNEL_CHECK_NS; when
		 * every one has an arrival count, only when a count moved,
		 * and on a slower timer.
		 */
		if (kernel_due == 0 && counted)
			kernel_due = now + OST_KERNEL_CHECK_COUNTED_NS;
		kernel = now >= kernel_due || (counted && news);
		if (kernel) {
			memcpy(kfds, fds, nfds * sizeof(*kfds));
			if (ost_kpoll(kfds, nfds, 0, sigs) < 0) {
				kernel = false;
				kernel_due = gethrtime() + OST_KERNEL_CHECK_NS;
			} else {
				kernel_due =
				    ost_kernel_noted(tbl, kfds, nfds, counted);
			}
		}
		for (nfds_t i = 0; i < nfds; i++) {
			struct pollfd *pfd = &fds[tbl[i].idx];
			short rev = kernel ? kfds[i].revents & ~POLLOUT : 0;

			if ((pfd->events & OST_POLL_READ) &&
			    ost_rx_ready(tbl[i].up, true))
				rev |= pfd->events & OST_POLL_READ;
			if (pfd->events & POLLOUT)
				rev |= POLLOUT;
			pfd->revents = rev;
			n += rev != 0;
		}
		if (n > 0 || gethrtime() >= deadline)
			break;
		if (ost_interrupted(sigs)) {
			n = -1;
			break;
		}
		if (ost_any_closing(self, tbl, nfds, &what)) {
			if (what == OST_WAIT_DONE)
				break;
			ost_release_tbl(tbl, nfds);
			free(tbl);
			timeout =
			    deadline == OST_NEVER ? -1 : deadline - gethrtime();
			if (timeout < 0 && deadline != OST_NEVER)
				timeout = 0;
			goto restart;
		}
		if (!ost_spin_pause(&spin))
			break;
	}
	int err = errno;

	ost_release_tbl(tbl, nfds); /* each asserts the count is above 1 */
	free(tbl);
	errno = err;
	return n;
}

int
busy_poll(struct pollfd *fds, nfds_t nfds, hrtime_t timeout)
{
	ost_sigcount_t sigs = ost_sig_snap();

	return ost_busy_poll(NULL, fds, nfds, timeout, &sigs, NULL);
}

/*
 * A poll without a busy phase of its own: the spin the policy gives this
 * thread's waits, then the kernel's sleep for the time left; what the
 * wait found teaches the budget.
 */
static int
ost_poll_adaptive(struct pollfd *fds, nfds_t nfds, int timeout,
    const ost_sigcount_t *sigs)
{
	hrtime_t start, ns = ost_spin_budget(&ost_mux_spin_ns);
	ost_spinner_t spin = {};
	int r = 0;

	if (timeout == 0)
		return ost_poll_kernel(NULL, fds, nfds, 0, sigs);
	start = gethrtime();
	if (timeout > 0 && (hrtime_t)timeout * 1000000 < ns)
		ns = (hrtime_t)timeout * 1000000;
	if (ns > 0) {
		r = ost_busy_poll(NULL, fds, nfds, ns, sigs, &spin);
		if (r == 0 && timeout > 0) {
			hrtime_t spent = (gethrtime() - start) / 1000000;

			timeout = spent >= timeout ? 0 : timeout - (int)spent;
		}
	}
	if (r == 0)
		r = ost_poll_kernel(NULL, fds, nfds, timeout, sigs);
	if (r >= 0)
		ost_spin_learn(&ost_mux_spin_ns, gethrtime() - start, r > 0,
		    &spin);
	return r;
}

/* may_spin: a poll of its own, not the sleep after another wait's spin. */
static int
ost_poll_wait_spin(uost_t *self, struct pollfd *fds, nfds_t nfds, int timeout,
    const ost_sigcount_t *sigs, bool may_spin)
{
	int32_t usec = poll_usec < -1 ? -1 : poll_usec;
	int r;

	if (usec == -1)
		return ost_busy_poll(self, fds, nfds,
		    (hrtime_t)timeout * 1000000, sigs, NULL);
	if (usec == 0 && may_spin)
		return ost_poll_adaptive(fds, nfds, timeout, sigs);
	if (usec == 0)
		return ost_poll_kernel(self, fds, nfds, timeout, sigs);
	if (timeout > 0 && (hrtime_t)timeout * 1000 <= usec)
		return ost_busy_poll(self, fds, nfds,
		    (hrtime_t)timeout * 1000000, sigs, NULL);
	r = ost_busy_poll(self, fds, nfds, (hrtime_t)usec * 1000, sigs, NULL);
	if (r != 0)
		return r;
	if (self != NULL && ost_seen_closing(self))
		return 0;
	/* The time left: a positive time-out is longer than the busy phase. */
	if (timeout > 0)
		timeout -= usec / 1000;
	return ost_poll_kernel(self, fds, nfds, timeout, sigs);
}

int
ost_poll_wait(uost_t *self, struct pollfd *fds, nfds_t nfds, int timeout,
    const ost_sigcount_t *sigs)
{
	/* A receive's sleep comes after its own spin. */
	return ost_poll_wait_spin(self, fds, nfds, timeout, sigs, self == NULL);
}

static bool ost_poll_any_bypass(const struct pollfd *fds, nfds_t nfds);

int
ost_poll(struct pollfd *fds, nfds_t nfds, int timeout)
{
	ost_sigcount_t sigs;

	/* Nothing of ours: the kernel's own poll, as without us. */
	if (!ost_poll_any_bypass(fds, nfds))
		return real_poll(fds, nfds, timeout);
	sigs = ost_sig_snap();
	return ost_poll_wait(NULL, fds, nfds, timeout, &sigs);
}

/*
 * select over bypass sockets.  Each pass tests the bypass sockets and
 * gives the other descriptors to a kernel select that does not sleep
 * (Linux's timer slack would turn even a 1 us time-out into 50 us or
 * more).  Once the passes have found nothing for as long as the wait
 * policy gives, the wait sleeps in poll, so that an idle set does not hold
 * a CPU.  A handler that runs meanwhile ends the call with EINTR, as it
 * would the kernel's.
 *
 * The sets are as long as nfds says, as the kernel reads them (nfds bits
 * rounded up to a long): programs that watch descriptors past FD_SETSIZE
 * allocate larger ones.
 */
#define OST_NFDBITS (8 * (int)sizeof(unsigned long))

static size_t
ost_set_bytes(int nfds)
{
	return ((size_t)nfds + OST_NFDBITS - 1) / OST_NFDBITS *
	    sizeof(unsigned long);
}

static bool
ost_isset(const fd_set *set, int fd)
{
	return set != NULL &&
	    (((const unsigned long *)set)[fd / OST_NFDBITS] >>
		    (fd % OST_NFDBITS) &
		1);
}

static void
ost_setbit(fd_set *set, int fd)
{
	((unsigned long *)set)[fd / OST_NFDBITS] |= 1UL << (fd % OST_NFDBITS);
}

static void
ost_clrbit(fd_set *set, int fd)
{
	((unsigned long *)set)[fd / OST_NFDBITS] &=
	    ~(1UL << (fd % OST_NFDBITS));
}

/* Whether the read or the write set names a descriptor in [fd, fd+64). */
static bool
ost_word_any(const fd_set *r, const fd_set *w, int fd)
{
	return (r != NULL && ((const unsigned long *)r)[fd / OST_NFDBITS]) ||
	    (w != NULL && ((const unsigned long *)w)[fd / OST_NFDBITS]);
}

/*
 * The rest of a select that found nothing for a while, as a poll over the
 * same descriptors: poll sleeps in the kernel, woken by our handles as by
 * ordinary descriptors.  deadline 0: no limit.  A descriptor that is not
 * open fails the call, as in the kernel's select, and leaves the sets.
 */
static int
ost_select_by_poll(int nfds, fd_set *sets[3], hrtime_t deadline,
    const ost_sigcount_t *sigs)
{
	struct pollfd *pfds;
	nfds_t n = 0;
	int ms = -1, r, k = 0;

	pfds = (struct pollfd *)calloc((size_t)nfds + 1, sizeof(*pfds));
	if (pfds == NULL)
		return -1;
	for (int fd = 0; fd < nfds; fd++) {
		short ev = 0;

		if (ost_isset(sets[0], fd))
			ev |= POLLIN;
		if (ost_isset(sets[1], fd))
			ev |= POLLOUT;
		if (ost_isset(sets[2], fd))
			ev |= POLLPRI;
		if (ev != 0) {
			pfds[n].fd = fd;
			pfds[n++].events = ev;
		}
	}
	if (deadline != 0) {
		hrtime_t left = deadline - gethrtime();

		ms = left <= 0                   ? 0 :
		    left / 1000000 + 1 > INT_MAX ? INT_MAX :
						   (int)(left / 1000000 + 1);
	}
	r = ost_poll_wait_spin(NULL, pfds, n, ms, sigs, false);
	for (nfds_t i = 0; r > 0 && i < n; i++) {
		if (pfds[i].revents & POLLNVAL) {
			errno = EBADF;
			r = -1;
		}
	}
	if (r < 0) {
		int err = errno;

		free(pfds);
		errno = err;
		return -1;
	}
	for (int s = 0; s < 3; s++) {
		if (sets[s] != NULL)
			memset(sets[s], 0, ost_set_bytes(nfds));
	}
	for (nfds_t i = 0; i < n; i++) {
		short re = pfds[i].revents, ev = pfds[i].events;
		int fd = pfds[i].fd;

		if ((ev & POLLIN) && (re & (POLLIN | POLLHUP | POLLERR))) {
			ost_setbit(sets[0], fd);
			k++;
		}
		if ((ev & POLLOUT) && (re & (POLLOUT | POLLERR))) {
			ost_setbit(sets[1], fd);
			k++;
		}
		if ((ev & POLLPRI) && (re & POLLPRI)) {
			ost_setbit(sets[2], fd);
			k++;
		}
	}
	free(pfds);
	return k;
}

/* What one pass of select found on the bypass sockets of the sets. */
typedef struct ost_select_pass {
	fd_set *sp_rd;      /* readable bypass sockets */
	fd_set *sp_wr;      /* writable bypass sockets */
	int sp_n;           /* bits set in both */
	bool sp_any_bypass; /* the sets name a bypass socket */
} ost_select_pass_t;

/*
 * Tests the handles of the bypass sockets in the read set (their kernel
 * sockets stay in it for the kernel's pass) and takes the bypass sockets
 * out of the write set: they are always writable.
 */
static void
ost_select_bypass(int nfds, fd_set *readfds, fd_set *writefds,
    ost_select_pass_t *sp)
{
	memset(sp->sp_rd, 0, ost_set_bytes(nfds));
	memset(sp->sp_wr, 0, ost_set_bytes(nfds));
	sp->sp_n = 0;
	sp->sp_any_bypass = false;
	for (int fd = 0; fd < nfds; fd++) {
		bool rd, wr;
		uost_t *up;

		if (fd % OST_NFDBITS == 0 &&
		    !ost_word_any(readfds, writefds, fd)) {
			fd += OST_NFDBITS - 1;
			continue;
		}
		rd = ost_isset(readfds, fd);
		wr = ost_isset(writefds, fd);
		if ((!rd && !wr) || (up = ost_find_sd(fd)) == NULL)
			continue;
		sp->sp_any_bypass = true;
		if (rd && ost_rx_served(up) && ost_rx_ready(up, true)) {
			ost_setbit(sp->sp_rd, fd);
			sp->sp_n++;
		}
		if (wr) {
			ost_clrbit(writefds, fd);
			ost_setbit(sp->sp_wr, fd);
			sp->sp_n++;
		}
		ost_release(up);
	}
}

/* Whether the read or write set names a bypass socket. */
static bool
ost_select_any_bypass(int nfds, const fd_set *readfds, const fd_set *writefds)
{
	for (int fd = 0; fd < nfds; fd++) {
		uost_t *up;

		if (fd % OST_NFDBITS == 0 &&
		    !ost_word_any(readfds, writefds, fd)) {
			fd += OST_NFDBITS - 1;
			continue;
		}
		if (!ost_isset(readfds, fd) && !ost_isset(writefds, fd))
			continue;
		if ((up = ost_find_sd(fd)) != NULL) {
			ost_release(up);
			return true;
		}
	}
	return false;
}

/* The bypass sockets found ready, added to the kernel's answer k. */
static int
ost_select_merge(int nfds, fd_set *sets[3], const ost_select_pass_t *sp, int k)
{
	/* A socket both sources call readable counts once. */
	for (int fd = 0; fd < nfds; fd++) {
		if (sets[0] != NULL && ost_isset(sp->sp_rd, fd) &&
		    !ost_isset(sets[0], fd)) {
			ost_setbit(sets[0], fd);
			k++;
		}
		if (sets[1] != NULL && ost_isset(sp->sp_wr, fd)) {
			ost_setbit(sets[1], fd);
			k++;
		}
	}
	return k;
}

/* The time-out as a deadline; 0 for none, -1 for an invalid one. */
static hrtime_t
ost_select_deadline(const struct timeval *timeout)
{
	hrtime_t t;

	if (timeout == NULL)
		return 0;
	if (timeout->tv_sec < 0 || timeout->tv_usec < 0)
		return -1;
	t = timeout->tv_sec > OST_NEVER / NANOSEC - 1 ?
	    OST_NEVER - NANOSEC :
	    (hrtime_t)timeout->tv_sec * NANOSEC;
	t += timeout->tv_usec > (OST_NEVER - t) / 1000 ?
	    OST_NEVER - t :
	    (hrtime_t)timeout->tv_usec * 1000;
	return ost_deadline_after(t);
}

static void
ost_sets_copy(fd_set *to[3], fd_set *const from[3], size_t bytes)
{
	for (int s = 0; s < 3; s++) {
		if (to[s] != NULL)
			memcpy(to[s], from[s], bytes);
	}
}

/*
 * The passes.  Whatever fails leaves the caller's sets as they came, as
 * the kernel's select does.  *started: when the first pass found nothing,
 * or 0; spin: the passes' spinner.
 */
static int
ost_select_spin(int nfds, fd_set *sets[3], fd_set *const saved[3],
    ost_select_pass_t *sp, hrtime_t deadline, const ost_sigcount_t *sigs,
    hrtime_t *started, ost_spinner_t *spin)
{
	size_t bytes = ost_set_bytes(nfds);

	for (;;) {
		struct timespec zero = { 0, 0 };
		int k;

		ost_select_bypass(nfds, sets[0], sets[1], sp);
		if (!sp->sp_any_bypass) {
			/* Nothing of ours left in the sets: the kernel
			 * sleeps, and a signal ends its wait. */
			struct timespec ts;
			hrtime_t left = deadline - gethrtime();
			sigset_t mask;

			if (left < 0)
				left = 0;
			ts.tv_sec = (time_t)(left / NANOSEC);
			ts.tv_nsec = (long)(left % NANOSEC);
			if (!ost_sig_hold(sigs, &mask))
				return -1;
			k = real_pselect(nfds, sets[0], sets[1], sets[2],
			    deadline != 0 ? &ts : NULL, &mask);
			ost_sig_unhold(&mask);
			return k;
		}
		k = real_pselect(nfds, sets[0], sets[1], sets[2], &zero, NULL);
		if (k == -1) {
			/* A descriptor that is not open: EBADF at once. */
			int err = errno;

			ost_sets_copy(sets, saved, bytes);
			errno = err;
			return -1;
		}
		if (sp->sp_n > 0)
			return ost_select_merge(nfds, sets, sp, k);
		if (k > 0 || (deadline != 0 && gethrtime() >= deadline))
			return k;
		ost_sets_copy(sets, saved, bytes);
		if (ost_interrupted(sigs))
			return -1;
		if (*started == 0) {
			*started = gethrtime();
			ost_spin_start(spin, ost_spin_budget(&ost_mux_spin_ns),
			    false);
		}
		if (!ost_spin_pause(spin))
			return ost_select_by_poll(nfds, sets, deadline, sigs);
	}
}

/* select with a deadline (0: none), sigs taken when the call began. */
static int
ost_select_common(int nfds, fd_set *readfds, fd_set *writefds, fd_set *errorfds,
    hrtime_t deadline, const ost_sigcount_t *sigs)
{
	fd_set *sets[3] = { readfds, writefds, errorfds };
	size_t bytes = ost_set_bytes(nfds);
	fd_set stack[5], *saved[3];
	ost_select_pass_t sp;
	hrtime_t started = 0;
	ost_spinner_t spin = {};
	char *mem = (char *)stack;
	int k, err;

	if (5 * bytes > sizeof(stack) &&
	    (mem = (char *)malloc(5 * bytes)) == NULL)
		return -1;
	for (int s = 0; s < 3; s++) {
		saved[s] = sets[s] != NULL ? (fd_set *)(mem + s * bytes) : NULL;
		if (sets[s] != NULL)
			memcpy(saved[s], sets[s], bytes);
	}
	sp.sp_rd = (fd_set *)(mem + 3 * bytes);
	sp.sp_wr = (fd_set *)(mem + 4 * bytes);
	k = ost_select_spin(nfds, sets, saved, &sp, deadline, sigs, &started,
	    &spin);
	err = errno;
	if (k >= 0 && started != 0)
		ost_spin_learn(&ost_mux_spin_ns, gethrtime() - started, k > 0,
		    &spin);
	if (mem != (char *)stack)
		free(mem);
	errno = err;
	return k;
}

int
ost_select(int nfds, fd_set *readfds, fd_set *writefds, fd_set *errorfds,
    struct timeval *timeout)
{
	ost_sigcount_t sigs = ost_sig_snap();
	hrtime_t deadline;
	int k, err;

	deadline = ost_select_deadline(timeout);
	if (deadline == -1) {
		errno = EINVAL;
		return -1;
	}
	if (nfds < 0 || !ost_select_any_bypass(nfds, readfds, writefds))
		return real_select(nfds, readfds, writefds, errorfds, timeout);
	k = ost_select_common(nfds, readfds, writefds, errorfds, deadline,
	    &sigs);
	err = errno;
	if (deadline != 0) {
		hrtime_t left = deadline - gethrtime();

		if (left < 0)
			left = 0;
		timeout->tv_sec = (time_t)(left / NANOSEC);
		timeout->tv_usec = (suseconds_t)(left % NANOSEC / 1000);
	}
	errno = err;
	return k;
}

/* Whether fds name a bypass socket. */
static bool
ost_poll_any_bypass(const struct pollfd *fds, nfds_t nfds)
{
	for (nfds_t i = 0; i < nfds; i++) {
		uost_t *up = ost_find_sd(fds[i].fd);

		if (up != NULL) {
			ost_release(up);
			return true;
		}
	}
	return false;
}

/* A time-out as poll's milliseconds, rounded up; -1 for none. */
static int
ost_ts_to_ms(const struct timespec *ts)
{
	hrtime_t ms;

	if (ts == NULL)
		return -1;
	ms = (hrtime_t)ts->tv_sec * 1000 + (ts->tv_nsec + 999999) / 1000000;
	return ms > INT_MAX ? INT_MAX : (int)ms;
}

static bool
ost_ts_valid(const struct timespec *ts)
{
	return ts == NULL ||
	    (ts->tv_sec >= 0 && ts->tv_nsec >= 0 && ts->tv_nsec < NANOSEC);
}

/*
 * ppoll and pselect: the call's mask is the thread's for the call, so that
 * a signal it lets in runs its handler during the wait (and ends it), and
 * one it keeps out waits until the caller's mask is back.  The handler
 * counts are taken first: a signal pending at the call that the mask lets
 * in ends it at once, as in the kernel.
 */
int
ost_ppoll(struct pollfd *fds, nfds_t nfds, const struct timespec *timeout,
    const sigset_t *mask)
{
	ost_sigcount_t sigs;
	sigset_t caller;
	int r, err;

	if (!ost_ts_valid(timeout) || !ost_poll_any_bypass(fds, nfds))
		return real_ppoll(fds, nfds, timeout, mask);
	sigs = ost_sig_snap();
	if (mask != NULL)
		(void)pthread_sigmask(SIG_SETMASK, mask, &caller);
	r = ost_poll_wait(NULL, fds, nfds, ost_ts_to_ms(timeout), &sigs);
	err = errno;
	if (mask != NULL)
		(void)pthread_sigmask(SIG_SETMASK, &caller, NULL);
	errno = err;
	return r;
}

int
ost_pselect(int nfds, fd_set *readfds, fd_set *writefds, fd_set *errorfds,
    const struct timespec *timeout, const sigset_t *mask)
{
	ost_sigcount_t sigs;
	hrtime_t deadline = 0;
	sigset_t caller;
	int k, err;

	if (!ost_ts_valid(timeout) || nfds < 0 ||
	    !ost_select_any_bypass(nfds, readfds, writefds))
		return real_pselect(nfds, readfds, writefds, errorfds, timeout,
		    mask);
	if (timeout != NULL)
		deadline = ost_deadline_after(
		    timeout->tv_sec > OST_NEVER / NANOSEC - 1 ?
			OST_NEVER :
			(hrtime_t)timeout->tv_sec * NANOSEC + timeout->tv_nsec);
	sigs = ost_sig_snap();
	if (mask != NULL)
		(void)pthread_sigmask(SIG_SETMASK, mask, &caller);
	k = ost_select_common(nfds, readfds, writefds, errorfds, deadline,
	    &sigs);
	err = errno;
	if (mask != NULL)
		(void)pthread_sigmask(SIG_SETMASK, &caller, NULL);
	errno = err;
	return k;
}
