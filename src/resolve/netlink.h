/*
 * rtnetlink plumbing of path resolution: one socket per call, requests
 * answered by the kernel only, and parsers that take a received buffer as
 * it is and never read past it.  Private to src/resolve/ and its tests.
 */
#ifndef OST_RESOLVE_NETLINK_H
#define OST_RESOLVE_NETLINK_H

#include <ifaddrs.h>
#include <linux/netlink.h>
#include <net/ethernet.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include "os/clock.h"
#include "resolve/resolve.h"

/*
 * Receive buffer.  The kernel packs dump messages into buffers of at most
 * one page unless a reader has shown it a larger one, so 8 KB never
 * truncates an answer.
 */
#define OST_NL_BUF_SIZE 8192

/* How long a request waits for its whole answer. */
#define OST_NL_TIMEOUT_MS 1000

typedef struct ost_nl {
	int nl_fd;
	uint32_t nl_portid; /* the kernel's replies carry it */
	uint32_t nl_seq;    /* of the last request sent */
} ost_nl_t;

/*
 * Opens a NETLINK_ROUTE socket bound to a port id of the kernel's choice.
 * Returns false with errno set and nothing open.
 */
bool ost_nl_open(ost_nl_t *nl);
void ost_nl_close(ost_nl_t *nl);

/*
 * Sends a request (nlmsg_seq and nlmsg_pid are filled in here).  false
 * with errno set.
 */
bool ost_nl_send(ost_nl_t *nl, struct nlmsghdr *req);

/*
 * Waits until deadline (gethrtime) for the next datagram from the kernel
 * and returns its length; datagrams from other sockets are dropped.  -1
 * with errno: ETIMEDOUT, EMSGSIZE for a truncated datagram, or the error
 * of poll or recvmsg.
 */
ssize_t ost_nl_recv(ost_nl_t *nl, void *buf, size_t size, hrtime_t deadline);

typedef enum {
	OST_NL_MORE = 0, /* the answer has not ended: read on */
	OST_NL_ANSWER,   /* the answer is complete */
	OST_NL_ERROR     /* the kernel refused the request */
} ost_nl_status_t;

/* What a route answer says. */
typedef struct ost_nl_route {
	int nr_error;    /* OST_NL_ERROR: positive errno */
	uint32_t nr_oif; /* 0: the answer names no usable interface */
	bool nr_has_gw;
	uint8_t nr_gw[16]; /* 4 or 16 bytes, network order */
} ost_nl_route_t;

/*
 * Looks through one received buffer for the answer to route request seq
 * of socket portid, for family AF_INET or AF_INET6.  Other messages are
 * skipped.  rt is written only when the answer is found.
 */
ost_nl_status_t ost_nl_route_parse(const void *buf, size_t len, uint32_t seq,
    uint32_t portid, int family, ost_nl_route_t *rt);

/* What a neighbour dump says about one address. */
typedef struct ost_nl_neigh {
	int nn_error;     /* OST_NL_ERROR: positive errno */
	bool nn_found;    /* an entry for the address exists */
	bool nn_complete; /* ... and it holds a link-layer address */
	uint32_t nn_ifindex;
	uint16_t nn_state;      /* NUD_* */
	uint32_t nn_lladdr_len; /* as the kernel gave it */
	uint8_t nn_lladdr[32];  /* its first bytes */
} ost_nl_neigh_t;

/*
 * Looks through one received buffer of the neighbour dump seq of socket
 * portid for entries of family for dst (4 or 16 bytes), on interface
 * ifindex unless it is 0.  A complete entry ends the answer at once; else
 * nb keeps the first entry met until the dump ends.  nb must be zeroed
 * before the first buffer.
 */
ost_nl_status_t
ost_nl_neigh_parse(const void *buf, size_t len, uint32_t seq, uint32_t portid,
    int family, const void *dst, uint32_t ifindex, ost_nl_neigh_t *nb);

/*
 * Sends the neighbour dump for family (filtered by the kernel to ifindex
 * unless it is 0) and reads it to its end or to the first complete entry
 * for dst.  OST_NL_ERROR with nb->nn_error set when the kernel refused,
 * the socket failed or the answer did not come in time.
 */
ost_nl_status_t ost_nl_neigh_query(ost_nl_t *nl, int family, const void *dst,
    uint32_t ifindex, ost_nl_neigh_t *nb);

/*
 * Copies an interface name, cut at its first colon (an IPv4 label such as
 * veth0:1 names interface veth0), into a buffer of OST_IFNAME_SIZE bytes.
 */
void ost_if_name_copy(char *dst, const char *src);

/*
 * The own Ethernet address of interface index, from the AF_PACKET entry of
 * a getifaddrs() list.  Fails with a debug line when the
 * interface is not Ethernet or its address is not 6 bytes long.
 */
bool ost_if_ether(const struct ifaddrs *list, uint32_t index,
    struct ether_addr *ether);

#endif /* OST_RESOLVE_NETLINK_H */
