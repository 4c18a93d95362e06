/*
 * The mem backend: handles whose "interface" is a pair of queues that
 * tests fill and drain through frio_mem.h.  It goes through the same
 * entry points as the real backends, so tests of the common code and of
 * the library's users exercise the real dispatch.
 */
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "frio_impl.h"
#include "frio_mem.h"

#define EXPORT extern "C" __attribute__((visibility("default")))

#define MEM_MAX_IFS 8

enum {
	SLOT_FREE,
	SLOT_QUEUED,
	SLOT_LENT
};

typedef struct mem_handle {
	struct frio_handle mh_base; /* first: the common part */
	struct mem_handle *mh_next; /* newest first */
	int mh_efd;                 /* readable while mh_rxq_count */
	bool mh_signalled;
	frio_filter_set_t mh_filters;
	/* Receive: slots, the order they were queued in, and free ones. */
	uint8_t (*mh_rx_buf)[FRIO_MEM_MAX_INJECT];
	uint32_t mh_rx_len[FRIO_MEM_RX_DEPTH];
	uint8_t mh_rx_state[FRIO_MEM_RX_DEPTH];
	uint16_t mh_rxq[FRIO_MEM_RX_DEPTH];
	unsigned mh_rxq_head, mh_rxq_count;
	uint16_t mh_free[FRIO_MEM_RX_DEPTH];
	unsigned mh_nfree;
	int mh_lent;
	/* Transmit: a queue of sent frames; the slot after the last one is
	 * the buffer frio_tx_vec builds into. */
	uint8_t (*mh_tx_buf)[FRIO_MAX_FRAME];
	uint32_t mh_tx_len[FRIO_MEM_TX_DEPTH + 1];
	unsigned mh_tx_head, mh_tx_count;
	unsigned mh_tx_nomem;
} mem_handle_t;

typedef struct mem_if {
	char mi_name[IF_NAMESIZE];
	int mi_index;
	struct ether_addr mi_mac;
} mem_if_t;

/*
 * Protects every global below and every field of every mem handle after
 * its open.  Taken by every mem operation and frio_mem_* hook, per frame
 * too: tests are not fast paths.  Nothing nests under it; it nests under
 * frio_reg_lock (mem_setup_rx).
 */
static pthread_mutex_t mem_lock = PTHREAD_MUTEX_INITIALIZER;
/* Open mem handles, newest first; protected by mem_lock. */
static mem_handle_t *mem_handles;
/* Interfaces that frio_mem_add_interface named; protected by mem_lock. */
static mem_if_t mem_ifs[MEM_MAX_IFS];
static int mem_nifs;
/* Scripted failures of the next open and set-up; protected by mem_lock. */
static frio_status_t mem_fail_open_status;
static frio_status_t mem_fail_setup_status;
/* Transmits on any handle still to fail; protected by mem_lock. */
static unsigned mem_tx_nomem_any;

static mem_handle_t *
mem_of(frio_handle_t hdl)
{
	if (hdl == NULL || hdl->fh_ops != &frio_mem_ops)
		return NULL;
	return reinterpret_cast<mem_handle_t *>(hdl);
}

/* Keeps the eventfd readable exactly while frames are queued. */
static void
mem_sync_fd(mem_handle_t *m)
{
	uint64_t v = 1;

	if (m->mh_rxq_count != 0 && !m->mh_signalled) {
		if (write(m->mh_efd, &v, sizeof(v)) == sizeof(v))
			m->mh_signalled = true;
	} else if (m->mh_rxq_count == 0 && m->mh_signalled) {
		if (read(m->mh_efd, &v, sizeof(v)) == sizeof(v))
			m->mh_signalled = false;
	}
}

