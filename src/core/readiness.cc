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
#include <limits.h>
#include <stdlib.h>
#include <string.h>

#include "ost_impl.h"
#include "platform/frio_loader.h"

#define OST_POLL_SLICE_MS 50
#define OST_NEVER INT64_MAX

#define OST_POLL_READ (POLLIN | POLLRDNORM)

boolean_t
ost_rx_ready(uost_t *up, boolean_t validate, const char *fn)
{
	frio_rx_args_t rx;
	void *frame;
	boolean_t ready = B_FALSE;

	(void) ost_recv_slot_take(up, B_FALSE);
	if (up->uost_recv_buf_len != 0) {
		ready = B_TRUE;
	} else {
		OST_VERIFY(up->uost_recv_buf != NULL);
		if (ost_frio->rx_get(up->uost_frio_hdl, &rx, &frame) ==
		    FRIO_STATUS_OK) {
			size_t len = rx.ur_pkt_len;

			if (validate && !(up->uost_is_v6 ?
			    ost_parse_pkt_v6(up, frame, NULL, &len, NULL, NULL) :
			    ost_parse_pkt_v4(up, frame, NULL, &len, NULL,
			    NULL))) {
				/* dropped: not readable */
			} else if (rx.ur_pkt_len > OST_RECV_BUF_SIZE) {
				ost_debug("%s: frame too long for the receive "
				    "stash (len %lu): dropped\n", fn,
				    (unsigned long)rx.ur_pkt_len);
			} else if (rx.ur_pkt_len != 0) {
				memcpy(up->uost_recv_buf, frame, rx.ur_pkt_len);
				up->uost_recv_buf_len = rx.ur_pkt_len;
				ready = B_TRUE;
			}
			(void) ost_frio->rx_put(up->uost_frio_hdl, frame);
		}
	}
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

typedef enum { OST_WAIT_DONE, OST_WAIT_RESTART } ost_wait_t;

/*
 * After a pass or a slice that found nothing: DONE when self is being torn
 * down (the engine then answers EBADF), RESTART when another of the
 * sockets is, so that its teardown need not wait for this call.
 */
static boolean_t
ost_any_closing(uost_t *self, const fd_uost_t *tbl, nfds_t n,
    ost_wait_t *what)
{
	if (self != NULL && ost_seen_closing(self)) {
		*what = OST_WAIT_DONE;
		return B_TRUE;
	}
	for (nfds_t i = 0; i < n; i++) {
		if (ost_seen_closing(tbl[i].up)) {
			*what = OST_WAIT_RESTART;
			return B_TRUE;
		}
	}
	return B_FALSE;
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
	hrtime_t deadline = timeout < 0 ? OST_NEVER :
	    ost_deadline_after((hrtime_t)timeout * 1000000);

restart:
	fd_uost_t *tbl = NULL;
	struct pollfd *kfds = NULL;
	boolean_t *ready;
	nfds_t nb = 0;
	int ret = 0;

	for (nfds_t i = 0; i < nfds; i++) {
		uost_t *up = ost_find_sd(fds[i].fd);

		if (up == NULL)
			continue;
		if (!up->uost_frio_set || !up->uost_filter_set ||
		    !(fds[i].events & OST_POLL_READ)) {
			ost_release(up);
			continue;
		}
		if (tbl == NULL &&
		    (tbl = (fd_uost_t *)calloc(nfds, sizeof (*tbl))) == NULL) {
			ost_release(up);
			return -1;
		}
		tbl[nb].idx = i;
		tbl[nb].up = up;
		nb++;
	}
	if (nb == 0 && self == NULL)
		return real_poll(fds, nfds, ost_ms_left(deadline));
	if (nb != 0) {
		kfds = (struct pollfd *)calloc(nfds + nb,
		    sizeof (*kfds) + sizeof (*ready));
		if (kfds == NULL) {
			ost_release_tbl(tbl, nb);
			free(tbl);
			return -1;
		}
		ready = (boolean_t *)(kfds + nfds + nb);
	} else {
		kfds = fds;
		ready = NULL;
	}

	for (;;) {
		bool any = false;
		ost_wait_t what;
		int wait, r;

		for (nfds_t j = 0; j < nb; j++) {
			ready[j] = ost_rx_ready(tbl[j].up, B_TRUE, "poll");
			any = any || ready[j];
		}
		if (nb != 0) {
			memcpy(kfds, fds, nfds * sizeof (*kfds));
			for (nfds_t j = 0; j < nb; j++) {
				struct pollfd *k = &kfds[nfds + j];

				kfds[tbl[j].idx].events &= ~OST_POLL_READ;
				k->fd = ost_frio->get_fd(tbl[j].up->uost_frio_hdl);
				k->events = POLLIN;
				k->revents = 0;
			}
		}
		wait = any ? 0 : ost_ms_left(deadline);
		if (wait < 0 || wait > OST_POLL_SLICE_MS)
			wait = OST_POLL_SLICE_MS;
		r = real_poll(kfds, nfds + nb, wait);
		if (r < 0) {
			ret = -1;
			break;
		}
		if (r > 0 && !any) {
			for (nfds_t j = 0; j < nb; j++) {
				if (kfds[nfds + j].revents != 0) {
					ready[j] = ost_rx_ready(tbl[j].up,
					    B_TRUE, "poll");
				}
			}
		}
		ret = 0;
		for (nfds_t i = 0; nb != 0 && i < nfds; i++)
			fds[i].revents = kfds[i].revents;
		for (nfds_t j = 0; j < nb; j++) {
			if (ready[j])
				fds[tbl[j].idx].revents |= OST_POLL_READ;
		}
		for (nfds_t i = 0; i < nfds; i++)
			ret += fds[i].revents != 0;
		if (ret > 0)
			break;
		if (ost_any_closing(self, tbl, nb, &what)) {
			if (what == OST_WAIT_DONE)
				break;
			ost_release_tbl(tbl, nb);
			free(tbl);
			if (kfds != fds)
				free(kfds);
			goto restart;
		}
		if (deadline != OST_NEVER && gethrtime() >= deadline)
			break;
	}
	int saved = errno;
	ost_release_tbl(tbl, nb);
	free(tbl);
	if (kfds != fds)
		free(kfds);
	errno = saved;
	return ret;
}

static int
ost_busy_poll(uost_t *self, struct pollfd *fds, nfds_t nfds,
    hrtime_t timeout)
{
	hrtime_t deadline = ost_deadline_after(timeout);

	if (nfds == 0)
		return ost_poll_kernel(self, fds, 0, ost_ns_to_ms(timeout));
restart:
	fd_uost_t *tbl = (fd_uost_t *)calloc(nfds, sizeof (*tbl));
	int n = 0;

	if (tbl == NULL)
		return -1;
	for (nfds_t i = 0; i < nfds; i++) {
		uost_t *up;

		fds[i].revents = 0;
		up = ost_find_sd(fds[i].fd);
		if (up == NULL || !up->uost_filter_set) {
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
		ost_wait_t what;

		for (nfds_t i = 0; i < nfds; i++) {
			struct pollfd *pfd = &fds[tbl[i].idx];
			short rev = 0;

			if ((pfd->events & OST_POLL_READ) &&
			    ost_rx_ready(tbl[i].up, B_TRUE, "busy_poll"))
				rev |= OST_POLL_READ;
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
			timeout = deadline == OST_NEVER ? -1 :
			    deadline - gethrtime();
			if (timeout < 0 && deadline != OST_NEVER)
				timeout = 0;
			goto restart;
		}
		ost_sleep(recv_sleep_time);
	}
	ost_release_tbl(tbl, nfds);	/* each asserts the count is above 1 */
	free(tbl);
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
		return ost_busy_poll(self, fds, nfds, (hrtime_t)timeout * 1000000);
	if (usec == 0)
		return ost_poll_kernel(self, fds, nfds, timeout);
	if (timeout > 0 && (hrtime_t)timeout * 1000 <= usec)
		return ost_busy_poll(self, fds, nfds, (hrtime_t)timeout * 1000000);
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
ost_select_by_poll(int lim, fd_set *readfds, fd_set *writefds,
    fd_set *errorfds, hrtime_t deadline)
{
	struct pollfd *pfds;
	nfds_t n = 0;
	int ms = -1, r, k = 0;

	pfds = (struct pollfd *)calloc((size_t)lim + 1, sizeof (*pfds));
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

		ms = left <= 0 ? 0 : left / 1000000 + 1 > INT_MAX ? INT_MAX :
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

int
ost_select(int nfds, fd_set *readfds, fd_set *writefds, fd_set *errorfds,
    struct timeval *timeout)
{
	hrtime_t spin_end = 0;	/* end of the spinning passes */
	static const char fn[] = "select";
	fd_set *sets[3] = { readfds, writefds, errorfds };
	fd_set *saved[3] = { NULL, NULL, NULL };
	static const char *const nomem[3] = { "%s: malloc readfds\n",
	    "%s: malloc writefds\n", "%s: malloc errorfds\n" };
	fd_set rd_ready, wr_ready;
	int nrd = 0, nwr = 0, k, err = 0, lim;
	hrtime_t deadline = 0;

	FD_ZERO(&rd_ready);
	FD_ZERO(&wr_ready);
	for (int s = 0; s < 3; s++) {
		if (sets[s] == NULL)
			continue;
		saved[s] = (fd_set *)malloc(sizeof (fd_set));
		if (saved[s] == NULL) {
			err = errno;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
			ost_debug(nomem[s], fn);
#pragma GCC diagnostic pop
			for (int t = 0; t < s; t++)
				free(saved[t]);
			errno = err;
			return -1;
		}
		memcpy(saved[s], sets[s], sizeof (fd_set));
	}
	if (timeout != NULL) {
		if (timeout->tv_sec < 0 || timeout->tv_usec < 0) {
			err = EINVAL;
			k = -1;
			goto out;
		}
		hrtime_t t = timeout->tv_sec > OST_NEVER / NANOSEC - 1 ?
		    OST_NEVER - NANOSEC :
		    (hrtime_t)timeout->tv_sec * NANOSEC;
		t += timeout->tv_usec > (OST_NEVER - t) / 1000 ?
		    OST_NEVER - t : (hrtime_t)timeout->tv_usec * 1000;
		deadline = ost_deadline_after(t);
	}
	lim = nfds < FD_SETSIZE ? nfds : FD_SETSIZE;

	for (bool any_bypass = false;;) {
		/* A pass must not sleep: Linux's timer slack would turn even
		 * a 1 us time-out into 50 us or more. */
		struct timeval tv = { 0, 0 };

		for (int fd = 0; fd < lim; fd++) {
			bool rd = readfds != NULL && FD_ISSET(fd, readfds);
			bool wr = writefds != NULL &&
			    FD_ISSET(fd, writefds);
			uost_t *up;

			if (!rd && !wr)
				continue;
			if ((up = ost_find_sd(fd)) == NULL)
				continue;
			any_bypass = true;
			if (rd && up->uost_filter_set) {
				FD_CLR(fd, readfds);
				if (ost_rx_ready(up, up->uost_connected, fn)) {
					FD_SET(up->uost_sd, &rd_ready);
					nrd++;
				}
			}
			if (wr) {
				FD_CLR(fd, writefds);
				FD_SET(fd, &wr_ready);
				nwr++;
			}
			ost_release(up);
		}
		if (!any_bypass) {
			/* Nothing of ours in the sets: the kernel may sleep,
			 * and a signal may end the wait, as without us.  It
			 * writes the time left itself. */
			k = real_select(nfds, readfds, writefds, errorfds,
			    timeout);
			err = errno;
			deadline = 0;
			break;
		}
		k = real_select(nfds, readfds, writefds, errorfds, &tv);
		err = errno;
		if (nrd > 0 || nwr > 0) {
			/* A failed kernel pass says nothing of the others. */
			if (k == -1) {
				for (int s = 0; s < 3; s++) {
					if (sets[s] != NULL)
						FD_ZERO(sets[s]);
				}
				k = 0;
			}
			for (int fd = 0; fd < lim; fd++) {
				if (readfds != NULL && FD_ISSET(fd, &rd_ready))
					FD_SET(fd, readfds);
				if (writefds != NULL && FD_ISSET(fd, &wr_ready))
					FD_SET(fd, writefds);
			}
			k += nrd + nwr;
			break;
		}
		if (k > 0)
			break;
		/* A kernel select that fails keeps failing: without a
		 * deadline, say so now rather than spin forever. */
		if (k == -1 && (deadline == 0 || err == EINTR))
			break;
		if (deadline != 0 && gethrtime() >= deadline)
			break;
		for (int s = 0; s < 3; s++) {
			if (sets[s] != NULL)
				memcpy(sets[s], saved[s], sizeof (fd_set));
		}
		/* Passes spin for a while; then the wait sleeps, so that a
		 * signal ends it and an idle set does not hold a CPU. */
		if (spin_end == 0) {
			spin_end = gethrtime() + OST_SELECT_SPIN_NS;
		} else if (gethrtime() >= spin_end) {
			k = ost_select_by_poll(lim, readfds, writefds,
			    errorfds, deadline);
			err = errno;
			break;
		}
	}
out:
	if (deadline != 0) {
		hrtime_t left = deadline - gethrtime();

		if (left < 0)
			left = 0;
		timeout->tv_sec = (time_t)(left / NANOSEC);
		timeout->tv_usec = (suseconds_t)(left % NANOSEC / 1000);
	}
	for (int s = 0; s < 3; s++)
		free(saved[s]);
	errno = err;
	return k;
}
