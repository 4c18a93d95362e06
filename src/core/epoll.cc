/*
 * epoll over bypass sockets.
 *
 * The kernel watches a bypass socket's kernel socket as it would without
 * us, but it cannot see the frame ring.  So each bypass socket in an epoll
 * set is a watch of ours: its kernel socket is registered with a tag of
 * ours instead of the application's data, and its handle's wait
 * descriptor (readable while frames wait) goes into the same set under a
 * second tag, so that a sleeping epoll_wait, and an outer set that nests
 * this one, wake for the ring too.  epoll_wait translates: a tagged event
 * becomes the application's, with its data, EPOLLIN when the ring holds a
 * datagram (fetched into the stash, so the next receive gets it), merged
 * into one event per socket.  Edge-triggered watches report the ring's
 * datagrams once, and again only after the socket was found empty, as the
 * kernel's next arrival would; one-shot watches disarm both registrations
 * until EPOLL_CTL_MOD re-arms them.
 *
 * Watches live in a table per epoll descriptor, under ost_ep_lock, which
 * comes before the bucket and record locks (registering a handle looks the
 * socket up) and is never taken under them.  A tag is the watch's slot
 * number beside a fixed pattern no pointer and no small number carries.
 */
#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>

#include "core/receive.h"
#include "core/signals.h"
#include "core/wait_policy.h"
#include "os/frio_loader.h"

#define OST_EP_MAGIC 0xa55a0e11ULL
#define OST_EP_TAG(slot, handle) \
	(OST_EP_MAGIC << 32 | (uint64_t)(slot) << 1 | (handle))

typedef struct ost_ep_watch {
	int ew_fd;          /* -1: a free slot */
	uint32_t ew_events; /* as the application registered them */
	epoll_data_t ew_data;
	int ew_hfd;       /* the handle's descriptor in the set, or -1 */
	bool ew_disarmed; /* a one-shot watch that fired */
	bool ew_et_told;  /* edge-triggered: the ring's datagrams were told */
	uint32_t ew_seq;  /* ... and the socket's uost_empty_seq then */
} ost_ep_watch_t;

typedef struct ost_ep_set {
	struct ost_ep_set *es_next;
	int es_epfd;
	uint32_t es_nslots;
	ost_ep_watch_t *es_slot;
	uint32_t es_spin_ns; /* the set's learnt spin budget */
} ost_ep_set_t;

static pthread_mutex_t ost_ep_lock = PTHREAD_MUTEX_INITIALIZER;
static ost_ep_set_t *ost_ep_sets; /* protected by ost_ep_lock */

/* Around fork (core/registry.cc), so that the child's lock is free. */
void
ost_epoll_fork_lock(bool take)
{
	if (take)
		(void)pthread_mutex_lock(&ost_ep_lock);
	else
		(void)pthread_mutex_unlock(&ost_ep_lock);
}

void
ost_epoll_fork_reset(void)
{
	(void)pthread_mutex_init(&ost_ep_lock, NULL);
}
static int ost_ep_count; /* sets; read unlocked as a hint */

static ost_ep_set_t *
ost_ep_find(int epfd)
{
	for (ost_ep_set_t *es = ost_ep_sets; es != NULL; es = es->es_next) {
		if (es->es_epfd == epfd)
			return es;
	}
	return NULL;
}

static ost_ep_watch_t *
ost_ep_watch(ost_ep_set_t *es, int fd)
{
	for (uint32_t i = 0; es != NULL && i < es->es_nslots; i++) {
		if (es->es_slot[i].ew_fd == fd)
			return &es->es_slot[i];
	}
	return NULL;
}