static frio_status_t
mem_queue(mem_handle_t *m, const void *frame, size_t len)
{
	unsigned slot;

	if (len > FRIO_MEM_MAX_INJECT)
		return FRIO_STATUS_TOOBIG;
	if (m->mh_nfree == 0)
		return FRIO_STATUS_NOMEM;
	slot = m->mh_free[--m->mh_nfree];
	memcpy(m->mh_rx_buf[slot], frame, len);
	m->mh_rx_len[slot] = static_cast<uint32_t>(len);
	m->mh_rx_state[slot] = SLOT_QUEUED;
	m->mh_rxq[(m->mh_rxq_head + m->mh_rxq_count) % FRIO_MEM_RX_DEPTH] =
	    static_cast<uint16_t>(slot);
	m->mh_rxq_count++;
	mem_sync_fd(m);
	return FRIO_STATUS_OK;
}

static frio_status_t
mem_identify(const char *ifname, int *ifindexp, struct ether_addr *macp)
{
	static const struct ether_addr mem_mac = { { 0x02, 0x00, 0x00, 0x00,
	    0x00, 0x01 } };
	frio_status_t st = FRIO_STATUS_OK;

	(void)pthread_mutex_lock(&mem_lock);
	if (mem_fail_open_status != FRIO_STATUS_OK) {
		st = mem_fail_open_status;
		mem_fail_open_status = FRIO_STATUS_OK;
	} else if (mem_nifs == 0) {
		*ifindexp = FRIO_MEM_IFINDEX;
		*macp = mem_mac;
	} else {
		st = FRIO_STATUS_NOTFOUND;
		for (int i = 0; i < mem_nifs; i++) {
			if (strcmp(mem_ifs[i].mi_name, ifname) == 0) {
				*ifindexp = mem_ifs[i].mi_index;
				*macp = mem_ifs[i].mi_mac;
				st = FRIO_STATUS_OK;
				break;
			}
		}
	}
	(void)pthread_mutex_unlock(&mem_lock);
	return st;
}

static void
mem_free(mem_handle_t *m)
{
	if (m->mh_efd >= 0)
		(void)close(m->mh_efd);
	free(m->mh_rx_buf);
	free(m->mh_tx_buf);
	free(m);
}

static frio_status_t
mem_open(const char *ifname, int ifindex, struct frio_handle **hdlp)
{
	mem_handle_t *m;

	(void)ifname;
	(void)ifindex;
	m = static_cast<mem_handle_t *>(calloc(1, sizeof(*m)));
	if (m == NULL)
		return FRIO_STATUS_FAILED;
	m->mh_efd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
	m->mh_rx_buf = static_cast<uint8_t(*)[FRIO_MEM_MAX_INJECT]>(
	    calloc(FRIO_MEM_RX_DEPTH, FRIO_MEM_MAX_INJECT));
	m->mh_tx_buf = static_cast<uint8_t(*)[FRIO_MAX_FRAME]>(
	    calloc(FRIO_MEM_TX_DEPTH + 1, FRIO_MAX_FRAME));
	if (m->mh_efd < 0 || m->mh_rx_buf == NULL || m->mh_tx_buf == NULL) {
		mem_free(m);
		return FRIO_STATUS_FAILED;
	}
	for (unsigned i = 0; i < FRIO_MEM_RX_DEPTH; i++)
		m->mh_free[i] =
		    static_cast<uint16_t>(FRIO_MEM_RX_DEPTH - 1 - i);
	m->mh_nfree = FRIO_MEM_RX_DEPTH;
	(void)pthread_mutex_lock(&mem_lock);
	m->mh_next = mem_handles;
	mem_handles = m;
	(void)pthread_mutex_unlock(&mem_lock);
	*hdlp = &m->mh_base;
	return FRIO_STATUS_OK;
}

static void
mem_close(struct frio_handle *hdl)
{
	mem_handle_t *m = mem_of(hdl);

	(void)pthread_mutex_lock(&mem_lock);
	for (mem_handle_t **pp = &mem_handles; *pp != NULL;
	     pp = &(*pp)->mh_next) {
		if (*pp == m) {
			*pp = m->mh_next;
			break;
		}
	}
	(void)pthread_mutex_unlock(&mem_lock);
	if (m->mh_lent != 0)
		frio_debug("%s: mem: closed with %d frames still lent",
		    hdl->fh_ifname, m->mh_lent);
	mem_free(m);
}

