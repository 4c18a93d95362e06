/*
 * ostrel's private declarations: the bypass socket record, the registry,
 * the configuration and the real-function tables, shared by every part of
 * the library.  Locking rules are in docs/threads.md; every global below
 * says what protects it.
 */
#ifndef OST_IMPL_H
#define OST_IMPL_H

#include <errno.h>
#include <net/ethernet.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <netinet/ip6.h>
#include <netinet/udp.h>
#include <poll.h>
#include <stdarg.h>
#include <pthread.h>
#include <spawn.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/select.h>
#include <sys/socket.h>

#include "frio.h"
#include "ostrel.h"
#include "platform/hrtime.h"
#include "platform/libc.h"
#include "platform/list.h"
#include "platform/verify.h"

typedef enum { B_FALSE = 0, B_TRUE = 1 } boolean_t;

/* Keeps the caller's errno across a scope (path resolution never sets it). */
struct ost_errno_keep {
	int ek_saved = errno;
	~ost_errno_keep() { errno = ek_saved; }
};

/* Message catalogue of the library's translated texts. */
#define OST_TEXT_DOMAIN "corvane_lib_ostrel"

/*
 * The kernel's bypass option, level SOL_SOCKET.  Linux has no such option;
 * the library's own requests go to ost_kernel_bypass_set().
 */
#define SO_OSTREL 0x101a

typedef struct so_ost_opt_s {
	boolean_t ost_onoff;
	uint32_t ost_stat_id;	/* frio_handle2statid() of the handle */
	int ost_if_id;		/* interface index of the handle */
} so_ost_opt_t;
static_assert(sizeof (so_ost_opt_t) == 12, "so_ost_opt_t is 12 bytes");

typedef enum { RCV_POLL = 0, RCV_BUSY_WAIT = 1 } uost_recv_mode_t;

#define OST_NBUCKETS 11
#define OST_RECV_BUF_SIZE 2048	/* receive stash: one whole frame */
#define OST_HDR_SIZE 64		/* 2 bytes of alignment + Ethernet + IPv6 + UDP */
#define OST_ETH_OFFSET 2	/* puts the IP header on a 4-byte boundary */
#define OST_IFNAME_SIZE 32

/*
 * One bypass socket.  Fields are read and written under uost_lock unless
 * said otherwise; uost_list belongs to the bucket lock.
 */
typedef struct uost_s {
	int uost_sd;
	frio_handle_t uost_frio_hdl;		/* valid while uost_frio_set */
	alignas(8) uint8_t uost_hdr[OST_HDR_SIZE];
	size_t uost_hdr_len;			/* Ethernet to end of UDP */
	size_t uost_ip_hdr_len;			/* IP + UDP */
	struct ether_header *uost_eth;
	struct ip *uost_iph;			/* null for IPv6 */
	struct ip6_hdr *uost_ip6h;		/* null for IPv4 */
	struct udphdr *uost_udph;
	struct in6_addr uost_laddr_v6;		/* IPv4 as ::ffff:a.b.c.d */
	struct in6_addr uost_faddr_v6;
	in_port_t uost_lport;			/* network order */
	in_port_t uost_fport;			/* network order */
	uint32_t uost_uc_hops;			/* 0: not set */
	struct in6_addr uost_ip_maddr_v6;
	uint32_t uost_mc_hops;			/* 0: not set */
	boolean_t uost_is_v6;
	boolean_t uost_bound;
	boolean_t uost_mc_bind;
	boolean_t uost_peer_set;
	boolean_t uost_filter_set;
	boolean_t uost_need_mc_filter;
	boolean_t uost_frio_set;
	boolean_t uost_connected;
	boolean_t uost_kernel_set;
	boolean_t uost_nonblock;	/* read unlocked by waiting receivers */
	hrtime_t uost_rcvtimeo;		/* SO_RCVTIMEO in ns, 0: none; read
					   unlocked by receivers */
	boolean_t uost_closing;		/* read unlocked by waiting receivers */
	boolean_t uost_receiving;
	boolean_t uost_want_recv;
	boolean_t uost_sd_closed;	/* close() ran while another teardown
					   owned the record: leave the
					   descriptor alone */
	char *uost_recv_buf;			/* OST_RECV_BUF_SIZE bytes */
	size_t uost_recv_buf_len;		/* 0: empty */
	pthread_cond_t uost_recv_cv;
	uint32_t uost_refcnt;
	pthread_cond_t uost_cv;
	pthread_mutex_t uost_lock;
	uint32_t uost_if_index;
	char uost_if_name[OST_IFNAME_SIZE];
	so_ost_stats_t uost_stats;
	list_node_t uost_list;			/* bucket lock */
	list_t *uost_list_head;
	pthread_mutex_t *uost_list_head_lock;
} uost_t;

