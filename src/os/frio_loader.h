/*
 * The frame-access library is opened with dlopen() at its first use, so a
 * process that never opens a handle never loads libfrio or its
 * dependencies (libxdp, libbpf).
 */
#ifndef OST_OS_FRIO_LOADER_H
#define OST_OS_FRIO_LOADER_H

#include "frio.h"

typedef struct ost_frio_ops {
	frio_status_t (
	    *open)(const char *, frio_open_args_t *, frio_handle_t *);
	void (*close)(frio_handle_t);
	frio_status_t (*get_mac_addr)(frio_handle_t, struct ether_addr *);
	frio_status_t (*setup_rx)(frio_handle_t, frio_filter_args_t *);
	uint32_t (*handle2statid)(frio_handle_t);
	frio_status_t (*tx_vec)(frio_handle_t, frio_tx_args_t *, const void *,
	    size_t, const struct iovec *, int);
	frio_status_t (*rx_get)(frio_handle_t, frio_rx_args_t *, void **);
	frio_status_t (*rx_put)(frio_handle_t, void *);
	const char *(*status2str)(frio_status_t, char *, size_t);
	int (*get_fd)(frio_handle_t);
	int (*rx_copies)(frio_handle_t);
} ost_frio_ops_t;

/*
 * Set once the library is loaded and never changed afterwards.  Every
 * handle comes from ost_frio_open(), so code that holds a handle may call
 * through ost_frio directly.
 */
extern const ost_frio_ops_t *ost_frio;

/* Raised while this thread runs inside libfrio (see frio_loader.cc). */
extern __thread int ost_in_frio __attribute__((tls_model("initial-exec")));

/* Loads the library at the first call; FRIO_STATUS_DLERR if it cannot. */
frio_status_t
ost_frio_open(const char *ifname, frio_open_args_t *args, frio_handle_t *hdlp);

/* The library's text for a status, or the loader's own while unloaded. */
const char *ost_frio_status2str(frio_status_t status, char *buf, size_t len);

/* Test hook: the file dlopen() is given (default "libfrio.so.1"). */
void ost_frio_set_path(const char *path);

#endif /* OST_OS_FRIO_LOADER_H */