static frio_status_t
mem_setup_rx(struct frio_handle *hdl, const frio_filter_args_t *filter,
    const frio_filter_set_t *next)
{
	mem_handle_t *m = mem_of(hdl);
	frio_status_t st = FRIO_STATUS_OK;

	(void)filter;
	(void)pthread_mutex_lock(&mem_lock);
	if (mem_fail_setup_status != FRIO_STATUS_OK) {
		st = mem_fail_setup_status;
		mem_fail_setup_status = FRIO_STATUS_OK;
	} else {
		/* A copy under mem_lock, for frio_mem_deliver. */
		m->mh_filters = *next;
	}
	(void)pthread_mutex_unlock(&mem_lock);
	return st;
}

static frio_status_t
mem_tx_alloc(struct frio_handle *hdl, void **bufp)
{
	mem_handle_t *m = mem_of(hdl);
	frio_status_t st = FRIO_STATUS_OK;

	(void)pthread_mutex_lock(&mem_lock);
	if (m->mh_tx_nomem != 0) {
		m->mh_tx_nomem--;
		st = FRIO_STATUS_NOMEM;
	} else if (mem_tx_nomem_any != 0) {
		mem_tx_nomem_any--;
		st = FRIO_STATUS_NOMEM;
	} else if (m->mh_tx_count == FRIO_MEM_TX_DEPTH) {
		st = FRIO_STATUS_NOMEM;
	} else {
		/* Not yet on the queue: a concurrent pop leaves it alone. */
		*bufp = m->mh_tx_buf[(m->mh_tx_head + m->mh_tx_count) %
		    (FRIO_MEM_TX_DEPTH + 1)];
	}
	(void)pthread_mutex_unlock(&mem_lock);
	return st;
}

static frio_status_t
mem_tx_commit(struct frio_handle *hdl, void *buf, size_t len)
{
	mem_handle_t *m = mem_of(hdl);
	unsigned slot;

	(void)pthread_mutex_lock(&mem_lock);
	slot = (m->mh_tx_head + m->mh_tx_count) % (FRIO_MEM_TX_DEPTH + 1);
	if (buf != m->mh_tx_buf[slot]) {
		(void)fprintf(stderr,
		    "frio: mem: transmit of a buffer that "
		    "was not allocated\n");
		abort();
	}
	m->mh_tx_len[slot] = static_cast<uint32_t>(len);
	m->mh_tx_count++;
	(void)pthread_mutex_unlock(&mem_lock);
	return FRIO_STATUS_OK;
}

static frio_status_t
mem_rx_get(struct frio_handle *hdl, void **framep, uint32_t *lenp)
{
	mem_handle_t *m = mem_of(hdl);
	frio_status_t st = FRIO_STATUS_NOMEM;
	unsigned slot;

	(void)pthread_mutex_lock(&mem_lock);
	if (m->mh_rxq_count != 0) {
		slot = m->mh_rxq[m->mh_rxq_head];
		m->mh_rxq_head = (m->mh_rxq_head + 1) % FRIO_MEM_RX_DEPTH;
		m->mh_rxq_count--;
		m->mh_rx_state[slot] = SLOT_LENT;
		m->mh_lent++;
		*framep = m->mh_rx_buf[slot];
		*lenp = m->mh_rx_len[slot];
		mem_sync_fd(m);
		st = FRIO_STATUS_OK;
	}
	(void)pthread_mutex_unlock(&mem_lock);
	return st;
}

