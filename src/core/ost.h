/*
 * The core's private declarations: the bypass socket record, the registry,
 * the configuration, and the functions the core's files share.  Nothing
 * below the core (src/os, src/resolve) includes this header.  Locking rules
 * are in docs/threads.md; every global below says what protects it.
 */
#ifndef OST_CORE_OST_H
#define OST_CORE_OST_H

#include <net/ethernet.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <netinet/ip6.h>
#include <netinet/udp.h>
#include <poll.h>
#include <pthread.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/socket.h>

#include "frio.h"
#include "ostrel.h"
#include "os/clock.h"
#include "os/kernel_bypass.h"
#include "os/libc.h"
#include "os/list.h"
#include "os/log.h"
#include "os/verify.h"
#include "resolve/resolve.h"

typedef enum {
	RCV_POLL = 0,
	RCV_BUSY_WAIT = 1
} uost_recv_mode_t;

#define OST_NBUCKETS      11
#define OST_RECV_BUF_SIZE 2048 /* receive stash: one whole frame */
#define OST_HDR_SIZE      64 /* 2 bytes of alignment + Ethernet + IPv6 + UDP */
#define OST_ETH_OFFSET    2  /* puts the IP header on a 4-byte boundary */
/*
 * How often a busy receive or poll looks at the kernel socket between its
 * looks at the handle: each look is a system call.
 */
#define OST_KERNEL_CHECK_NS (20 * 1000)
/* With an arrival count, the timer only catches what is not a datagram. */
#define OST_KERNEL_CHECK_COUNTED_NS (1000 * 1000)
#define OST_MAX_GROUPS              20 /* the kernel's default IP_MAX_MEMBERSHIPS */

/* uost_rx_cmsgs: the receive time's cmsg type, and the address bit. */
#define OST_RX_STAMP_MASK 0xffU
#define OST_RX_PKTINFO    0x100U

/*
 * One bypass socket.  Fields are read and written under uost_lock unless
 * said otherwise; uost_list belongs to the bucket lock.  The frame template
 * (uost_hdr and the pointers into it) is written only by core/template.cc.
 */
