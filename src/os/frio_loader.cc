#include "os/frio_loader.h"

#include <dlfcn.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>

#include "os/log.h"

const ost_frio_ops_t *ost_frio;
__thread int ost_in_frio;

static pthread_once_t frio_once = PTHREAD_ONCE_INIT; /* guards the load */
static ost_frio_ops_t frio_ops;                      /* written once */

/*
 * Every call into libfrio runs with ost_in_frio raised: the socket calls
 * that libfrio, libxdp and libbpf make resolve to our exported functions,
 * which then go straight to the C library.  Without this they would look
 * descriptors up in the registry, taking a bucket lock while the caller
 * holds a record lock.
 */
#define FRIO_GUARDED(type, name, params, args) \
	static type guarded_##name params      \
	{                                      \
		ost_in_frio++;                 \
		type r = frio_ops.name args;   \
		ost_in_frio--;                 \
		return r;                      \
	}

FRIO_GUARDED(frio_status_t, open,
    (const char *n, frio_open_args_t *a, frio_handle_t *h), (n, a, h))
FRIO_GUARDED(frio_status_t, get_mac_addr,
    (frio_handle_t h, struct ether_addr *m), (h, m))
FRIO_GUARDED(frio_status_t, setup_rx, (frio_handle_t h, frio_filter_args_t *f),
    (h, f))
FRIO_GUARDED(uint32_t, handle2statid, (frio_handle_t h), (h))
FRIO_GUARDED(frio_status_t, tx_vec,
    (frio_handle_t h, frio_tx_args_t *a, const void *hdr, size_t len,
	const struct iovec *iov, int n),
    (h, a, hdr, len, iov, n))
FRIO_GUARDED(frio_status_t, rx_get,
    (frio_handle_t h, frio_rx_args_t *a, void **f), (h, a, f))
FRIO_GUARDED(frio_status_t, rx_put, (frio_handle_t h, void *f), (h, f))
FRIO_GUARDED(const char *, status2str, (frio_status_t st, char *b, size_t len),
    (st, b, len))
FRIO_GUARDED(int, get_fd, (frio_handle_t h), (h))
FRIO_GUARDED(int, rx_copies, (frio_handle_t h), (h))

static void
guarded_close(frio_handle_t h)
{
	ost_in_frio++;
	frio_ops.close(h);
	ost_in_frio--;
}

static const ost_frio_ops_t frio_guarded = {
	guarded_open,
	guarded_close,
	guarded_get_mac_addr,
	guarded_setup_rx,
	guarded_handle2statid,
	guarded_tx_vec,
	guarded_rx_get,
	guarded_rx_put,
	guarded_status2str,
	guarded_get_fd,
	guarded_rx_copies,
};
static const char *frio_path = "libfrio.so.1"; /* tests only */

void
ost_frio_set_path(const char *path)
{
	frio_path = path;
}

template <typename Fn>
static bool
resolve(void *lib, Fn *slot, const char *name)
{
	*slot = reinterpret_cast<Fn>(dlsym(lib, name));
	if (*slot == NULL) {
		ost_debug("%s: %s\n", name, dlerror());
		return false;
	}
	return true;
}

static void
frio_load(void)
{
	void *lib = dlopen(frio_path, RTLD_NOW | RTLD_LOCAL);

	if (lib == NULL) {
		ost_debug("cannot load %s: %s\n", frio_path, dlerror());
		return;
	}
	if (resolve(lib, &frio_ops.open, "frio_open") &&
	    resolve(lib, &frio_ops.close, "frio_close") &&
	    resolve(lib, &frio_ops.get_mac_addr, "frio_get_mac_addr") &&
	    resolve(lib, &frio_ops.setup_rx, "frio_setup_rx") &&
	    resolve(lib, &frio_ops.handle2statid, "frio_handle2statid") &&
	    resolve(lib, &frio_ops.tx_vec, "frio_tx_vec") &&
	    resolve(lib, &frio_ops.rx_get, "frio_rx_get") &&
	    resolve(lib, &frio_ops.rx_put, "frio_rx_put") &&
	    resolve(lib, &frio_ops.status2str, "frio_status2str") &&
	    resolve(lib, &frio_ops.get_fd, "frio_get_fd") &&
	    resolve(lib, &frio_ops.rx_copies, "frio_rx_copies")) {
		__atomic_store_n(&ost_frio, &frio_guarded, __ATOMIC_RELEASE);
		return;
	}
	(void)dlclose(lib);
}

frio_status_t
ost_frio_open(const char *ifname, frio_open_args_t *args, frio_handle_t *hdlp)
{
	(void)pthread_once(&frio_once, frio_load);
	if (ost_frio == NULL)
		return FRIO_STATUS_DLERR;
	return ost_frio->open(ifname, args, hdlp);
}

const char *
ost_frio_status2str(frio_status_t status, char *buf, size_t len)
{
	const ost_frio_ops_t *ops =
	    __atomic_load_n(&ost_frio, __ATOMIC_ACQUIRE);

	if (ops != NULL)
		return ops->status2str(status, buf, len);
	(void)snprintf(buf, len, "%s",
	    status == FRIO_STATUS_OK ?
		"success" :
		"frame-access library libfrio.so.1 cannot be loaded "
		"(install it next to ostrel.so.1)");
	return buf;
}
