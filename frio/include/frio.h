/*
 * libfrio: user-level access to whole Ethernet frames on one interface.
 *
 * A handle is opened on an interface, given one or more receive filters
 * (destination MAC, destination IP address, destination UDP port), and then
 * transmits prepared frames and lends received ones.  Every operation that
 * can fail returns a frio_status_t; frio_status2str() turns it into a text
 * that says what to do about it.
 *
 * Threads: different handles may be used from different threads at once.
 * The receive side of one handle (frio_rx_get, frio_rx_put) is used by one
 * thread at a time, and so is its transmit side (frio_tx_vec); the caller
 * serialises each.
 *
 * The backend is chosen by the environment variable FRIO_BACKEND when a
 * handle is opened: "xdp" (AF_XDP), "packet" (AF_PACKET) or "mem" (an
 * in-memory double for tests, see frio_mem.h).  Unset, it is "xdp" when
 * libfrio was built with AF_XDP support, else "packet".
 *
 * Limits of the xdp backend.  A process opens at most FRIO_XDP_MAX_HANDLES
 * handles on one interface queue (FRIO_QUEUE) at a time; past that,
 * frio_open fails with FRIO_STATUS_FAILED and a text that says so.  One
 * process at a time holds a queue; processes on other queues of the same
 * interface share its steering program, which stays attached when they
 * exit.  A handle lends at most FRIO_XDP_MAX_LENT frames at once:
 * frio_rx_get returns FRIO_STATUS_NOMEM until one is put back.
 */
#ifndef FRIO_H
#define FRIO_H

#include <stddef.h>
#include <stdint.h>
#include <netinet/in.h>
#include <net/ethernet.h>
#include <sys/uio.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct frio_handle *frio_handle_t;

typedef enum frio_status {
	FRIO_STATUS_OK = 0,
	FRIO_STATUS_BADARG = 1,
	FRIO_STATUS_BADHDR = 2,
	FRIO_STATUS_TOOBIG = 3,
	FRIO_STATUS_NOTFOUND = 4,
	FRIO_STATUS_NOTSUP = 5,
	FRIO_STATUS_NOMEM = 6, /* no transmit room right now: offer again */
	FRIO_STATUS_DENIED = 7,
	FRIO_STATUS_DLERR = 8,
	FRIO_STATUS_FAILED = 9
} frio_status_t;

#define FRIO_XDP_MAX_HANDLES 1024
#define FRIO_XDP_MAX_LENT    4

/* Deliver frames to this MAC, destination address and destination port. */
#define FRIO_FILTER_MAC_IP_PORT 3

typedef struct frio_filter_args {
	uint32_t uf_type;
	uint8_t uf_macaddr[6];
	uint8_t uf_pad[2];         /* zero: filters are compared whole */
	struct in6_addr uf_src_ip; /* zero: any source */
	struct in6_addr uf_dst_ip; /* IPv4 in mapped form ::ffff:a.b.c.d */
	in_port_t uf_src_port;     /* zero: any source port */
	in_port_t uf_dst_port;     /* network order */
} frio_filter_args_t;

/* ut_pkt_options: the frame is IPv6; complete its UDP checksum. */
#define FRIO_TX_OPT_IPV6_CKSUM 2

typedef struct frio_tx_args {
	uint16_t ut_pkt_options;
	/* Ignored: header lengths come from the frame itself.  Keeps the
	 * record's size and initialisers of the form { options, 0, 0, 0 }. */
	uint8_t ut_reserved[4];
} frio_tx_args_t;

typedef struct frio_rx_args {
	uint32_t
	    ur_pkt_len; /* bytes from the first byte of the Ethernet header */
} frio_rx_args_t;

/* No options yet: callers pass NULL. */
typedef struct frio_open_args frio_open_args_t;

frio_status_t
frio_open(const char *ifname, frio_open_args_t *args, frio_handle_t *hdlp);
void frio_close(frio_handle_t hdl);
frio_status_t frio_get_mac_addr(frio_handle_t hdl, struct ether_addr *mac);
frio_status_t frio_setup_rx(frio_handle_t hdl, frio_filter_args_t *filter);
uint32_t frio_handle2statid(frio_handle_t hdl);
/*
 * Send one frame: the prepared headers (hdr_len bytes from the Ethernet
 * header) followed by the bytes of the gather list.  The IPv4 header checksum
 * and the UDP checksum are completed here; the prepared UDP checksum field
 * holds the pseudo-header seed.  args is null for IPv4 frames.
 */
frio_status_t frio_tx_vec(frio_handle_t hdl, frio_tx_args_t *args,
    const void *hdr, size_t hdr_len, const struct iovec *iov, int iovcnt);
/* Never blocks.  On OK, *framep is lent until frio_rx_put(). */
frio_status_t
frio_rx_get(frio_handle_t hdl, frio_rx_args_t *args, void **framep);
frio_status_t frio_rx_put(frio_handle_t hdl, void *frame);
const char *frio_status2str(frio_status_t status, char *buf, size_t len);
/* A descriptor that polls readable while received frames wait. */
int frio_get_fd(frio_handle_t hdl);
/*
 * 1 when the kernel also receives a copy of every frame the handle receives
 * (the packet backend: a kernel socket bound to the same address and port
 * gets the datagram too), 0 when the handle's frames never reach the
 * kernel (xdp, mem); -1 for a null handle.
 */
int frio_rx_copies(frio_handle_t hdl);

#ifdef __cplusplus
#define FRIO_ASSERT_LAYOUT(c, m) static_assert(c, m)
#else
#define FRIO_ASSERT_LAYOUT(c, m) _Static_assert(c, m)
#endif
FRIO_ASSERT_LAYOUT(sizeof(frio_filter_args_t) == 48, "filter record size");
FRIO_ASSERT_LAYOUT(offsetof(frio_filter_args_t, uf_macaddr) == 4, "uf_macaddr");
FRIO_ASSERT_LAYOUT(offsetof(frio_filter_args_t, uf_src_ip) == 12, "uf_src_ip");
FRIO_ASSERT_LAYOUT(offsetof(frio_filter_args_t, uf_dst_ip) == 28, "uf_dst_ip");
FRIO_ASSERT_LAYOUT(offsetof(frio_filter_args_t, uf_src_port) == 44,
    "uf_src_port");
FRIO_ASSERT_LAYOUT(offsetof(frio_filter_args_t, uf_dst_port) == 46,
    "uf_dst_port");
FRIO_ASSERT_LAYOUT(sizeof(frio_tx_args_t) == 6, "tx record size");
FRIO_ASSERT_LAYOUT(offsetof(frio_tx_args_t, ut_pkt_options) == 0,
    "ut_pkt_options");
FRIO_ASSERT_LAYOUT(sizeof(frio_rx_args_t) == 4, "rx record size");
#undef FRIO_ASSERT_LAYOUT

#ifdef __cplusplus
}
#endif

#endif /* FRIO_H */