static frio_status_t
mem_rx_put(struct frio_handle *hdl, void *frame)
{
	mem_handle_t *m = mem_of(hdl);
	uintptr_t base = reinterpret_cast<uintptr_t>(m->mh_rx_buf);
	uintptr_t p = reinterpret_cast<uintptr_t>(frame);
	size_t slot = (p - base) / FRIO_MEM_MAX_INJECT;

	(void)pthread_mutex_lock(&mem_lock);
	if (p < base || slot >= FRIO_MEM_RX_DEPTH ||
	    p != base + slot * FRIO_MEM_MAX_INJECT ||
	    m->mh_rx_state[slot] != SLOT_LENT) {
		(void)fprintf(stderr,
		    "frio: mem: %s: frio_rx_put of a frame "
		    "that is not lent (%p): put twice or never got\n",
		    hdl->fh_ifname, frame);
		abort();
	}
	m->mh_rx_state[slot] = SLOT_FREE;
	m->mh_free[m->mh_nfree++] = static_cast<uint16_t>(slot);
	m->mh_lent--;
	(void)pthread_mutex_unlock(&mem_lock);
	return FRIO_STATUS_OK;
}

static int
mem_get_fd(struct frio_handle *hdl)
{
	return mem_of(hdl)->mh_efd;
}

/* Frames reach a mem handle only through the test's hooks. */
static int
mem_rx_copies(struct frio_handle *hdl)
{
	(void)hdl;
	return 0;
}

const frio_backend_ops_t frio_mem_ops = {
	.fb_name = "mem",
	.fb_open = mem_open,
	.fb_close = mem_close,
	.fb_setup_rx = mem_setup_rx,
	.fb_tx_alloc = mem_tx_alloc,
	.fb_tx_commit = mem_tx_commit,
	.fb_rx_get = mem_rx_get,
	.fb_rx_put = mem_rx_put,
	.fb_get_fd = mem_get_fd,
	.fb_rx_copies = mem_rx_copies,
	.fb_identify = mem_identify,
};

EXPORT int
frio_mem_add_interface(const char *ifname, int ifindex,
    const struct ether_addr *mac)
{
	int rc = -1;

	if (ifname == NULL || *ifname == '\0' ||
	    strnlen(ifname, IF_NAMESIZE) >= IF_NAMESIZE || ifindex <= 0 ||
	    mac == NULL)
		return -1;
	(void)pthread_mutex_lock(&mem_lock);
	if (mem_nifs < MEM_MAX_IFS) {
		mem_if_t *mi = &mem_ifs[mem_nifs++];

		(void)snprintf(mi->mi_name, sizeof(mi->mi_name), "%s", ifname);
		mi->mi_index = ifindex;
		mi->mi_mac = *mac;
		rc = 0;
	}
	(void)pthread_mutex_unlock(&mem_lock);
	return rc;
}

EXPORT frio_handle_t
frio_mem_find(const char *ifname)
{
	mem_handle_t *m;

	(void)pthread_mutex_lock(&mem_lock);
	for (m = mem_handles; m != NULL; m = m->mh_next) {
		if (ifname == NULL || strcmp(m->mh_base.fh_ifname, ifname) == 0)
			break;
	}
	(void)pthread_mutex_unlock(&mem_lock);
	return m != NULL ? &m->mh_base : NULL;
}

EXPORT int
frio_mem_open_count(void)
{
	int n = 0;

	(void)pthread_mutex_lock(&mem_lock);
	for (mem_handle_t *m = mem_handles; m != NULL; m = m->mh_next)
		n++;
	(void)pthread_mutex_unlock(&mem_lock);
	return n;
}

EXPORT frio_status_t
frio_mem_inject(frio_handle_t hdl, const void *frame, size_t len)
{
	mem_handle_t *m = mem_of(hdl);
	frio_status_t st;

	if (m == NULL || (frame == NULL && len != 0))
		return FRIO_STATUS_BADARG;
	(void)pthread_mutex_lock(&mem_lock);
	st = mem_queue(m, frame, len);
	(void)pthread_mutex_unlock(&mem_lock);
	return st;
}

EXPORT int
frio_mem_deliver(const char *ifname, const void *frame, size_t len)
{
	int n = 0;

	if (ifname == NULL || frame == NULL)
		return 0;
	(void)pthread_mutex_lock(&mem_lock);
	for (mem_handle_t *m = mem_handles; m != NULL; m = m->mh_next) {
		if (strcmp(m->mh_base.fh_ifname, ifname) == 0 &&
		    frio_filter_match(&m->mh_filters, frame, len) &&
		    mem_queue(m, frame, len) == FRIO_STATUS_OK)
			n++;
	}
	(void)pthread_mutex_unlock(&mem_lock);
	return n;
}