typedef struct uost_s {
	int uost_sd;
	frio_handle_t uost_frio_hdl; /* valid while uost_frio_set */
	alignas(8) uint8_t uost_hdr[OST_HDR_SIZE];
	size_t uost_hdr_len;    /* Ethernet to end of UDP */
	size_t uost_ip_hdr_len; /* IP + UDP */
	struct ether_header *uost_eth;
	struct ip *uost_iph;       /* null for IPv6 */
	struct ip6_hdr *uost_ip6h; /* null for IPv4 */
	struct udphdr *uost_udph;
	struct in6_addr uost_laddr_v6; /* IPv4 as ::ffff:a.b.c.d */
	struct in6_addr uost_faddr_v6;
	in_port_t uost_lport;                        /* network order */
	in_port_t uost_fport;                        /* network order */
	uint32_t uost_uc_hops;                       /* 0: not set */
	uint32_t uost_mc_hops;                       /* 0: not set */
	struct in6_addr uost_ip_maddr_v6;            /* the last group joined */
	struct in6_addr uost_groups[OST_MAX_GROUPS]; /* on the handle's
							   interface */
	uint32_t uost_ngroups;
	uint32_t uost_groups_filtered; /* uost_groups[0..n) have filters */
	bool uost_laddr_filtered;      /* the own-address filter is installed */
	bool uost_rx_copies; /* the kernel also sees the handle's frames */
	uint32_t uost_kernel_naddrs; /* addresses the kernel switch covers */
	/* Datagrams the kernel socket accepted (os/kernel_count.h); waits
	 * ask the socket when it moves.  Read without locks; null when there
	 * is none, or once the kernel socket may have more to say than
	 * datagrams (connected, shut down, IP_RECVERR).  uost_kcount_map
	 * keeps the mapping for the teardown. */
	const uint64_t *uost_kcount;
	const uint64_t *uost_kcount_map;
	uint32_t uost_mtu; /* of the handle's interface */
	bool uost_is_v6;
	bool uost_bound;
	bool uost_mc_bind;    /* group datagrams leave by the handle */
	bool uost_mc_noloop;  /* IP_MULTICAST_LOOP 0 */
	bool uost_peer_group; /* the cached peer is a group */
	bool uost_peer_set;
	bool uost_filter_set; /* some filter is installed; read unlocked */
	bool uost_frio_set;
	bool uost_connected;
	bool uost_kernel_set;
	bool uost_nonblock;       /* read unlocked by waiting receivers */
	hrtime_t uost_rcvtimeo;   /* SO_RCVTIMEO in ns, 0: none */
	bool uost_closing;        /* written under uost_lock, read unlocked */
	bool uost_receiving;      /* the receive slot; atomic */
	bool uost_want_recv;      /* a thread sleeps for the slot; atomic */
	bool uost_sd_closed;      /* close() ran while another teardown owned
				   the record: leave the descriptor alone */
	char *uost_recv_buf;      /* OST_RECV_BUF_SIZE bytes */
	size_t uost_recv_buf_len; /* 0: empty; the receive slot */
	/* The stashed frame's receive time, once one was taken; the slot. */
	struct timespec uost_recv_buf_ts;
	bool uost_recv_buf_stamped;
	/* Owned by the holder of the receive slot: */
	hrtime_t uost_kernel_due; /* next look at the kernel socket */
	/* The count when the kernel socket was last found empty; relaxed
	 * atomics (poll passes note it too, outside the slot). */
	uint64_t uost_kcount_seen;
	bool uost_kernel_peeked;  /* a peek came from the kernel socket */
	uint32_t uost_rx_dropped; /* frames dropped, for the statistics */
	/* Bumped by every look that finds neither stash nor ring holding a
	 * datagram; relaxed atomics (epoll's edge-triggered news). */
	uint32_t uost_empty_seq;
	pthread_cond_t uost_recv_cv;
	uint32_t uost_refcnt; /* atomic, with OST_REF_DRAIN (registry.cc) */
	pthread_cond_t uost_cv;
	pthread_mutex_t uost_lock;
	uint32_t uost_if_index;
	char uost_if_name[OST_IFNAME_SIZE];
	/* Send counters: uost_lock's holder writes; receive counters: the
	 * receive slot's.  Read through ost_stats_read. */
	so_ost_stats_t uost_stats;
	list_node_t uost_list;      /* bucket lock */
	struct fd_tbl *uost_bucket; /* immutable */
	/*
	 * The control data a datagram from the ring comes with: the cmsg
	 * type of the receive time (the SO_TIMESTAMP* option last set, 0 for
	 * none) in the low byte, OST_RX_PKTINFO for IP_PKTINFO or
	 * IPV6_RECVPKTINFO.  Read unlocked by receivers.
	 */
	uint32_t uost_rx_cmsgs;
	/* SO_SNDTIMEO in ns, 0: none; relaxed atomics, as uost_rcvtimeo. */
	hrtime_t uost_sndtimeo;
	/*
	 * The peer's route, next hop, source address and MTU were resolved
	 * (or found unusable) at watch generation uost_dst_gen; uost_dst_ok:
	 * they were usable, and frames to the peer may take the handle.
	 */
	uint32_t uost_dst_gen;
	bool uost_dst_ok;
	/* shutdown() closed the sending side: the kernel answers sends. */
	bool uost_shut_wr;
	/* When a send of a connected socket next asks the kernel socket
	 * for a pending error (an ICMP error the kernel reports on send). */
	hrtime_t uost_err_due;
	/* The receive's learnt spin budget in ns (core/wait_policy.h);
	 * relaxed atomics. */
	uint32_t uost_spin_ns;
} uost_t;

/* In uost_refcnt: a teardown waits for the count to fall to 2. */
#define OST_REF_DRAIN 0x80000000U

/* One registry bucket, padded so that neighbours' locks do not share a line. */
typedef struct fd_tbl {
	pthread_mutex_t ft_lock;
	list_t ft_head; /* of uost_t, through uost_list */
	char ft_pad[32];
} fd_tbl_t;

/* The registry (core/registry.cc); each bucket by its own ft_lock. */
extern fd_tbl_t fd_tbl_array[OST_NBUCKETS];

/* Configuration: written by ost_init() only, read without locks. */
extern uint32_t send_busy_wait_cnt;
extern uint32_t recv_sleep_time;
extern int32_t poll_usec;
extern int32_t epoll_usec;
extern int recv_mode;

