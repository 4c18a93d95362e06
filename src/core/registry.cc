/*
 * The registry of bypass sockets: records hashed by descriptor into a
 * fixed table of buckets, and the reference protocol that lets any number
 * of threads use a record while one thread tears it down.
 *
 * A record's count is 1 for the registry plus one per thread that found it.
 * A teardown first unlinks the record, so nobody new can find it, then
 * waits until the count is 2 (the registry's and its own) before it frees.
 * The unlinking is also the ticket to tear down: of two threads that try at
 * once, only the one that unlinks the record goes on; the other gives its
 * reference back and leaves (docs/threads.md).
 */
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "core/ost.h"

fd_tbl_t fd_tbl_array[OST_NBUCKETS]; /* see fd_tbl_t */

/*
 * How many records each descriptor number below OST_FD_MARKS has, changed
 * under its bucket lock and read without it: a call on a descriptor that
 * is no bypass socket (a file, a pipe, a TCP socket), the common case,
 * takes no lock at all.  A record is counted before any thread can learn
 * its descriptor from socket() and uncounted only once it is unlinked.
 */
#define OST_FD_MARKS 65536
static uint16_t ost_fd_marks[OST_FD_MARKS];

static void
ost_fd_mark(int sd, int delta)
{
	if ((unsigned)sd < OST_FD_MARKS)
		(void)__atomic_add_fetch(&ost_fd_marks[sd], delta,
		    __ATOMIC_RELAXED);
}

static void ost_fork_prepare(void);
static void ost_fork_parent(void);
static void ost_fork_child(void);

void
ost_registry_init(void)
{
	for (int i = 0; i < OST_NBUCKETS; i++) {
		fd_tbl_t *ft = &fd_tbl_array[i];

		list_create(&ft->ft_head, sizeof(uost_t),
		    offsetof(uost_t, uost_list));
		if (pthread_mutex_init(&ft->ft_lock, NULL) != 0) {
			ost_debug("cannot init mutex\n");
			exit(1);
		}
	}
	if (pthread_atfork(ost_fork_prepare, ost_fork_parent, ost_fork_child) !=
	    0)
		ost_debug("cannot register the fork handlers\n");
}

/*
 * fork() in a threaded program: the child has only the forking thread, so
 * a lock that another thread held at the fork stays held for ever.  The
 * fork wrapper has torn every record down, but other threads may have made
 * new ones since and may hold their locks, so the child forgets whatever
 * the registry holds at the fork.  The bucket locks are taken around the
 * fork so that the lists are whole, and no finder waits under one, so this
 * never waits long.
 */
__thread bool ost_fork_in_handler;

/*
 * A fork from a signal handler that interrupted one of our calls on this
 * thread must not wait for a lock that call may hold: then nothing is
 * taken, and the child makes its locks afresh.
 */
static bool ost_fork_unlocked;

static void
ost_fork_prepare(void)
{
	ost_fork_unlocked = ost_fork_in_handler;
	if (ost_fork_unlocked)
		return;
	ost_epoll_fork_lock(true); /* epoll's lock comes before ours */
	for (int i = 0; i < OST_NBUCKETS; i++)
		(void)pthread_mutex_lock(&fd_tbl_array[i].ft_lock);
}

static void
ost_fork_parent(void)
{
	if (ost_fork_unlocked)
		return;
	for (int i = OST_NBUCKETS - 1; i >= 0; i--)
		(void)pthread_mutex_unlock(&fd_tbl_array[i].ft_lock);
	ost_epoll_fork_lock(false);
}

/*
 * The records are left as they are, not freed: their locks may be held by
 * threads that are not here, and their frame-access handles belong to the
 * parent.  The kernel sockets, shared with the parent, stay as they are.
 */
static void
ost_fork_child(void)
{
	for (int i = OST_NBUCKETS - 1; i >= 0; i--) {
		fd_tbl_t *ft = &fd_tbl_array[i];
		uost_t *up;

		while ((up = (uost_t *)list_remove_head(&ft->ft_head)) != NULL)
			ost_fd_mark(up->uost_sd, -1);
		if (ost_fork_unlocked)
			(void)pthread_mutex_init(&ft->ft_lock, NULL);
		else
			(void)pthread_mutex_unlock(&ft->ft_lock);
	}
	if (ost_fork_unlocked)
		ost_epoll_fork_reset();
	else
		ost_epoll_fork_lock(false);
}

static fd_tbl_t *
ost_bucket(int sd)
{
	return &fd_tbl_array[(unsigned)sd % OST_NBUCKETS];
}

static bool
ost_add_fail(void)
{
	ost_err_exit("cannot allocate bypass structure");
	return false;
}