/* A free slot of epfd's set, made if need be; null without memory. */
static ost_ep_watch_t *
ost_ep_new_watch(int epfd, int fd)
{
	ost_ep_set_t *es = ost_ep_find(epfd);
	ost_ep_watch_t *w;
	uint32_t i;

	if (es == NULL) {
		es = (ost_ep_set_t *)calloc(1, sizeof(*es));
		if (es == NULL)
			return NULL;
		es->es_epfd = epfd;
		es->es_next = ost_ep_sets;
		ost_ep_sets = es;
		__atomic_add_fetch(&ost_ep_count, 1, __ATOMIC_RELAXED);
	}
	for (i = 0; i < es->es_nslots && es->es_slot[i].ew_fd != -1; i++)
		;
	if (i == es->es_nslots) {
		uint32_t n = es->es_nslots != 0 ? es->es_nslots * 2 : 8;
		w = (ost_ep_watch_t *)realloc(es->es_slot, n * sizeof(*w));
		if (w == NULL)
			return NULL;
		for (uint32_t k = es->es_nslots; k < n; k++)
			w[k].ew_fd = -1;
		es->es_slot = w;
		es->es_nslots = n;
	}
	w = &es->es_slot[i];
	memset(w, 0, sizeof(*w));
	w->ew_fd = fd;
	w->ew_hfd = -1;
	return w;
}

static uint32_t
ost_ep_slot(const ost_ep_set_t *es, const ost_ep_watch_t *w)
{
	return (uint32_t)(w - es->es_slot);
}

/* The handle's descriptor into the set, once the socket has a handle. */
static void
ost_ep_add_handle(int epfd, uint32_t slot, int fd, ost_ep_watch_t *w)
{
	struct epoll_event ev;
	uost_t *up;
	int hfd = -1;

	if (w->ew_hfd != -1 || !(w->ew_events & EPOLLIN))
		return;
	if ((up = ost_find_sd(fd)) == NULL)
		return;
	if (ost_rx_served(up))
		hfd = ost_frio->get_fd(up->uost_frio_hdl);
	ost_release(up);
	if (hfd < 0)
		return;
	/* Edge-triggered, each frame's arrival is an edge: news. */
	ev.events = EPOLLIN | (w->ew_events & EPOLLET);
	ev.data.u64 = OST_EP_TAG(slot, 1);
	if (real_epoll_ctl(epfd, EPOLL_CTL_ADD, hfd, &ev) == 0 ||
	    errno == EEXIST)
		w->ew_hfd = hfd;
}

int
ost_epoll_ctl(int epfd, int op, int fd, struct epoll_event *event)
{
	ost_errno_keep keep;
	struct epoll_event ev;
	ost_ep_watch_t *w;
	uost_t *up;
	int ret;

	(void)pthread_mutex_lock(&ost_ep_lock);
	w = ost_ep_watch(ost_ep_find(epfd), fd);
	if (w == NULL && op == EPOLL_CTL_ADD &&
	    (up = ost_find_sd(fd)) != NULL) {
		ost_release(up);
		w = ost_ep_new_watch(epfd, fd);
		if (w == NULL) {
			(void)pthread_mutex_unlock(&ost_ep_lock);
			keep.ek_saved = ENOMEM;
			return -1;
		}
		w->ew_fd = -2; /* not live until the kernel took it */
	}
	/* Not ours, or a call the kernel refuses (no event for ADD or MOD). */
	if (w == NULL || (event == NULL && op != EPOLL_CTL_DEL)) {
		if (w != NULL && w->ew_fd == -2)
			w->ew_fd = -1;
		(void)pthread_mutex_unlock(&ost_ep_lock);
		ret = real_epoll_ctl(epfd, op, fd, event);
		keep.ek_saved = errno;
		return ret;
	}
	ost_ep_set_t *es = ost_ep_find(epfd);
	uint32_t slot = ost_ep_slot(es, w);

	if (op == EPOLL_CTL_DEL) {
		ret = real_epoll_ctl(epfd, op, fd, event);
		if (w->ew_hfd != -1)
			(void)real_epoll_ctl(epfd, EPOLL_CTL_DEL, w->ew_hfd,
			    NULL);
		w->ew_fd = -1;
	} else {
		ev.events = event->events;
		ev.data.u64 = OST_EP_TAG(slot, 0);
		ret = real_epoll_ctl(epfd, op, fd, &ev);
		if (ret == 0) {
			w->ew_fd = fd;
			w->ew_events = event->events;
			w->ew_data = event->data;
			w->ew_disarmed = false;
			w->ew_et_told = false;
			if (w->ew_hfd != -1) {
				ev.events = EPOLLIN | (event->events & EPOLLET);
				ev.data.u64 = OST_EP_TAG(slot, 1);
				(void)real_epoll_ctl(epfd, EPOLL_CTL_MOD,
				    w->ew_hfd, &ev);
			}
			ost_ep_add_handle(epfd, slot, fd, w);
		} else if (w->ew_fd == -2) {
			w->ew_fd = -1;
		}
	}
	keep.ek_saved = ret == 0 ? keep.ek_saved : errno;
	(void)pthread_mutex_unlock(&ost_ep_lock);
	return ret;
}