/* Start-up. */
void ost_init(void);
void ost_config_read(void);
extern volatile int ost_initialised;

/* Registry and reference protocol (docs/threads.md). */
void ost_registry_init(void);
bool ost_add(int sd, int family);
uost_t *ost_find_sd(int sd);
void ost_hold(uost_t *up);
void ost_release(uost_t *up);
void ost_release_locked(uost_t *up);
void ost_del(uost_t *up, bool sd_open);
/* Unlinks every record and tears each down (the process hand-off). */
void ost_del_all(void);

/*
 * A statistics counter of one writer at a time, read by others without
 * that writer's lock: untorn relaxed accesses, and no locked instruction
 * on the datagram's path.
 */
static inline void
ost_stat_add(uint64_t *counter, uint64_t n)
{
	__atomic_store_n(counter,
	    __atomic_load_n(counter, __ATOMIC_RELAXED) + n, __ATOMIC_RELAXED);
}
/*
 * The kernel socket's arrival count, or null; *now gets its value.  Its
 * users ask the kernel socket when the value differs from
 * uost_kcount_seen, and store the value they read before asking once the
 * answer was "empty".
 */
static inline const uint64_t *
ost_kcount(uost_t *up, uint64_t *now)
{
	const uint64_t *c = __atomic_load_n(&up->uost_kcount, __ATOMIC_ACQUIRE);

	*now = c != NULL ? __atomic_load_n(c, __ATOMIC_RELAXED) : 0;
	return c;
}
/* The kernel socket may now report more than datagrams: ask on a timer. */
static inline void
ost_kcount_drop(uost_t *up)
{
	__atomic_store_n(&up->uost_kcount, (const uint64_t *)NULL,
	    __ATOMIC_RELEASE);
}

/* A copy of the socket's counters, as SO_OSTREL_STATS gives them. */
void ost_stats_read(const uost_t *up, so_ost_stats_t *out);

/*
 * Attach and detach (core/attach.cc), uost_lock held.  Attach opens a
 * handle on uost_if_name if there is none, installs every filter the record
 * names that the handle lacks (its own address, each group joined), and
 * switches the kernel socket once the socket has a port and a filter.
 * false when a step failed (logged); what was done stays for the teardown.
 * Detach undoes all of it; sd_open false: the descriptor is closed, only
 * forget it.
 */
bool ost_attach_locked(uost_t *up);
void ost_detach_locked(uost_t *up, bool sd_open);
/* What the stash and the ring hold, back into the kernel socket. */
void ost_requeue_locked(uost_t *up);
/* Closes a handle that carries no filter yet, to open another elsewhere. */
void ost_detach_handle_locked(uost_t *up);

/* The frame template (core/template.cc), uost_lock held. */
void ost_tpl_init(uost_t *up, int family);
void ost_tpl_set_src_mac(uost_t *up, const struct ether_addr *mac);
void ost_tpl_set_dst_mac(uost_t *up, const struct ether_addr *mac);
void ost_tpl_set_saddr(uost_t *up, const struct in6_addr *addr);
void ost_tpl_set_sport(uost_t *up, in_port_t port);
void ost_tpl_set_peer(uost_t *up, const struct in6_addr *addr, in_port_t port);
void ost_tpl_set_hops(uost_t *up, uint32_t hops);
void ost_tpl_set_tos(uost_t *up, uint8_t tos);
/* Per datagram: lengths and the pseudo-header checksum seed. */
void ost_tpl_set_payload(uost_t *up, size_t payload);
void ost_hdr_csum_v4(struct ip *iph, struct udphdr *udph);
void ost_hdr_csum_v6(struct ip6_hdr *ip6h, struct udphdr *udph);

/*
 * The destination set-up (core/destination.cc), uost_lock held.  It makes
 * to the socket's peer whatever the outcome, and says whether its frames
 * may take the handle (uost_dst_ok).  OST_DST_LATER: not now (no route,
 * an unresolved next hop, the route on another interface), perhaps after
 * the tables change; OST_DST_NEVER: not this destination or socket.
 */
typedef enum {
	OST_DST_OK,
	OST_DST_LATER,
	OST_DST_NEVER
} ost_dst_t;
ost_dst_t
ost_set_destination(uost_t *up, const struct sockaddr *to, bool do_bind);
/* The peer's facts again, when the watch's generation moved past them. */
void ost_dst_refresh_locked(uost_t *up, uint32_t gen);
/* The kernel socket's own TTL or hop limit for unicast or group peers. */
void ost_tpl_sync_hops(uost_t *up);

