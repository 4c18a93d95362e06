/*
 * poll and select over bypass sockets and ordinary descriptors.
 *
 * A bypass socket's datagrams never reach its kernel socket, so the
 * library tests it itself: it is readable when its receive stash holds a
 * frame or when a frame fetched from its handle can be put there (the next
 * receive delivers it, so a test never costs a datagram), and always
 * writable.  poll first spins over such tests for poll_usec microseconds
 * (busy_poll), then sleeps in the kernel; select only spins.
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
#include "os/frio_loader.h"

#define OST_POLL_SLICE_MS 50

/*
 * The signal mask of the ppoll or pselect this thread is in, or null.
 * While it is set every signal is blocked, and each kernel wait runs with
 * this mask instead, so that a signal is delivered exactly where the
 * application's call would have let it in, and ends the call.
 */
static __thread const sigset_t *ost_wait_mask
    __attribute__((tls_model("initial-exec")));

static int
ost_kpoll(struct pollfd *fds, nfds_t nfds, int ms)
{
	const sigset_t *mask = ost_wait_mask;
	struct timespec ts;

	if (mask == NULL)
		return real_poll(fds, nfds, ms);
	ts.tv_sec = ms / 1000;
	ts.tv_nsec = (long)(ms % 1000) * 1000000;
	return real_ppoll(fds, nfds, ms < 0 ? NULL : &ts, mask);
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

static void
ost_release_tbl(fd_uost_t *tbl, nfds_t n)
{
	for (nfds_t i = 0; i < n; i++)
		ost_release(tbl[i].up);
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
		if (ps->ps_ready[j])
			fds[ps->ps_tbl[j].idx].revents |=
			    fds[ps->ps_tbl[j].idx].events & OST_POLL_READ;
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
ost_poll_kernel(uost_t *self, struct pollfd *fds, nfds_t nfds, int timeout)
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
		return ost_kpoll(fds, nfds, ost_ms_left(deadline));
	for (;;) {
		bool any = ost_pollset_arm(&ps, fds, nfds);
		int wait = any ? 0 : ost_ms_left(deadline);
		ost_wait_t what;

		/* Slices, so that a teardown of one of ours is seen. */
		if (wait < 0 || wait > OST_POLL_SLICE_MS)
			wait = OST_POLL_SLICE_MS;
		ret = ost_kpoll(ps.ps_kfds, nfds + ps.ps_nb, wait);
		if (ret < 0)
			break;
		ret = ost_pollset_collect(&ps, fds, nfds, ret > 0 && !any);
		if (ret > 0)
			break;
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

static int
ost_busy_poll(uost_t *self, struct pollfd *fds, nfds_t nfds, hrtime_t timeout)
{
	hrtime_t deadline = ost_deadline_after(timeout);

	if (nfds == 0)
		return ost_poll_kernel(self, fds, 0, ost_ns_to_ms(timeout));
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
			return ost_poll_kernel(self, fds, nfds,
			    ost_ns_to_ms(timeout));
		}
		tbl[i].idx = i;
		tbl[i].up = up;
	}
	for (;;) {
		bool kernel = gethrtime() >= kernel_due;
		ost_wait_t what;

		/* The kernel sockets, on the first pass and then every
		 * OST_KERNEL_CHECK_NS: one system call for the whole set. */
		if (kernel) {
			memcpy(kfds, fds, nfds * sizeof(*kfds));
			if (ost_kpoll(kfds, nfds, 0) < 0) {
				if (errno == EINTR) {
					n = -1;
					break;
				}
				kernel = false;
			}
			kernel_due = gethrtime() + OST_KERNEL_CHECK_NS;
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
		ost_sleep(recv_sleep_time);
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
	return ost_busy_poll(NULL, fds, nfds, timeout);
}

int
ost_poll_wait(uost_t *self, struct pollfd *fds, nfds_t nfds, int timeout)
{
	int32_t usec = poll_usec < -1 ? -1 : poll_usec;
	int r;

	if (usec == -1)
		return ost_busy_poll(self, fds, nfds,
		    (hrtime_t)timeout * 1000000);
	if (usec == 0)
		return ost_poll_kernel(self, fds, nfds, timeout);
	if (timeout > 0 && (hrtime_t)timeout * 1000 <= usec)
		return ost_busy_poll(self, fds, nfds,
		    (hrtime_t)timeout * 1000000);
	r = ost_busy_poll(self, fds, nfds, (hrtime_t)usec * 1000);
	if (r != 0)
		return r;
	if (self != NULL && ost_seen_closing(self))
		return 0;
	/* The time left: a positive time-out is longer than the busy phase. */
	if (timeout > 0)
		timeout -= usec / 1000;
	return ost_poll_kernel(self, fds, nfds, timeout);
}

int
ost_poll(struct pollfd *fds, nfds_t nfds, int timeout)
{
	return ost_poll_wait(NULL, fds, nfds, timeout);
}

/*
 * select never sleeps in the kernel: each pass tests the bypass sockets
 * and gives the other descriptors to a kernel select of 1 us.
 */
/* How long select's passes spin before the wait sleeps in poll. */
#define OST_SELECT_SPIN_NS (20 * 1000 * 1000LL)

/*
 * The rest of a select that found nothing for a while, as a poll over the
 * same descriptors: poll sleeps in the kernel, woken by our handles as by
 * ordinary descriptors, and ends with EINTR when a signal handler runs.
 * deadline 0: no limit.
 */
static int
ost_select_by_poll(int lim, fd_set *readfds, fd_set *writefds, fd_set *errorfds,
    hrtime_t deadline)
{
	struct pollfd *pfds;
	nfds_t n = 0;
	int ms = -1, r, k = 0;

	pfds = (struct pollfd *)calloc((size_t)lim + 1, sizeof(*pfds));
	if (pfds == NULL)
		return -1;
	for (int fd = 0; fd < lim; fd++) {
		short ev = 0;

		if (readfds != NULL && FD_ISSET(fd, readfds))
			ev |= POLLIN;
		if (writefds != NULL && FD_ISSET(fd, writefds))
			ev |= POLLOUT;
		if (errorfds != NULL && FD_ISSET(fd, errorfds))
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
	r = ost_poll(pfds, n, ms);
	if (r < 0) {
		int err = errno;

		free(pfds);
		errno = err;
		return -1;
	}
	for (int s = 0; s < 3; s++) {
		fd_set *set = s == 0 ? readfds : s == 1 ? writefds : errorfds;

		if (set != NULL)
			FD_ZERO(set);
	}
	for (nfds_t i = 0; i < n; i++) {
		short re = pfds[i].revents;
		int fd = pfds[i].fd;

		if (readfds != NULL && (pfds[i].events & POLLIN) &&
		    (re & (POLLIN | POLLHUP | POLLERR))) {
			FD_SET(fd, readfds);
			k++;
		}
		if (writefds != NULL && (pfds[i].events & POLLOUT) &&
		    (re & (POLLOUT | POLLERR))) {
			FD_SET(fd, writefds);
			k++;
		}
		if (errorfds != NULL && (pfds[i].events & POLLPRI) &&
		    (re & POLLPRI)) {
			FD_SET(fd, errorfds);
			k++;
		}
	}
	free(pfds);
	return k;
}

/* What one pass of select found on the bypass sockets of the sets. */
typedef struct ost_select_pass {
	fd_set sp_rd;       /* readable bypass sockets */
	fd_set sp_wr;       /* writable bypass sockets */
	int sp_n;           /* bits set in both */
	bool sp_any_bypass; /* the sets name a bypass socket */
} ost_select_pass_t;

/*
 * Tests the handles of the bypass sockets in the read set (their kernel
 * sockets stay in it for the kernel's pass) and takes the bypass sockets
 * out of the write set: they are always writable.
 */
static void
ost_select_bypass(int lim, fd_set *readfds, fd_set *writefds,
    ost_select_pass_t *sp)
{
	for (int fd = 0; fd < lim; fd++) {
		bool rd = readfds != NULL && FD_ISSET(fd, readfds);
		bool wr = writefds != NULL && FD_ISSET(fd, writefds);
		uost_t *up;

		if ((!rd && !wr) || (up = ost_find_sd(fd)) == NULL)
			continue;
		sp->sp_any_bypass = true;
		if (rd && ost_rx_served(up)) {
			if (ost_rx_ready(up, true)) {
				FD_SET(fd, &sp->sp_rd);
				sp->sp_n++;
			}
		}
		if (wr) {
			FD_CLR(fd, writefds);
			FD_SET(fd, &sp->sp_wr);
			sp->sp_n++;
		}
		ost_release(up);
	}
}

/* Whether the read or write set names a bypass socket. */
static bool
ost_select_any_bypass(int nfds, const fd_set *readfds, const fd_set *writefds)
{
	int lim = nfds < FD_SETSIZE ? nfds : FD_SETSIZE;

	for (int fd = 0; fd < lim; fd++) {
		uost_t *up;

		if ((readfds == NULL || !FD_ISSET(fd, readfds)) &&
		    (writefds == NULL || !FD_ISSET(fd, writefds)))
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
ost_select_merge(int lim, fd_set *sets[3], const ost_select_pass_t *sp, int k)
{
	/* A failed kernel pass says nothing of the others. */
	if (k == -1) {
		for (int s = 0; s < 3; s++) {
			if (sets[s] != NULL)
				FD_ZERO(sets[s]);
		}
		k = 0;
	}
	/* A socket both sources call readable counts once. */
	for (int fd = 0; fd < lim; fd++) {
		if (sets[0] != NULL && FD_ISSET(fd, &sp->sp_rd) &&
		    !FD_ISSET(fd, sets[0])) {
			FD_SET(fd, sets[0]);
			k++;
		}
		if (sets[1] != NULL && FD_ISSET(fd, &sp->sp_wr)) {
			FD_SET(fd, sets[1]);
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

/*
 * The passes: each tests the bypass sockets and gives the other
 * descriptors to a kernel select that does not sleep (Linux's timer slack
 * would turn even a 1 us time-out into 50 us or more).  After
 * OST_SELECT_SPIN_NS of passes that found nothing the wait sleeps in poll,
 * so that an idle set does not hold a CPU.
 *
 * A signal must end a select with EINTR, but a handler that runs while
 * the passes spin in user space leaves no trace.  So the spin runs with
 * signals blocked, and each kernel pass is a pselect with the caller's own
 * mask: a signal that came meanwhile is delivered there, and the pass says
 * EINTR, as the kernel would have.
 */
static int
ost_select_spin(int nfds, fd_set *sets[3], fd_set *const saved[3],
    struct timeval *timeout, hrtime_t *deadline, const sigset_t *caller,
    const sigset_t *mask)
{
	/* The mask of the kernel's passes: pselect's, else the caller's. */
	const sigset_t *pass = mask != NULL ? mask : caller;
	int lim = nfds < FD_SETSIZE ? nfds : FD_SETSIZE;
	hrtime_t spin_end = 0;

	for (;;) {
		struct timespec zero = { 0, 0 };
		ost_select_pass_t sp;
		int k;

		memset(&sp, 0, sizeof(sp));
		FD_ZERO(&sp.sp_rd);
		FD_ZERO(&sp.sp_wr);
		ost_select_bypass(lim, sets[0], sets[1], &sp);
		if (!sp.sp_any_bypass) {
			/* Nothing of ours in the sets: the kernel may sleep,
			 * and a signal may end the wait, as without us.  It
			 * writes the time left itself. */
			if (mask != NULL) {
				struct timespec ts;
				hrtime_t left = *deadline - gethrtime();

				if (left < 0)
					left = 0;
				ts.tv_sec = (time_t)(left / NANOSEC);
				ts.tv_nsec = (long)(left % NANOSEC);
				return real_pselect(nfds, sets[0], sets[1],
				    sets[2], *deadline != 0 ? &ts : NULL, mask);
			}
			*deadline = 0;
			(void)pthread_sigmask(SIG_SETMASK, caller, NULL);
			return real_select(nfds, sets[0], sets[1], sets[2],
			    timeout);
		}
		k = real_pselect(nfds, sets[0], sets[1], sets[2], &zero, pass);
		if (k == -1 && errno == EINTR)
			return k;
		if (sp.sp_n > 0) {
			int err = errno;

			k = ost_select_merge(lim, sets, &sp, k);
			errno = err;
			return k;
		}
		if (k > 0)
			return k;
		/* A kernel select that fails keeps failing: without a
		 * deadline, say so now rather than spin forever. */
		if (k == -1 && *deadline == 0)
			return k;
		if (*deadline != 0 && gethrtime() >= *deadline)
			return k;
		for (int s = 0; s < 3; s++) {
			if (sets[s] != NULL)
				memcpy(sets[s], saved[s], sizeof(fd_set));
		}
		if (spin_end == 0) {
			spin_end = gethrtime() + OST_SELECT_SPIN_NS;
		} else if (gethrtime() >= spin_end) {
			/* pselect keeps signals blocked: its mask goes into
			 * the kernel's sleeps. */
			if (mask == NULL)
				(void)pthread_sigmask(SIG_SETMASK, caller,
				    NULL);
			return ost_select_by_poll(lim, sets[0], sets[1],
			    sets[2], *deadline);
		}
	}
}

int
ost_select(int nfds, fd_set *readfds, fd_set *writefds, fd_set *errorfds,
    struct timeval *timeout, const sigset_t *mask)
{
	fd_set *sets[3] = { readfds, writefds, errorfds };
	fd_set saved_sets[3];
	fd_set *saved[3];
	hrtime_t deadline;
	int k, err;

	deadline = ost_select_deadline(timeout);
	if (deadline == -1) {
		errno = EINVAL;
		return -1;
	}
	for (int s = 0; s < 3; s++) {
		saved[s] = sets[s] != NULL ? &saved_sets[s] : NULL;
		if (sets[s] != NULL)
			memcpy(saved[s], sets[s], sizeof(fd_set));
	}
	if (!ost_select_any_bypass(nfds, readfds, writefds))
		return real_select(nfds, readfds, writefds, errorfds, timeout);
	sigset_t all, caller;

	(void)sigfillset(&all);
	(void)pthread_sigmask(SIG_BLOCK, &all, &caller);
	ost_wait_mask = mask;
	k = ost_select_spin(nfds, sets, saved, timeout, &deadline, &caller,
	    mask);
	err = errno;
	ost_wait_mask = NULL;
	(void)pthread_sigmask(SIG_SETMASK, &caller, NULL);
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

int
ost_ppoll(struct pollfd *fds, nfds_t nfds, const struct timespec *timeout,
    const sigset_t *mask)
{
	sigset_t all, caller;
	int r, err;

	if (!ost_ts_valid(timeout) || !ost_poll_any_bypass(fds, nfds))
		return real_ppoll(fds, nfds, timeout, mask);
	(void)sigfillset(&all);
	(void)pthread_sigmask(SIG_BLOCK, &all, &caller);
	ost_wait_mask = mask != NULL ? mask : &caller;
	r = ost_poll(fds, nfds, ost_ts_to_ms(timeout));
	err = errno;
	ost_wait_mask = NULL;
	(void)pthread_sigmask(SIG_SETMASK, &caller, NULL);
	errno = err;
	return r;
}

int
ost_pselect(int nfds, fd_set *readfds, fd_set *writefds, fd_set *errorfds,
    const struct timespec *timeout, const sigset_t *mask)
{
	struct timeval tv;
	sigset_t caller;

	if (!ost_ts_valid(timeout) ||
	    !ost_select_any_bypass(nfds, readfds, writefds))
		return real_pselect(nfds, readfds, writefds, errorfds, timeout,
		    mask);
	if (timeout != NULL) {
		tv.tv_sec = timeout->tv_sec;
		tv.tv_usec = (suseconds_t)((timeout->tv_nsec + 999) / 1000);
	}
	if (mask == NULL) {
		(void)pthread_sigmask(SIG_SETMASK, NULL, &caller);
		mask = &caller;
	}
	return ost_select(nfds, readfds, writefds, errorfds,
	    timeout != NULL ? &tv : NULL, mask);
}