/* One registry bucket, padded so that neighbours' locks do not share a line. */
typedef struct fd_tbl {
	pthread_mutex_t ft_lock;
	list_t ft_head;			/* of uost_t, through uost_list */
	char ft_pad[32];
} fd_tbl_t;

/* Created by ost_init(), never freed; each bucket by its own ft_lock. */
extern fd_tbl_t fd_tbl_array[OST_NBUCKETS];

/* Configuration: written by ost_init() only, read without locks. */
extern int ost_debug_flag;
extern boolean_t err_exit;
extern uint32_t send_busy_wait_cnt;
extern uint32_t recv_sleep_time;
extern int32_t poll_usec;
extern int recv_mode;

/* The real functions behind the interposed ones; immutable after start-up. */
extern int (*real_close)(int);
extern int (*real_fcntl)(int, int, ...);
extern int (*real_fcntl64)(int, int, ...);
extern int (*real_ioctl)(int, unsigned long, ...);
extern int (*real_poll)(struct pollfd *, nfds_t, int);
extern ssize_t (*real_read)(int, void *, size_t);
extern int (*real_select)(int, fd_set *, fd_set *, fd_set *,
    struct timeval *);
extern ssize_t (*real_write)(int, const void *, size_t);
extern int (*xbind)(int, const struct sockaddr *, socklen_t);
extern int (*xconnect)(int, const struct sockaddr *, socklen_t);
extern int (*xgetsockopt)(int, int, int, void *, socklen_t *);
extern ssize_t (*xsendto)(int, const void *, size_t, int,
    const struct sockaddr *, socklen_t);
extern int (*xsocket)(int, int, int);
extern ssize_t (*xrecvmsg)(int, struct msghdr *, int);
extern int (*xrecvmmsg)(int, struct mmsghdr *, unsigned int, int,
    struct timespec *);
extern ssize_t (*xsendmsg)(int, const struct msghdr *, int);
extern int (*xsendmmsg)(int, struct mmsghdr *, unsigned int, int);

extern "C" {
/* The process hand-off's real functions (ost_set_exec). */
extern int (*real_execv)(const char *, char *const[]);
extern int (*real_execve)(const char *, char *const[], char *const[]);
extern int (*real_execvp)(const char *, char *const[]);
extern int (*real_execvpe)(const char *, char *const[], char *const[]);
extern int (*real_fexecve)(int, char *const[], char *const[]);
extern pid_t (*real_fork)(void);
extern pid_t (*real_vfork)(void);
extern int (*real_posix_spawn)(pid_t *, const char *,
    const posix_spawn_file_actions_t *, const posix_spawnattr_t *,
    char *const[], char *const[]);
extern int (*real_posix_spawnp)(pid_t *, const char *,
    const posix_spawn_file_actions_t *, const posix_spawnattr_t *,
    char *const[], char *const[]);
}

/* Start-up. */
void ost_init(void);
void ost_config_read(void);
void ost_set_exec(void);
void ost_ensure_init(void);
extern volatile int ost_initialised;

/* An interposed call arriving before the initialiser (another library's
 * constructor) starts it. */
#define OST_ENTRY() \
	do { if (__builtin_expect(!ost_initialised, 0)) ost_ensure_init(); } while (0)