/* Socket creation, close and descriptor flags. */
int ost_socket(int domain, int type, int protocol);
int ost_close(int fd);
/* close() nested in one of our calls (a signal handler): see the file. */
int ost_close_nested(int fd);
bool ost_closes_deferred(void);
void ost_run_deferred_closes(void);
void ost_note_fl_change(int fd, int cmd, unsigned long arg);
/* dup (newfd -1), dup2 and dup3: the whole calls. */
int ost_dup_call(int oldfd, int newfd, int flags, int (*dup3fn)(int, int, int));
void ost_note_dup(int oldfd);
void ost_note_fionbio(int fd, unsigned long request, const void *argp);
int ost_shutdown_call(int fd, int how);

/* Bind and connect. */
int ost_bind_call(int fd, const struct sockaddr *addr, socklen_t len);
int ost_bind(uost_t *up);
int ost_connect_call(int fd, const struct sockaddr *addr, socklen_t len);
bool ost_connect(uost_t *up, const struct sockaddr *addr, socklen_t len);

/* Transmit: the whole interposed calls. */
ssize_t ost_sendto(int sd, const void *buf, size_t len, int flags,
    const struct sockaddr *to, socklen_t tolen);
ssize_t ost_send_call(int sd, const void *buf, size_t len, int flags);
ssize_t ost_write_call(int sd, const void *buf, size_t len);
ssize_t ost_writev_call(int sd, const struct iovec *iov, int iovcnt);
ssize_t ost_sendmsg_call(int sd, const struct msghdr *msg, int flags);
int
ost_sendmmsg_call(int sd, struct mmsghdr *vec, unsigned int vlen, int flags);

/* Socket options: 0 keeps the socket on the bypass, -1 takes it off. */
int ost_setsockopt(int sd, int level, int optname, const void *optval,
    socklen_t optlen);
int
ost_getsockopt(int sd, int level, int optname, void *optval, socklen_t *optlen);
int ost_process_v4_opt(uost_t *up, int optname, const void *optval,
    socklen_t optlen);
int ost_process_v6_opt(uost_t *up, int optname, const void *optval);

/* Multicast membership and the outgoing interface: 0, or -1 to leave. */
typedef struct ost_mcast_if {
	struct in_addr omi_addr; /* an address of the interface... */
	uint32_t omi_index;      /* ...or its index, when not 0 */
} ost_mcast_if_t;
/* group: IPv6, or IPv4-mapped; if_name: null to find it from if_index. */
int ost_multicast_join(uost_t *up, uint32_t if_index, const char *if_name,
    const struct in6_addr *group);
int ost_multicast_leave(uost_t *up, uint32_t if_index,
    const struct in6_addr *group);
/* optval: an ost_mcast_if_t for IP_MULTICAST_IF, an index for IPv6. */
int ost_process_mcast_if(uost_t *up, int optname, const void *optval);

/* epoll over bypass sockets (core/epoll.cc). */
struct epoll_event;
int ost_epoll_ctl(int epfd, int op, int fd, struct epoll_event *event);
bool ost_epoll_watched(int epfd);
int ost_epoll_wait(int epfd, struct epoll_event *evs, int max, hrtime_t timeout,
    const sigset_t *mask);
void ost_epoll_forget(int fd);
void ost_epoll_fork_lock(bool take);
void ost_epoll_fork_reset(void);
/* Set by fork() called from a handler inside one of our calls. */
extern __thread bool ost_fork_in_handler;

/* Multicast groups to Ethernet addresses. */
void ost_maddr_ip2e_v4(uint32_t group, struct ether_addr *ether);
void ost_maddr_ip2e_v6(const struct in6_addr *group, struct ether_addr *ether);
/* Either family, the group IPv4-mapped for IPv4. */
void ost_maddr_ip2e(const struct in6_addr *group, struct ether_addr *ether);

/* Process hand-off. */
extern "C" void ost_cleanup(void);
void ost_env_cleanup(const char *name);
char **ost_list_argv(const char *arg0, va_list ap, char *const **envpp);

#endif /* OST_CORE_OST_H */