/*
 * A descriptor closed: its watches go, and so does the set an epoll
 * descriptor was.  Cheap when no set has a watch.
 */
void
ost_epoll_forget(int fd)
{
	ost_ep_set_t **esp;

	if (__atomic_load_n(&ost_ep_count, __ATOMIC_RELAXED) == 0)
		return;
	(void)pthread_mutex_lock(&ost_ep_lock);
	for (esp = &ost_ep_sets; *esp != NULL;) {
		ost_ep_set_t *es = *esp;

		if (es->es_epfd == fd) {
			*esp = es->es_next;
			free(es->es_slot);
			free(es);
			__atomic_sub_fetch(&ost_ep_count, 1, __ATOMIC_RELAXED);
			continue;
		}
		for (uint32_t i = 0; i < es->es_nslots; i++) {
			if (es->es_slot[i].ew_fd == fd)
				es->es_slot[i].ew_fd = -1;
		}
		esp = &es->es_next;
	}
	(void)pthread_mutex_unlock(&ost_ep_lock);
}

/* What the rings hold, per slot of a set, for one pass of epoll_wait. */
#define OST_EP_STACK 64

typedef struct ost_ep_scan {
	uint32_t sc_n;
	bool *sc_ready;   /* the ring holds a datagram to be told */
	bool *sc_told;    /* an event for the watch is in the output */
	int *sc_fd;       /* the watch's socket, or -1 */
	uint32_t *sc_seq; /* the socket's uost_empty_seq after the test */
	void *sc_mem;     /* allocated when the set is large, else null */
	bool sc_stack_ready[OST_EP_STACK];
	bool sc_stack_told[OST_EP_STACK];
	int sc_stack_fd[OST_EP_STACK];
	uint32_t sc_stack_seq[OST_EP_STACK];
} ost_ep_scan_t;

static int
ost_ep_scan_size(ost_ep_scan_t *sc, uint32_t n)
{
	sc->sc_n = n;
	sc->sc_mem = NULL;
	if (n <= OST_EP_STACK) {
		sc->sc_ready = sc->sc_stack_ready;
		sc->sc_told = sc->sc_stack_told;
		sc->sc_fd = sc->sc_stack_fd;
		sc->sc_seq = sc->sc_stack_seq;
		return 0;
	}
	sc->sc_mem =
	    malloc(n * (2 * sizeof(bool) + sizeof(int) + sizeof(uint32_t)));
	if (sc->sc_mem == NULL)
		return -1;
	sc->sc_seq = (uint32_t *)sc->sc_mem;
	sc->sc_fd = (int *)(sc->sc_seq + n);
	sc->sc_ready = (bool *)(sc->sc_fd + n);
	sc->sc_told = sc->sc_ready + n;
	return 0;
}

