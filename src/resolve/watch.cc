/*
 * The watch over the kernel's tables: one routing socket per process,
 * subscribed to link, address, route and neighbour changes, read without
 * waiting by whichever sender finds it due (at most every
 * OST_WATCH_POLL_NS), never by a thread of its own.  Each change that can
 * alter a destination's route, next hop, link-layer or source address or
 * MTU bumps one generation counter; a socket compares the generation its
 * destination was resolved at with the current one per datagram, a plain
 * memory compare, and resolves again when they differ.
 *
 * Neighbour messages are the noisy ones: every entry the kernel keeps
 * walks REACHABLE, STALE, DELAY and PROBE with the same address.  A small
 * table of the link-layer addresses seen (and of the next hops the
 * sockets resolved) lets those through without a bump; only a new
 * address, a changed one, or an entry that lost its address bumps.
 *
 * The socket is a descriptor the application can see and close.  Before
 * each read its identity is checked against what it was when opened, so
 * a number reused by the application is never read from; it is reopened
 * instead.  It is close-on-exec, and a fork's child closes its copy: two
 * processes must not share one stream of events.
 */
#include <errno.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <pthread.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include "os/libc.h"
#include "os/log.h"
#include "resolve/netlink.h"
#include "resolve/resolve.h"

#define OST_WATCH_NEIGHS 128
/* How long to wait before trying again to open a socket that failed. */
#define OST_WATCH_REOPEN_NS (1000 * 1000 * 1000)

/* States in which an entry holds a usable link-layer address. */
#define WATCH_COMPLETE_STATES                                                \
	(NUD_REACHABLE | NUD_STALE | NUD_DELAY | NUD_PROBE | NUD_PERMANENT | \
	    NUD_NOARP)

typedef struct watch_neigh {
	uint8_t wn_family; /* 0: a free slot */
	uint8_t wn_addr[16];
	uint32_t wn_ifindex;
	uint8_t wn_lladdr[ETHER_ADDR_LEN];
} watch_neigh_t;

/* Read and written through atomics: the senders' per-datagram look. */
static uint32_t watch_gen = 1;
static hrtime_t watch_due;

/* Everything below: watch_lock, a leaf lock (trylock on the poll path). */
static pthread_mutex_t watch_lock = PTHREAD_MUTEX_INITIALIZER;
static int watch_fd = -1;
static dev_t watch_dev;
static ino_t watch_ino;
static hrtime_t watch_reopen; /* no open attempt before this */
static watch_neigh_t watch_neighs[OST_WATCH_NEIGHS];
static uint32_t watch_neigh_next; /* the slot to reuse when all are taken */
static pthread_once_t watch_once = PTHREAD_ONCE_INIT;
static bool watch_frozen; /* tests: only ost_watch_feed moves it */

static void
watch_bump(void)
{
	(void)__atomic_add_fetch(&watch_gen, 1, __ATOMIC_RELEASE);
}

/* The child holds a copy of the parent's socket: not its own to read. */
static void
watch_atfork_child(void)
{
	(void)pthread_mutex_init(&watch_lock, NULL);
	if (watch_fd >= 0)
		(void)real_close(watch_fd);
	watch_fd = -1;
	watch_reopen = 0;
	__atomic_store_n(&watch_due, 0, __ATOMIC_RELAXED);
	watch_bump();
}

static void
watch_register_fork(void)
{
	(void)pthread_atfork(NULL, NULL, watch_atfork_child);
}

static bool
watch_open(void)
{
	struct sockaddr_nl sa;
	struct stat st;
	int fd, rcvbuf = 1 << 20;

	(void)pthread_once(&watch_once, watch_register_fork);
	fd = real_socket(AF_NETLINK, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC,
	    NETLINK_ROUTE);
	if (fd < 0)
		return false;
	/* Bursts (an interface going down flushes its routes and
	 * neighbours at once); an overflow is still handled, by a bump. */
	(void)real_setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &rcvbuf,
	    sizeof(rcvbuf));
	memset(&sa, 0, sizeof(sa));
	sa.nl_family = AF_NETLINK;
	sa.nl_groups = RTMGRP_LINK | RTMGRP_NEIGH | RTMGRP_IPV4_IFADDR |
	    RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_IFADDR | RTMGRP_IPV6_ROUTE;
	if (real_bind(fd, (struct sockaddr *)&sa, sizeof(sa)) != 0 ||
	    fstat(fd, &st) != 0) {
		ost_debug("watch: cannot subscribe: %d\n", errno);
		(void)real_close(fd);
		return false;
	}
	watch_fd = fd;
	watch_dev = st.st_dev;
	watch_ino = st.st_ino;
	return true;
}

