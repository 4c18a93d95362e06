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

#include "ost_impl.h"
#include "platform/frio_loader.h"

static fd_tbl_t *
ost_bucket(int sd)
{
	return &fd_tbl_array[(unsigned)sd % OST_NBUCKETS];
}

/* The frame template's constant fields; addresses and ports come later. */
static void
ost_template_init(uost_t *up, int family)
{
	uint8_t *eth = up->uost_hdr + OST_ETH_OFFSET;
	uint8_t *ip = eth + sizeof (struct ether_header);

	up->uost_eth = (struct ether_header *)eth;
	if (family == AF_INET6) {
		struct ip6_hdr *ip6 = (struct ip6_hdr *)ip;

		up->uost_eth->ether_type = htons(ETHERTYPE_IPV6);
		up->uost_ip6h = ip6;
		up->uost_iph = NULL;
		ip6->ip6_flow = htonl(6U << 28);
		ip6->ip6_nxt = IPPROTO_UDP;
		ip6->ip6_hlim = 64;
		up->uost_udph = (struct udphdr *)(ip + sizeof (struct ip6_hdr));
		up->uost_hdr_len = 62;
		up->uost_ip_hdr_len = 48;
		up->uost_is_v6 = B_TRUE;
	} else {
		struct ip *ip4 = (struct ip *)ip;

		up->uost_eth->ether_type = htons(ETHERTYPE_IP);
		up->uost_iph = ip4;
		up->uost_ip6h = NULL;
		ip4->ip_v = 4;
		ip4->ip_hl = 5;
		ip4->ip_tos = 0;
		ip4->ip_id = 0;
		ip4->ip_off = htons(IP_DF);
		ip4->ip_ttl = 64;
		ip4->ip_p = IPPROTO_UDP;
		ip4->ip_sum = 0;
		up->uost_udph = (struct udphdr *)(ip + sizeof (struct ip));
		up->uost_hdr_len = 42;
		up->uost_ip_hdr_len = 28;
		up->uost_is_v6 = B_FALSE;
	}
}

static boolean_t
ost_add_fail(void)
{
	ost_err_exit(ost_gettext("cannot allocate bypass structure"));
	return B_FALSE;
}

boolean_t
ost_add(int sd, int family)
{
	uost_t *up;
	fd_tbl_t *ft;

	up = (uost_t *)calloc(1, sizeof (*up));
	if (up == NULL) {
		ost_debug("%s: cannot allocate ost entry: %d\n", "ost_add", sd);
		return ost_add_fail();
	}
	up->uost_recv_buf = (char *)malloc(OST_RECV_BUF_SIZE);
	if (up->uost_recv_buf == NULL) {
		ost_debug("%s: cannot allocate ost recv buf: %d\n", "ost_add",
		    sd);
		free(up);
		return ost_add_fail();
	}
	up->uost_sd = sd;
	ost_template_init(up, family);

	const char *fail = NULL;
	if (pthread_mutex_init(&up->uost_lock, NULL) != 0) {
		fail = "%s: cannot init uost_lock %d\n";
	} else if (pthread_cond_init(&up->uost_cv, NULL) != 0) {
		(void) pthread_mutex_destroy(&up->uost_lock);
		fail = "%s: cannot init uost_cv %d\n";
	} else if (pthread_cond_init(&up->uost_recv_cv, NULL) != 0) {
		(void) pthread_cond_destroy(&up->uost_cv);
		(void) pthread_mutex_destroy(&up->uost_lock);
		fail = "%s: cannot init uost_recv_cv %d\n";
	}
	if (fail != NULL) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
		ost_debug(fail, "ost_add", sd);
#pragma GCC diagnostic pop
		free(up->uost_recv_buf);
		free(up);
		return ost_add_fail();
	}
	up->uost_refcnt = 1;

	ft = ost_bucket(sd);
	up->uost_list_head = &ft->ft_head;
	up->uost_list_head_lock = &ft->ft_lock;
	(void) pthread_mutex_lock(&ft->ft_lock);
	list_insert_head(&ft->ft_head, up);
	(void) pthread_mutex_unlock(&ft->ft_lock);
	return B_TRUE;
}