/*
 * Tests the rings, outside ost_ep_lock (a test takes a record lock): the
 * watches' descriptors are copied first.  Registers the handles that
 * appeared since the last look.
 */
static int
ost_ep_scan(int epfd, ost_ep_scan_t *sc)
{
	ost_ep_set_t *es;

	(void)pthread_mutex_lock(&ost_ep_lock);
	es = ost_ep_find(epfd);
	if (ost_ep_scan_size(sc, es != NULL ? es->es_nslots : 0) != 0) {
		(void)pthread_mutex_unlock(&ost_ep_lock);
		return -1;
	}
	for (uint32_t i = 0; i < sc->sc_n; i++) {
		ost_ep_watch_t *w = &es->es_slot[i];

		sc->sc_fd[i] = -1;
		sc->sc_ready[i] = sc->sc_told[i] = false;
		if (w->ew_fd < 0 || w->ew_disarmed || !(w->ew_events & EPOLLIN))
			continue;
		ost_ep_add_handle(epfd, i, w->ew_fd, w);
		sc->sc_fd[i] = w->ew_fd;
	}
	(void)pthread_mutex_unlock(&ost_ep_lock);
	for (uint32_t i = 0; i < sc->sc_n; i++) {
		uost_t *up;

		if (sc->sc_fd[i] < 0 ||
		    (up = ost_find_sd(sc->sc_fd[i])) == NULL)
			continue;
		if (ost_rx_served(up))
			sc->sc_ready[i] = ost_rx_ready(up, true);
		sc->sc_seq[i] =
		    __atomic_load_n(&up->uost_empty_seq, __ATOMIC_RELAXED);
		ost_release(up);
	}
	return 0;
}

static void
ost_ep_scan_free(ost_ep_scan_t *sc)
{
	free(sc->sc_mem);
}

/* One-shot: the watch fired; both registrations wait for a MOD. */
static void
ost_ep_disarm(int epfd, uint32_t slot, ost_ep_watch_t *w)
{
	struct epoll_event ev;

	w->ew_disarmed = true;
	ev.events = EPOLLONESHOT;
	ev.data.u64 = OST_EP_TAG(slot, 0);
	(void)real_epoll_ctl(epfd, EPOLL_CTL_MOD, w->ew_fd, &ev);
}

/*
 * The kernel's events of n, translated in place, then the rings' news
 * that the kernel did not carry; the count for the application.
 */