/* Whether watch_fd still is the socket we opened. */
static bool
watch_still_ours(void)
{
	struct stat st;

	return fstat(watch_fd, &st) == 0 && st.st_dev == watch_dev &&
	    st.st_ino == watch_ino;
}

static watch_neigh_t *
watch_neigh_find(uint8_t family, uint32_t ifindex, const uint8_t *addr)
{
	size_t alen = family == AF_INET ? 4 : 16;

	for (watch_neigh_t &n : watch_neighs) {
		if (n.wn_family == family && n.wn_ifindex == ifindex &&
		    memcmp(n.wn_addr, addr, alen) == 0)
			return &n;
	}
	return NULL;
}

/*
 * Records addr's link-layer address; true when it is news (the entry was
 * unknown or held another address).  watch_lock held.
 */
static bool
watch_neigh_learn(uint8_t family, uint32_t ifindex, const uint8_t *addr,
    const uint8_t *lladdr)
{
	watch_neigh_t *n = watch_neigh_find(family, ifindex, addr);

	if (n != NULL) {
		if (memcmp(n->wn_lladdr, lladdr, ETHER_ADDR_LEN) == 0)
			return false;
	} else {
		n = NULL;
		for (watch_neigh_t &f : watch_neighs) {
			if (f.wn_family == 0) {
				n = &f;
				break;
			}
		}
		if (n == NULL) {
			n = &watch_neighs[watch_neigh_next];
			watch_neigh_next =
			    (watch_neigh_next + 1) % OST_WATCH_NEIGHS;
		}
		memset(n, 0, sizeof(*n));
		n->wn_family = family;
		n->wn_ifindex = ifindex;
		memcpy(n->wn_addr, addr, family == AF_INET ? 4 : 16);
	}
	memcpy(n->wn_lladdr, lladdr, ETHER_ADDR_LEN);
	return true;
}

/* One neighbour message: whether a destination may have changed. */
static bool
watch_neigh_msg(uint16_t type, const uint8_t *data, size_t dlen)
{
	struct ndmsg ndm;
	const uint8_t *dst = NULL, *ll = NULL;
	size_t alen, off = NLMSG_ALIGN(sizeof(ndm));
	watch_neigh_t *known;

	if (dlen < sizeof(ndm))
		return false;
	memcpy(&ndm, data, sizeof(ndm));
	if (ndm.ndm_family != AF_INET && ndm.ndm_family != AF_INET6)
		return false;
	if ((ndm.ndm_flags & NTF_PROXY) || ndm.ndm_ifindex <= 0)
		return false;
	alen = ndm.ndm_family == AF_INET ? 4 : 16;
	while (off + sizeof(struct rtattr) <= dlen) {
		struct rtattr a;
		size_t len;

		memcpy(&a, data + off, sizeof(a));
		if (a.rta_len < RTA_LENGTH(0) || a.rta_len > dlen - off)
			break;
		len = a.rta_len - RTA_LENGTH(0);
		if (a.rta_type == NDA_DST && len == alen)
			dst = data + off + RTA_LENGTH(0);
		else if (a.rta_type == NDA_LLADDR && len == ETHER_ADDR_LEN)
			ll = data + off + RTA_LENGTH(0);
		off += RTA_ALIGN(a.rta_len);
	}
	if (dst == NULL)
		return false;
	known =
	    watch_neigh_find(ndm.ndm_family, (uint32_t)ndm.ndm_ifindex, dst);
	if (type == RTM_NEWNEIGH && ll != NULL &&
	    (ndm.ndm_state & WATCH_COMPLETE_STATES))
		return watch_neigh_learn(ndm.ndm_family,
		    (uint32_t)ndm.ndm_ifindex, dst, ll);
	/*
	 * Gone, failed, or being resolved again.  An entry nobody resolved
	 * through changes nothing; one being resolved for the first time
	 * will bump when its address comes.
	 */
	if (known == NULL)
		return false;
	known->wn_family = 0;
	return true;
}

