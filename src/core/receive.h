/*
 * The receive path and readiness: frame validation and copy-out, the
 * receive engine with its stash and slot, poll and select.
 */
#ifndef OST_CORE_RECEIVE_H
#define OST_CORE_RECEIVE_H

#include "core/ost.h"
#include "core/signals.h"

/* Bytes from the start of a frame to the UDP payload. */
#define OST_PKT_OFF_V4 42 /* Ethernet 14 + IPv4 20 + UDP 8 */
#define OST_PKT_OFF_V6 62 /* Ethernet 14 + IPv6 40 + UDP 8 */

/* Batches longer than this go to the C library whole. */
#define OST_RECV_BATCH_MAX 1024

/*
 * What a received frame is to a socket.  Only the first is delivered.  The
 * handle's filters should never let the others through, but a frame from
 * the wire must never be able to end the process or make the library read
 * out of bounds: each is dropped, and all but FOREIGN are counted.
 */
typedef enum {
	OST_PKT_ACCEPT,     /* the socket's: deliver it */
	OST_PKT_FOREIGN,    /* connected socket, another peer: as the kernel */
	OST_PKT_SHORT,      /* shorter than its own headers */
	OST_PKT_NOT_UDP,    /* IPv4 options, IPv6 extension headers, ... */
	OST_PKT_TRUNCATED,  /* its IP length runs past the frame */
	OST_PKT_NOT_FOR_US, /* another address or port */
	OST_PKT_MARTIAN     /* a source no sender may have */
} ost_pkt_verdict_t;

/* The facts a verdict rests on, for the caller's outputs and messages. */
typedef struct ost_pkt_info {
	unsigned pi_proto;  /* protocol or next-header byte */
	size_t pi_len;      /* UDP payload bytes, once the lengths hold */
	in_port_t pi_dport; /* network order */
	in_port_t pi_sport; /* network order */
} ost_pkt_info_t;

/*
 * Classifies a frame of framelen bytes of the socket's family without
 * acting on it.  Reads nothing beyond the frame, whatever its length fields
 * say.
 */
ost_pkt_verdict_t ost_check_pkt(const uost_t *up, const uint8_t *frame,
    size_t framelen, ost_pkt_info_t *pi);

/*
 * true: the frame is the socket's; false: drop it.  *len is the frame
 * length on entry and the payload length once the length check passed.
 * payload, from and fromlen may be null (from and fromlen together); from
 * is a sockaddr_in or sockaddr_in6, written only when *fromlen holds it.
 * A dropped frame is counted in the receive slot's uost_rx_dropped.
 */
bool ost_parse_pkt(uost_t *up, const void *frame, uint8_t **payload,
    size_t *len, void *from, socklen_t *fromlen);

/*
 * Validates the frame and scatters its payload over msg_iov; the sender
 * goes to msg_name.  Bytes copied, or -1 when the frame is dropped.  Uses
 * only msg_name, msg_namelen, msg_iov and msg_iovlen; sets no errno.
 */
ssize_t ost_copy_pkt(uost_t *up, struct msghdr *msg, void *frame, size_t len);
/* The same; *whole is the payload's length, copied or not. */
ssize_t ost_copy_pkt_cut(uost_t *up, struct msghdr *msg, const void *frame,
    size_t len, size_t *whole);

/*
 * The control data the kernel would give with the socket's accepted frame,
 * as its put_cmsg writes it: the receive time (*ts, or the clock now when
 * ts is null and there is room for it), then the packet information, into
 * msg_control.  What does not fit is cut and msg_flags says MSG_CTRUNC;
 * msg_controllen becomes the bytes written, 0 when no option asks.
 */
void ost_pkt_cmsgs(const uost_t *up, struct msghdr *msg, const void *frame,
    const struct timespec *ts);

/*
 * The receive slot: one thread at a time uses the stash and the handle's
 * receive side.  ost_recv_slot_take returns false without the slot when
 * leave_if_closing is set and the socket is being torn down.
 */
bool ost_recv_slot_take(uost_t *up, bool leave_if_closing);
void ost_recv_slot_give(uost_t *up);
/* Gives back what a receive of this thread left by siglongjmp held. */
void ost_recv_abandoned(void);
/* The same for a poll of this thread's (core/readiness.cc). */
void ost_wait_abandoned(void);

/* Whether the socket is being torn down; takes no lock. */
bool ost_seen_closing(uost_t *up);

/*
 * One datagram into msg; timeout in nanoseconds, 0 for none.  Consumes
 * the caller's reference.  Bytes copied, or -1 with errno.  On delivery
 * from the ring msg_control holds what ost_pkt_cmsgs gives and msg_flags
 * also says MSG_TRUNC when the datagram was cut.
 */
ssize_t
ost_recvmsg(uost_t *up, struct msghdr *msg, int flags, hrtime_t timeout);

/*
 * Whether a datagram waits for the socket: the stash holds a frame, or one
 * is fetched into it.  With validate, a fetched frame is checked first and
 * a dropped one does not count.  Takes and gives back the receive slot.
 */
bool ost_rx_ready(uost_t *up, bool validate, bool *fetched = NULL);

/* Whether the socket has a handle with a filter, the engine's to serve. */
bool ost_rx_served(uost_t *up);

/* The interposed receive calls. */
ssize_t ost_recvfrom_call(int fd, void *buf, size_t len, int flags,
    struct sockaddr *from, socklen_t *fromlen);
ssize_t ost_read_call(int fd, void *buf, size_t len);
/*
 * FIONREAD (SIOCINQ) of a bypass socket: the next datagram's payload length
 * when a frame waits in the stash or the ring; false: the kernel socket's
 * answer is the one.
 */
bool ost_next_len(int fd, int *len);
ssize_t ost_readv_call(int fd, const struct iovec *iov, int iovcnt);
ssize_t ost_recvmsg_call(int fd, struct msghdr *msg, int flags);
int ost_recvmmsg_call(int fd, struct mmsghdr *vec, unsigned int vlen, int flags,
    struct timespec *timeout);

/* One bypass socket of a poll call, with a reference held on it. */
typedef struct fd_uost {
	nfds_t idx; /* in the caller's pollfd array */
	uost_t *up;
	uint64_t kc_now; /* the kernel socket's arrival count, as last read */
	bool kc;         /* it has one */
} fd_uost_t;

/* Readiness.  timeout: milliseconds for poll, nanoseconds for busy_poll,
 * negative for none. */
int ost_poll(struct pollfd *fds, nfds_t nfds, int timeout);
int busy_poll(struct pollfd *fds, nfds_t nfds, hrtime_t timeout);
/*
 * poll for the receive engine waiting on self's descriptor: returns 0 as
 * soon as it sees self being torn down.  self may be null.  Fails with
 * EINTR when a signal handler ran since sigs was taken.
 */
int ost_poll_wait(uost_t *self, struct pollfd *fds, nfds_t nfds, int timeout,
    const ost_sigcount_t *sigs);
int ost_select(int nfds, fd_set *readfds, fd_set *writefds, fd_set *errorfds,
    struct timeval *timeout);
/* ppoll and pselect: signals get in only through mask, as in the kernel. */
int ost_ppoll(struct pollfd *fds, nfds_t nfds, const struct timespec *timeout,
    const sigset_t *mask);
int ost_pselect(int nfds, fd_set *readfds, fd_set *writefds, fd_set *errorfds,
    const struct timespec *timeout, const sigset_t *mask);

#endif /* OST_CORE_RECEIVE_H */