static int
ost_ep_translate(int epfd, struct epoll_event *evs, int n, int max,
    ost_ep_scan_t *sc)
{
	ost_ep_set_t *es;
	int out = 0;

	(void)pthread_mutex_lock(&ost_ep_lock);
	es = ost_ep_find(epfd);
	/*
	 * Edge-triggered: the ring's datagrams are news once, until a frame
	 * arrives (the handle's edge) or a look finds the socket empty (a
	 * drained socket's next datagram is news, as the kernel's next
	 * arrival would be).
	 */
	for (int i = 0; i < n && es != NULL; i++) {
		uint64_t tag = evs[i].data.u64;
		uint32_t slot = (uint32_t)(tag & 0xffffffffU) >> 1;

		if (tag >> 32 == OST_EP_MAGIC && (tag & 1) &&
		    slot < es->es_nslots)
			es->es_slot[slot].ew_et_told = false;
	}
	for (uint32_t slot = 0; slot < sc->sc_n && es != NULL; slot++) {
		ost_ep_watch_t *w = &es->es_slot[slot];

		if (sc->sc_ready[slot] && (w->ew_events & EPOLLET) &&
		    w->ew_et_told && w->ew_seq == sc->sc_seq[slot])
			sc->sc_ready[slot] = false;
	}
	for (int i = 0; i < n; i++) {
		uint64_t tag = evs[i].data.u64;
		uint32_t slot = (uint32_t)(tag & 0xffffffffU) >> 1;
		uint32_t events = evs[i].events;
		ost_ep_watch_t *w;

		if (es == NULL || tag >> 32 != OST_EP_MAGIC ||
		    slot >= es->es_nslots || es->es_slot[slot].ew_fd < 0) {
			evs[out++] = evs[i];
			continue;
		}
		w = &es->es_slot[slot];
		if (tag & 1) /* the handle: its socket's ring, as scanned */
			events = slot < sc->sc_n && sc->sc_ready[slot] ?
			    (uint32_t)EPOLLIN :
			    0;
		else if (slot < sc->sc_n && sc->sc_ready[slot])
			events |= EPOLLIN;
		if (events == 0 || w->ew_disarmed ||
		    (slot < sc->sc_n && sc->sc_told[slot]))
			continue;
		if (slot < sc->sc_n)
			sc->sc_told[slot] = true;
		evs[out].events = events & (w->ew_events | EPOLLERR | EPOLLHUP);
		evs[out++].data = w->ew_data;
	}
	for (uint32_t slot = 0; slot < sc->sc_n && es != NULL; slot++) {
		ost_ep_watch_t *w = &es->es_slot[slot];

		if (!sc->sc_ready[slot] || w->ew_fd < 0 || w->ew_disarmed)
			continue;
		if (!sc->sc_told[slot] && out < max) {
			sc->sc_told[slot] = true;
			evs[out].events = EPOLLIN;
			evs[out++].data = w->ew_data;
		}
	}
	/* What was told: edge-triggered news is spent, one-shots disarm. */
	for (uint32_t slot = 0; slot < sc->sc_n && es != NULL; slot++) {
		ost_ep_watch_t *w = &es->es_slot[slot];

		if (!sc->sc_told[slot] || w->ew_fd < 0)
			continue;
		if (sc->sc_ready[slot]) {
			w->ew_et_told = true;
			w->ew_seq = sc->sc_seq[slot];
		}
		if (w->ew_events & EPOLLONESHOT)
			ost_ep_disarm(epfd, slot, w);
	}
	(void)pthread_mutex_unlock(&ost_ep_lock);
	return out;
}

bool
ost_epoll_watched(int epfd)
{
	bool found;

	if (__atomic_load_n(&ost_ep_count, __ATOMIC_RELAXED) == 0)
		return false;
	(void)pthread_mutex_lock(&ost_ep_lock);
	found = ost_ep_find(epfd) != NULL;
	(void)pthread_mutex_unlock(&ost_ep_lock);
	return found;
}

/*
 * The kernel's wait on the set.  One that may sleep runs with every signal
 * blocked but for the sleep itself, after a last look at the handler
 * counts, so that a handler that ran since the call began ends it at once
 * and one that runs from here on ends the sleep (epoll_pwait's promise).
 */
static int
ost_ep_kwait(int epfd, struct epoll_event *evs, int max, int ms,
    const ost_sigcount_t *sigs)
{
	sigset_t mask;
	int r;

	if (ms == 0)
		return real_epoll_pwait(epfd, evs, max, 0, NULL);
	if (!ost_sig_hold(sigs, &mask))
		return -1;
	r = real_epoll_pwait(epfd, evs, max, ms, &mask);
	ost_sig_unhold(&mask);
	return r;
}

/* The spin the policy gives a wait on epfd's set. */
static hrtime_t
ost_ep_budget(int epfd)
{
	hrtime_t ns = 0;
	ost_ep_set_t *es;

	(void)pthread_mutex_lock(&ost_ep_lock);
	if ((es = ost_ep_find(epfd)) != NULL)
		ns = ost_spin_budget(&es->es_spin_ns);
	(void)pthread_mutex_unlock(&ost_ep_lock);
	return ns;
}