bool
ost_add(int sd, int family)
{
	uost_t *up;
	fd_tbl_t *ft;

	up = (uost_t *)calloc(1, sizeof(*up));
	if (up == NULL) {
		ost_debug("cannot allocate ost entry: %d\n", sd);
		return ost_add_fail();
	}
	up->uost_recv_buf = (char *)malloc(OST_RECV_BUF_SIZE);
	if (up->uost_recv_buf == NULL) {
		ost_debug("cannot allocate ost recv buf: %d\n", sd);
		free(up);
		return ost_add_fail();
	}
	up->uost_sd = sd;
	ost_tpl_init(up, family);

	const char *fail = NULL;
	if (pthread_mutex_init(&up->uost_lock, NULL) != 0) {
		fail = "uost_lock";
	} else if (pthread_cond_init(&up->uost_cv, NULL) != 0) {
		(void)pthread_mutex_destroy(&up->uost_lock);
		fail = "uost_cv";
	} else if (pthread_cond_init(&up->uost_recv_cv, NULL) != 0) {
		(void)pthread_cond_destroy(&up->uost_cv);
		(void)pthread_mutex_destroy(&up->uost_lock);
		fail = "uost_recv_cv";
	}
	if (fail != NULL) {
		ost_debug("cannot init %s: %d\n", fail, sd);
		free(up->uost_recv_buf);
		free(up);
		return ost_add_fail();
	}
	up->uost_refcnt = 1; /* not yet shared */

	ft = ost_bucket(sd);
	up->uost_bucket = ft;
	(void)pthread_mutex_lock(&ft->ft_lock);
	list_insert_head(&ft->ft_head, up);
	ost_fd_mark(sd, 1);
	(void)pthread_mutex_unlock(&ft->ft_lock);
	return true;
}

uost_t *
ost_find_sd(int sd)
{
	fd_tbl_t *ft = ost_bucket(sd);
	uost_t *up;

	if ((unsigned)sd < OST_FD_MARKS &&
	    __atomic_load_n(&ost_fd_marks[sd], __ATOMIC_RELAXED) == 0)
		return NULL;
	(void)pthread_mutex_lock(&ft->ft_lock);
	/* Newest first: a reused descriptor finds its newest record. */
	for (up = (uost_t *)list_head(&ft->ft_head); up != NULL;
	     up = (uost_t *)list_next(&ft->ft_head, up)) {
		if (up->uost_sd == sd)
			break;
	}
	/*
	 * The registry's reference keeps a linked record alive, and a
	 * teardown unlinks under this lock before it reads the count, so a
	 * relaxed increment is seen; no record lock is waited for here.
	 */
	if (up != NULL)
		(void)__atomic_add_fetch(&up->uost_refcnt, 1, __ATOMIC_RELAXED);
	(void)pthread_mutex_unlock(&ft->ft_lock);
	return up;
}

void
ost_stats_read(const uost_t *up, so_ost_stats_t *out)
{
	const so_ost_stats_t *st = &up->uost_stats;

	memset(out, 0, sizeof(*out));
	out->osts_ipkts = __atomic_load_n(&st->osts_ipkts, __ATOMIC_RELAXED);
	out->osts_ipkts_spin =
	    __atomic_load_n(&st->osts_ipkts_spin, __ATOMIC_RELAXED);
	out->osts_opkts = __atomic_load_n(&st->osts_opkts, __ATOMIC_RELAXED);
	out->osts_opkts_spin =
	    __atomic_load_n(&st->osts_opkts_spin, __ATOMIC_RELAXED);
	out->osts_send_spin_max =
	    __atomic_load_n(&st->osts_send_spin_max, __ATOMIC_RELAXED);
	out->osts_kernel_ipkts =
	    __atomic_load_n(&st->osts_kernel_ipkts, __ATOMIC_RELAXED);
	out->osts_idrops = __atomic_load_n(&st->osts_idrops, __ATOMIC_RELAXED);
}

/* Another reference for a holder of one. */
void
ost_hold(uost_t *up)
{
	uint32_t old =
	    __atomic_fetch_add(&up->uost_refcnt, 1, __ATOMIC_RELAXED);

	OST_VERIFY((old & ~OST_REF_DRAIN) != 0);
}

/* For callers that hold uost_lock already; the lock stays held. */
void
ost_release_locked(uost_t *up)
{
	uint32_t n = __atomic_sub_fetch(&up->uost_refcnt, 1, __ATOMIC_RELEASE);

	OST_VERIFY((n & ~OST_REF_DRAIN) != 0);
	if (n == (OST_REF_DRAIN | 2))
		(void)pthread_cond_signal(&up->uost_cv);
}