/* One buffer from the socket: whether any message in it matters. */
static bool
watch_parse(const void *buf, size_t len)
{
	const uint8_t *p = (const uint8_t *)buf;
	bool changed = false;

	while (len >= sizeof(struct nlmsghdr)) {
		struct nlmsghdr h;
		size_t step;

		memcpy(&h, p, sizeof(h));
		if (h.nlmsg_len < NLMSG_HDRLEN || h.nlmsg_len > len)
			break;
		switch (h.nlmsg_type) {
		case RTM_NEWLINK:
		case RTM_DELLINK:
		case RTM_NEWADDR:
		case RTM_DELADDR:
		case RTM_NEWROUTE:
		case RTM_DELROUTE:
			changed = true;
			break;
		case RTM_NEWNEIGH:
		case RTM_DELNEIGH:
			if (watch_neigh_msg(h.nlmsg_type, p + NLMSG_HDRLEN,
				h.nlmsg_len - NLMSG_HDRLEN))
				changed = true;
			break;
		default:
			break;
		}
		step = NLMSG_ALIGN(h.nlmsg_len);
		if (step >= len)
			break;
		p += step;
		len -= step;
	}
	return changed;
}

/* Reads what the socket holds; watch_lock held. */
static void
watch_drain(void)
{
	alignas(struct nlmsghdr) uint8_t buf[OST_NL_BUF_SIZE];
	bool changed = false;

	for (;;) {
		struct sockaddr_nl from;
		struct iovec iov = { buf, sizeof(buf) };
		struct msghdr msg;
		ssize_t n;

		memset(&msg, 0, sizeof(msg));
		msg.msg_name = &from;
		msg.msg_namelen = sizeof(from);
		msg.msg_iov = &iov;
		msg.msg_iovlen = 1;
		n = real_recvmsg(watch_fd, &msg, MSG_DONTWAIT);
		if (n < 0 && errno == EINTR)
			continue;
		if (n < 0 && errno == EAGAIN)
			break;
		if (n < 0 && errno == ENOBUFS) {
			/* Events were lost: anything may have changed. */
			changed = true;
			continue;
		}
		if (n < 0) {
			ost_debug("watch: recvmsg: %d\n", errno);
			(void)real_close(watch_fd);
			watch_fd = -1;
			changed = true;
			break;
		}
		if ((msg.msg_flags & MSG_TRUNC) ||
		    msg.msg_namelen < sizeof(from) || from.nl_pid != 0) {
			changed = changed || (msg.msg_flags & MSG_TRUNC);
			continue;
		}
		if (watch_parse(buf, (size_t)n))
			changed = true;
	}
	if (changed)
		watch_bump();
}

static void
watch_poll(hrtime_t now)
{
	ost_errno_keep keep;

	/* Someone else is reading: the news will be there for the next. */
	if (pthread_mutex_trylock(&watch_lock) != 0)
		return;
	__atomic_store_n(&watch_due, now + OST_WATCH_POLL_NS, __ATOMIC_RELAXED);
	if (watch_fd >= 0 && !watch_still_ours()) {
		/* The application closed or replaced it: not ours to close. */
		ost_debug("watch: descriptor %d taken over\n", watch_fd);
		watch_fd = -1;
		watch_bump();
	}
	if (watch_fd < 0) {
		if (now >= watch_reopen) {
			/* What happened while nobody listened is unknown;
			 * without a socket, destinations age out each
			 * time an open is tried. */
			if (!watch_open())
				watch_reopen = now + OST_WATCH_REOPEN_NS;
			watch_bump();
		}
	} else {
		watch_drain();
	}
	(void)pthread_mutex_unlock(&watch_lock);
}

uint32_t
ost_watch_gen(void)
{
	return ost_watch_gen_at(gethrtime());
}

uint32_t
ost_watch_gen_at(hrtime_t now)
{
	if (now >= __atomic_load_n(&watch_due, __ATOMIC_RELAXED) &&
	    !__atomic_load_n(&watch_frozen, __ATOMIC_RELAXED))
		watch_poll(now);
	return __atomic_load_n(&watch_gen, __ATOMIC_ACQUIRE);
}

void
ost_watch_note_neigh(int family, uint32_t ifindex, const void *addr,
    const struct ether_addr *mac)
{
	(void)pthread_mutex_lock(&watch_lock);
	(void)watch_neigh_learn((uint8_t)family, ifindex, (const uint8_t *)addr,
	    mac->ether_addr_octet);
	(void)pthread_mutex_unlock(&watch_lock);
}

void
ost_watch_feed(const void *buf, size_t len)
{
	(void)pthread_mutex_lock(&watch_lock);
	if (watch_parse(buf, len))
		watch_bump();
	(void)pthread_mutex_unlock(&watch_lock);
}

void
ost_watch_reset(bool frozen)
{
	__atomic_store_n(&watch_frozen, frozen, __ATOMIC_RELAXED);
	(void)pthread_mutex_lock(&watch_lock);
	memset(watch_neighs, 0, sizeof(watch_neighs));
	watch_neigh_next = 0;
	(void)pthread_mutex_unlock(&watch_lock);
}