static void
ost_ep_learn(int epfd, hrtime_t waited, bool got, const ost_spinner_t *sp)
{
	ost_ep_set_t *es;

	if (spin_policy != OST_SPIN_ADAPTIVE)
		return;
	(void)pthread_mutex_lock(&ost_ep_lock);
	if ((es = ost_ep_find(epfd)) != NULL)
		ost_spin_learn(&es->es_spin_ns, waited, got, sp);
	(void)pthread_mutex_unlock(&ost_ep_lock);
}

/*
 * epoll_wait, epoll_pwait and epoll_pwait2 on a set that watches bypass
 * sockets: timeout in nanoseconds, -1 for none; mask null for none.  The
 * call's mask is the thread's for the call; a busy phase of epoll_usec, or
 * when that is 0 of what the wait policy gives the set, spins in user
 * space, and a handler that runs meanwhile ends the call with EINTR, as it
 * would the kernel's wait.
 */
int
ost_epoll_wait(int epfd, struct epoll_event *evs, int max, hrtime_t timeout,
    const sigset_t *mask)
{
	hrtime_t start = gethrtime();
	hrtime_t deadline = timeout < 0 ? INT64_MAX : start + timeout;
	bool firm = epoll_usec != 0;
	hrtime_t spin_ns = firm ? (hrtime_t)epoll_usec * 1000 : 0;
	bool spin;
	ost_spinner_t sp;
	ost_sigcount_t sigs;
	sigset_t caller;
	int ret;

	if (max <= 0 || evs == NULL)
		return real_epoll_pwait(epfd, evs, max, 0, mask);
	if (!firm && timeout != 0)
		spin_ns = ost_ep_budget(epfd);
	spin = spin_ns > 0 && timeout != 0;
	ost_spin_start(&sp, spin ? spin_ns : 0, firm);
	sigs = ost_sig_snap();
	if (mask != NULL)
		(void)pthread_sigmask(SIG_SETMASK, mask, &caller);
	for (hrtime_t kernel_due = 0;;) {
		ost_ep_scan_t sc;
		bool any = false;
		int ms = 0;

		if (ost_ep_scan(epfd, &sc) != 0) {
			ret = -1;
			errno = ENOMEM;
			break;
		}
		for (uint32_t i = 0; i < sc.sc_n; i++)
			any = any || sc.sc_ready[i];
		if (!any && !spin) {
			hrtime_t left = deadline - gethrtime();

			ms = deadline == INT64_MAX ? -1 :
			    left <= 0              ? 0 :
					(int)((left + 999999) / 1000000);
		}
		/* Spinning, the kernel is asked only every OST_KERNEL_CHECK_NS
		 * (each asking is a system call); what it holds meanwhile
		 * waits for the next asking, as a level or an edge. */
		if (spin && gethrtime() < kernel_due) {
			ret =
			    any ? ost_ep_translate(epfd, evs, 0, max, &sc) : 0;
			ost_ep_scan_free(&sc);
			if (ret != 0)
				break;
			if (ost_sig_ran(&sigs)) {
				ret = -1;
				errno = EINTR;
				break;
			}
			spin = ost_spin_pause(&sp);
			continue;
		}
		kernel_due = gethrtime() + OST_KERNEL_CHECK_NS;
		ret = ost_ep_kwait(epfd, evs, max, ms, &sigs);
		if (ret >= 0)
			ret = ost_ep_translate(epfd, evs, ret, max, &sc);
		ost_ep_scan_free(&sc);
		/* A wake-up for a frame another thread took: wait on. */
		if (ret != 0 || gethrtime() >= deadline)
			break;
		if (ost_sig_ran(&sigs)) {
			ret = -1;
			errno = EINTR;
			break;
		}
		if (spin)
			spin = ost_spin_pause(&sp);
	}
	if (ret >= 0 && timeout != 0)
		ost_ep_learn(epfd, gethrtime() - start, ret > 0, &sp);
	if (mask != NULL) {
		int err = errno;

		(void)pthread_sigmask(SIG_SETMASK, &caller, NULL);
		errno = err;
	}
	return ret;
}