/*
 * Without the lock, unless ours is the last reference a teardown waits for:
 * a poll pass that found the lock busy must not wait for it to let go.
 * The teardown raises OST_REF_DRAIN under the lock before it waits, so the
 * step down to its 2 is always made under the lock (no lost wake-up), and
 * a releaser that did not see the flag is counted by the teardown's check.
 * Nothing touches the record after a lock-free step: the teardown may free
 * it at once.
 */
void
ost_release(uost_t *up)
{
	uint32_t c = __atomic_load_n(&up->uost_refcnt, __ATOMIC_RELAXED);

	do {
		OST_VERIFY((c & ~OST_REF_DRAIN) > 1);
		if (c == (OST_REF_DRAIN | 3)) {
			(void)pthread_mutex_lock(&up->uost_lock);
			ost_release_locked(up);
			(void)pthread_mutex_unlock(&up->uost_lock);
			return;
		}
	} while (!__atomic_compare_exchange_n(&up->uost_refcnt, &c, c - 1, true,
	    __ATOMIC_RELEASE, __ATOMIC_RELAXED));
}

/*
 * Frees a record that is off its list and whose only references are the
 * registry's and the caller's: nobody else can reach it.
 */
static void
ost_destroy(uost_t *up)
{
	(void)pthread_mutex_destroy(&up->uost_lock);
	(void)pthread_cond_destroy(&up->uost_cv);
	(void)pthread_cond_destroy(&up->uost_recv_cv);
	free(up->uost_recv_buf);
	/* Poison before freeing, so that a use after free is loud. */
	memset(up, 0xa5, sizeof(*up));
	free(up);
}

/* Sets uost_closing and waits until only the registry and we hold it. */
static void
ost_drain_locked(uost_t *up)
{
	uint32_t c;

	__atomic_store_n(&up->uost_closing, true, __ATOMIC_RELEASE);
	/* Wake a receiver that waits for the receive slot: it must leave. */
	(void)pthread_cond_broadcast(&up->uost_recv_cv);
	c = __atomic_or_fetch(&up->uost_refcnt, OST_REF_DRAIN,
	    __ATOMIC_ACQUIRE);
	OST_VERIFY(c >= (OST_REF_DRAIN | 2));
	while (c > (OST_REF_DRAIN | 2)) {
		(void)pthread_cond_wait(&up->uost_cv, &up->uost_lock);
		c = __atomic_load_n(&up->uost_refcnt, __ATOMIC_ACQUIRE);
	}
}

/*
 * The one teardown: of an unlinked record, by the thread that unlinked it
 * and holds a reference.  Waits for every other user, takes the socket off
 * the bypass and frees the record.
 */
static void
ost_teardown(uost_t *up, bool sd_open)
{
	(void)pthread_mutex_lock(&up->uost_lock);
	/* Before the drain: a waiting receive ends only for close(). */
	if (!sd_open)
		up->uost_sd_closed = true;
	ost_drain_locked(up);
	ost_detach_locked(up, !up->uost_sd_closed);
	(void)pthread_mutex_unlock(&up->uost_lock);
	ost_destroy(up);
}

void
ost_del(uost_t *up, bool sd_open)
{
	fd_tbl_t *ft = up->uost_bucket;
	bool mine;

	(void)pthread_mutex_lock(&ft->ft_lock);
	mine = list_link_active(&up->uost_list);
	if (mine) {
		list_remove(&ft->ft_head, up);
		ost_fd_mark(up->uost_sd, -1);
	}
	(void)pthread_mutex_unlock(&ft->ft_lock);

	if (mine) {
		ost_teardown(up, sd_open);
		return;
	}
	/*
	 * Another teardown unlinked it first and waits for our reference.
	 * If the kernel socket is gone (we are close()), say so, lest it take
	 * the socket off the bypass on a reused descriptor.
	 */
	(void)pthread_mutex_lock(&up->uost_lock);
	if (!sd_open)
		up->uost_sd_closed = true;
	ost_release_locked(up);
	(void)pthread_mutex_unlock(&up->uost_lock);
}

void
ost_del_all(void)
{
	for (int i = 0; i < OST_NBUCKETS; i++) {
		fd_tbl_t *ft = &fd_tbl_array[i];
		uost_t *up;

		(void)pthread_mutex_lock(&ft->ft_lock);
		while (
		    (up = (uost_t *)list_remove_head(&ft->ft_head)) != NULL) {
			ost_fd_mark(up->uost_sd, -1);
			ost_hold(up); /* the teardown's own */
			(void)pthread_mutex_unlock(&ft->ft_lock);
			ost_teardown(up, true);
			(void)pthread_mutex_lock(&ft->ft_lock);
		}
		(void)pthread_mutex_unlock(&ft->ft_lock);
	}
}