EXPORT int
frio_mem_rx_pending(frio_handle_t hdl)
{
	mem_handle_t *m = mem_of(hdl);
	int n;

	if (m == NULL)
		return -1;
	(void)pthread_mutex_lock(&mem_lock);
	n = static_cast<int>(m->mh_rxq_count);
	(void)pthread_mutex_unlock(&mem_lock);
	return n;
}

EXPORT int
frio_mem_lent(frio_handle_t hdl)
{
	mem_handle_t *m = mem_of(hdl);
	int n;

	if (m == NULL)
		return -1;
	(void)pthread_mutex_lock(&mem_lock);
	n = m->mh_lent;
	(void)pthread_mutex_unlock(&mem_lock);
	return n;
}

EXPORT ssize_t
frio_mem_tx_pop(frio_handle_t hdl, void *buf, size_t len)
{
	mem_handle_t *m = mem_of(hdl);
	ssize_t n = -1;

	if (m == NULL || (buf == NULL && len != 0))
		return -1;
	(void)pthread_mutex_lock(&mem_lock);
	if (m->mh_tx_count != 0) {
		unsigned slot = m->mh_tx_head;
		uint32_t flen = m->mh_tx_len[slot];

		memcpy(buf, m->mh_tx_buf[slot], len < flen ? len : flen);
		m->mh_tx_head = (slot + 1) % (FRIO_MEM_TX_DEPTH + 1);
		m->mh_tx_count--;
		n = flen;
	}
	(void)pthread_mutex_unlock(&mem_lock);
	return n;
}

EXPORT int
frio_mem_tx_pending(frio_handle_t hdl)
{
	mem_handle_t *m = mem_of(hdl);
	int n;

	if (m == NULL)
		return -1;
	(void)pthread_mutex_lock(&mem_lock);
	n = static_cast<int>(m->mh_tx_count);
	(void)pthread_mutex_unlock(&mem_lock);
	return n;
}

EXPORT void
frio_mem_fail_tx(frio_handle_t hdl, unsigned n)
{
	mem_handle_t *m = mem_of(hdl);

	(void)pthread_mutex_lock(&mem_lock);
	if (m != NULL)
		m->mh_tx_nomem = n;
	else if (hdl == NULL)
		mem_tx_nomem_any = n;
	(void)pthread_mutex_unlock(&mem_lock);
}

EXPORT void
frio_mem_fail_open(frio_status_t status)
{
	(void)pthread_mutex_lock(&mem_lock);
	mem_fail_open_status = status;
	(void)pthread_mutex_unlock(&mem_lock);
}

EXPORT void
frio_mem_fail_setup_rx(frio_status_t status)
{
	(void)pthread_mutex_lock(&mem_lock);
	mem_fail_setup_status = status;
	(void)pthread_mutex_unlock(&mem_lock);
}

EXPORT int
frio_mem_filters(frio_handle_t hdl, frio_filter_args_t *out, int max)
{
	mem_handle_t *m = mem_of(hdl);
	int n;

	if (m == NULL || max < 0 || (out == NULL && max != 0))
		return -1;
	(void)pthread_mutex_lock(&mem_lock);
	n = m->mh_filters.fs_count;
	for (int i = 0; i < n && i < max; i++)
		out[i] = m->mh_filters.fs_filter[i];
	(void)pthread_mutex_unlock(&mem_lock);
	return n;
}

EXPORT void
frio_mem_reset(void)
{
	(void)pthread_mutex_lock(&mem_lock);
	mem_nifs = 0;
	mem_fail_open_status = FRIO_STATUS_OK;
	mem_fail_setup_status = FRIO_STATUS_OK;
	mem_tx_nomem_any = 0;
	for (mem_handle_t *m = mem_handles; m != NULL; m = m->mh_next)
		m->mh_tx_nomem = 0;
	(void)pthread_mutex_unlock(&mem_lock);
}