uost_t *
ost_find_sd(int sd)
{
	fd_tbl_t *ft = ost_bucket(sd);
	uost_t *up;

	(void) pthread_mutex_lock(&ft->ft_lock);
	/* Newest first: a reused descriptor finds its newest record. */
	for (up = (uost_t *)list_head(&ft->ft_head); up != NULL;
	    up = (uost_t *)list_next(&ft->ft_head, up)) {
		if (up->uost_sd == sd)
			break;
	}
	if (up != NULL) {
		(void) pthread_mutex_lock(&up->uost_lock);
		OST_VERIFY((up)->uost_refcnt != 0);
		up->uost_refcnt++;
		OST_VERIFY((up)->uost_refcnt > 1);
		(void) pthread_mutex_unlock(&up->uost_lock);
	}
	(void) pthread_mutex_unlock(&ft->ft_lock);
	return up;
}

/* For callers that hold uost_lock already; the lock stays held. */
void
ost_release_locked(uost_t *up)
{
	OST_VERIFY((up)->uost_refcnt > 1);
	if (--up->uost_refcnt == 2)
		(void) pthread_cond_signal(&up->uost_cv);
}

void
ost_release(uost_t *up)
{
	(void) pthread_mutex_lock(&up->uost_lock);
	ost_release_locked(up);
	(void) pthread_mutex_unlock(&up->uost_lock);
}

/*
 * Frees a record that is off its list and whose only references are the
 * registry's and the caller's.  Called with uost_lock held; it is destroyed.
 */
void
ost_destroy_locked(uost_t *up)
{
	(void) pthread_mutex_unlock(&up->uost_lock);
	(void) pthread_mutex_destroy(&up->uost_lock);
	(void) pthread_cond_destroy(&up->uost_cv);
	(void) pthread_cond_destroy(&up->uost_recv_cv);
	if (up->uost_frio_set)
		ost_frio->close(up->uost_frio_hdl);
	free(up->uost_recv_buf);
	/* Poison before freeing, so that a use after free is loud. */
	memset(up, 0xa5, sizeof (*up));
	free(up);
}

/* Sets uost_closing and waits until only the registry and we hold it. */
void
ost_drain_locked(uost_t *up)
{
	OST_VERIFY(up->uost_refcnt >= 2);
	up->uost_closing = B_TRUE;
	/* Wake a receiver that waits for the receive slot: it must leave. */
	(void) pthread_cond_broadcast(&up->uost_recv_cv);
	while (up->uost_refcnt > 2)
		(void) pthread_cond_wait(&up->uost_cv, &up->uost_lock);
}

/* Takes the kernel's bypass option off the record's socket; 0 or -1. */
int
ost_unset_kernel_locked(uost_t *up)
{
	static const so_ost_opt_t off = { B_FALSE, 0, 0 };

	up->uost_kernel_set = B_FALSE;
	return ost_kernel_bypass_set(up->uost_sd, &off);
}

void
ost_del(uost_t *up, boolean_t unset_kernel)
{
	boolean_t mine;

	(void) pthread_mutex_lock(up->uost_list_head_lock);
	mine = list_link_active(&up->uost_list) ? B_TRUE : B_FALSE;
	if (mine)
		list_remove(up->uost_list_head, up);
	(void) pthread_mutex_unlock(up->uost_list_head_lock);

	(void) pthread_mutex_lock(&up->uost_lock);
	if (!mine) {
		/*
		 * Another teardown unlinked it first and waits for our
		 * reference.  If the kernel socket is gone (we are close()),
		 * say so, lest it take the option off a reused descriptor.
		 */
		if (!unset_kernel)
			up->uost_sd_closed = B_TRUE;
		ost_release_locked(up);
		(void) pthread_mutex_unlock(&up->uost_lock);
		return;
	}
	ost_drain_locked(up);
	if (unset_kernel && !up->uost_sd_closed) {
		if (ost_unset_kernel_locked(up) != 0)
			ost_debug("%s: cannot unset SO_OSTREL (%d): %d\n",
			    "ost_del", up->uost_sd, errno);
	} else
		ost_kernel_bypass_forget(up->uost_sd);
	ost_destroy_locked(up);
}
