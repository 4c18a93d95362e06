/*
 * libfrio internals: what every backend provides, and the part of a handle
 * that the common code owns.  A backend allocates its own handle structure
 * with struct frio_handle as its first member and fills a static const
 * frio_backend_ops_t.
 */
#ifndef FRIO_IMPL_H
#define FRIO_IMPL_H

#include <net/if.h>

#include "frio.h"

/* The largest frame a handle transmits or lends: Ethernet + 1500 bytes. */
#define FRIO_MAX_FRAME 1514

struct frio_handle {
	const struct frio_backend_ops *fh_ops;
	char fh_ifname[IF_NAMESIZE];
	int fh_ifindex;
	struct ether_addr fh_mac;
	uint32_t fh_statid;
};

typedef struct frio_backend_ops {
	const char *fb_name;
	/* Allocates and opens the backend's handle; the common code has
	 * checked the name, found the index and MAC and fills the rest. */
	frio_status_t (*fb_open)(const char *ifname, int ifindex,
	    struct frio_handle **hdlp);
	void (*fb_close)(struct frio_handle *hdl);
	/* Adds one filter; a handle delivers frames that match any of its. */
	frio_status_t (*fb_setup_rx)(struct frio_handle *hdl,
	    const frio_filter_args_t *filter);
	/* A frame buffer of at least FRIO_MAX_FRAME bytes to build into, or
	 * FRIO_STATUS_NOMEM when none is free right now. */
	frio_status_t (*fb_tx_alloc)(struct frio_handle *hdl, void **bufp);
	/* Queues the built frame and wakes the kernel; the buffer is the
	 * backend's again. */
	frio_status_t (*fb_tx_commit)(struct frio_handle *hdl, void *buf,
	    size_t len);
	frio_status_t (*fb_rx_get)(struct frio_handle *hdl, void **framep,
	    uint32_t *lenp);
	frio_status_t (*fb_rx_put)(struct frio_handle *hdl, void *frame);
	int (*fb_get_fd)(struct frio_handle *hdl);
} frio_backend_ops_t;

extern const frio_backend_ops_t frio_mem_ops;
extern const frio_backend_ops_t frio_packet_ops;
/* Absent from a build without AF_XDP support. */
extern const frio_backend_ops_t frio_xdp_ops __attribute__((weak));

#endif /* FRIO_IMPL_H */