/* Diagnostics. */
void ost_debug_init(boolean_t to_file);
void ost_debug(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
void ost_err_exit(const char *reason);
const char *ost_ntoa_v6(const struct in6_addr *addr);
const char *ost_gettext(const char *msgid);

/* Registry and reference protocol (docs/threads.md). */
boolean_t ost_add(int sd, int family);
uost_t *ost_find_sd(int sd);
void ost_release(uost_t *up);
void ost_release_locked(uost_t *up);
void ost_del(uost_t *up, boolean_t unset_kernel);
void ost_drain_locked(uost_t *up);
int ost_unset_kernel_locked(uost_t *up);
void ost_destroy_locked(uost_t *up);

/* Socket creation, close and descriptor flags. */
int ost_socket(int domain, int type, int protocol);
int ost_close(int fd);
void ost_note_fl_change(int fd, int cmd, unsigned long arg);
void ost_note_fionbio(int fd, unsigned long request, const void *argp);

/* Bind, connect and the receive filter. */
int ost_bind_call(int fd, const struct sockaddr *addr, socklen_t len);
int ost_bind(uost_t *up);
boolean_t ost_frio_bind(uost_t *up);
boolean_t ost_set_filter(uost_t *up, const struct in6_addr *addr,
    in_port_t port, const struct ether_addr *mac);
int ost_connect_call(int fd, const struct sockaddr *addr, socklen_t len);
boolean_t ost_connect(uost_t *up, const struct sockaddr *addr, socklen_t len);

/* The frame template and the destination set-up (uost_lock held). */
void ost_hdr_csum_v4(struct ip *iph, struct udphdr *udph);
void ost_hdr_csum_v6(struct ip6_hdr *ip6h, struct udphdr *udph);
boolean_t ost_sendto_frio_set_v4(uost_t *up, const struct sockaddr_in *sin,
    boolean_t do_bind);
boolean_t ost_sendto_frio_set_v6(uost_t *up, const struct sockaddr_in6 *sin6,
    boolean_t do_bind);

/*
 * Transmit.  ost_send and ost_sendmsg consume the caller's reference; the
 * *_call functions are the whole interposed calls.
 */
ssize_t ost_send(uost_t *up, const void *buf, size_t len);
ssize_t ost_sendto(int sd, const void *buf, size_t len, int flags,
    const struct sockaddr *to, socklen_t tolen);
ssize_t ost_send_call(int sd, const void *buf, size_t len, int flags);
ssize_t ost_write_call(int sd, const void *buf, size_t len);
ssize_t ost_sendmsg(int sd, uost_t *up, const struct msghdr *msg, int flags);
ssize_t ost_sendmsg_call(int sd, const struct msghdr *msg, int flags);
int ost_sendmmsg_call(int sd, struct mmsghdr *vec, unsigned int vlen,
    int flags);

/* Socket options: 0 keeps the socket on the bypass, -1 takes it off. */
int ost_setsockopt(int sd, int level, int optname, const void *optval,
    socklen_t optlen);
int ost_getsockopt(int sd, int level, int optname, void *optval,
    socklen_t *optlen);
int ost_process_v4_opt(uost_t *up, int optname, const void *optval,
    socklen_t optlen);
int ost_process_v6_opt(uost_t *up, int optname, const void *optval);

/* Multicast membership and the outgoing interface: 0, or -1 to leave. */
typedef struct ost_mcast_if {
	struct in_addr omi_addr;	/* an address of the interface... */
	uint32_t omi_index;		/* ...or its index, when not 0 */
} ost_mcast_if_t;
int ost_multicast_join_v4(uost_t *up, uint32_t if_index,
    const struct in_addr *group);
int ost_multicast_join_v6(uost_t *up, uint32_t if_index,
    const struct in6_addr *group);
int ost_multicast_leave(uost_t *up, uint32_t if_index,
    const struct in6_addr *group);
/* optval: an ost_mcast_if_t for IP_MULTICAST_IF, an index for IPv6. */
int ost_process_mcast_if(uost_t *up, int optname, const void *optval);

/* Multicast groups to Ethernet addresses. */
void ost_maddr_ip2e_v4(uint32_t group, struct ether_addr *ether);
void ost_maddr_ip2e_v6(const struct in6_addr *group, struct ether_addr *ether);

/* Process hand-off. */
extern "C" void ost_cleanup(void);
void ost_env_cleanup(const char *name);
char **ost_list_argv(const char *arg0, va_list ap, char *const **envpp);

/* The kernel's bypass option (platform/bypass_option.cc). */
int ost_kernel_bypass_set(int sd, const so_ost_opt_t *opt);
void ost_kernel_bypass_forget(int sd);
boolean_t ost_kernel_bypass_get(int sd, so_ost_opt_t *opt);

#include "sub/resolve.h"
#include "core/receive.h"

#endif /* OST_IMPL_H */
