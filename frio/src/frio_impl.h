/*
 * libfrio internals: what every backend provides, and the part of a handle
 * that the common code owns.  A backend allocates its own handle structure
 * with struct frio_handle as its first member and fills a const
 * frio_backend_ops_t, naming each field.
 */
#ifndef FRIO_IMPL_H
#define FRIO_IMPL_H

#include <net/if.h>

#include "frio.h"

/* The largest frame a handle transmits or lends: Ethernet + 1500 bytes. */
#define FRIO_MAX_FRAME 1514

/*
 * The filters of one handle.  A second frio_setup_rx adds one; adding one
 * that is already there changes nothing.
 */
#define FRIO_MAX_FILTERS 16

typedef struct frio_filter_set {
	int fs_count;
	frio_filter_args_t fs_filter[FRIO_MAX_FILTERS];
} frio_filter_set_t;

struct frio_handle {
	const struct frio_backend_ops *fh_ops;
	char fh_ifname[IF_NAMESIZE];
	int fh_ifindex;
	uint64_t fh_netns; /* with fh_ifindex, names the interface */
	struct ether_addr fh_mac;
	uint32_t fh_statid;
	/* The common code's list of open handles and each one's filters,
	 * both under its registry lock: no two handles on one interface hold
	 * the same filter. */
	struct frio_handle *fh_next;
	frio_filter_set_t fh_filters;
};

typedef struct frio_backend_ops {
	const char *fb_name;
	/* Allocates and opens the backend's handle; the common code has
	 * checked the name, found the index and MAC and fills the rest. */
	frio_status_t (*fb_open)(const char *ifname, int ifindex,
	    struct frio_handle **hdlp);
	void (*fb_close)(struct frio_handle *hdl);
	/* Adds one filter; a handle delivers frames that match any of its.
	 * next is the handle's set with the filter added, which becomes
	 * fh_filters once this returns OK. */
	frio_status_t (*fb_setup_rx)(struct frio_handle *hdl,
	    const frio_filter_args_t *filter, const frio_filter_set_t *next);
	/* A frame buffer of at least FRIO_MAX_FRAME bytes to build into, or
	 * FRIO_STATUS_NOMEM when none is free right now. */
	frio_status_t (*fb_tx_alloc)(struct frio_handle *hdl, void **bufp);
	/* Queues the built frame and wakes the kernel; the buffer is the
	 * backend's again. */
	frio_status_t (
	    *fb_tx_commit)(struct frio_handle *hdl, void *buf, size_t len);
	frio_status_t (
	    *fb_rx_get)(struct frio_handle *hdl, void **framep, uint32_t *lenp);
	frio_status_t (*fb_rx_put)(struct frio_handle *hdl, void *frame);
	int (*fb_get_fd)(struct frio_handle *hdl);
	/* 1 when the kernel also gets every frame the handle receives, 0
	 * when the handle takes them from the kernel. */
	int (*fb_rx_copies)(struct frio_handle *hdl);
	/* Optional, for a backend without a real interface behind it: gives
	 * the index and MAC instead of the kernel's look-up.  Null: the
	 * common code asks the kernel. */
	frio_status_t (*fb_identify)(const char *ifname, int *ifindexp,
	    struct ether_addr *macp);
} frio_backend_ops_t;

extern const frio_backend_ops_t frio_mem_ops;
extern const frio_backend_ops_t frio_packet_ops;
/* Absent from a build without AF_XDP support. */
extern const frio_backend_ops_t frio_xdp_ops __attribute__((weak));

/* OK, or FRIO_STATUS_FAILED when the set is full. */
frio_status_t
frio_filter_add(frio_filter_set_t *set, const frio_filter_args_t *filter);
/* True when the frame is one that a filter of the set names: the rule
 * that every backend applies (see frio_filter_match in frio.cc). */
bool
frio_filter_match(const frio_filter_set_t *set, const void *frame, size_t len);

/*
 * The packet backend's socket filter for a set (classic BPF, the rule of
 * frio_filter_match): its length, or -1 when it needs more than max
 * instructions.
 */
struct sock_filter;
int frio_packet_filter(const frio_filter_set_t *set, struct sock_filter *prog,
    int max);

/* The calling thread's network namespace, as an inode number (0 if
 * unknown): interface indexes are unique only within one. */
uint64_t frio_netns(void);

/* Library debug output to stderr, only when FRIO_DEBUG is set; keeps errno. */
void frio_debug(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
/*
 * Records why the calling thread's open or filter set-up failed: a static
 * text under 80 bytes that says what to do, which frio_status2str gives
 * instead of the status's general one.  Returns status.
 */
frio_status_t frio_fail(frio_status_t status, const char *why);

#endif /* FRIO_IMPL_H */
