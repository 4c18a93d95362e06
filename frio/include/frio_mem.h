/*
 * The "mem" backend of libfrio (FRIO_BACKEND=mem): an in-memory stand-in
 * for an interface, driven by tests through the functions below.  Only
 * libfrio_testing.so exports them; link it instead of libfrio.so.1.
 *
 * Interfaces.  Until frio_mem_add_interface() names one, frio_open accepts
 * any name and gives the handle index FRIO_MEM_IFINDEX and MAC
 * 02:00:00:00:00:01 without asking the kernel.  Once interfaces are named,
 * only those open (with their index and MAC); other names fail with
 * FRIO_STATUS_NOTFOUND.  frio_mem_reset() forgets them.
 *
 * Receive.  frio_mem_inject() queues a copy of any bytes on one handle,
 * whatever its filters say, so that tests can feed malformed and oversize
 * frames; frio_mem_deliver() acts as the wire instead and queues a frame on
 * the handle of an interface whose filters name it.  As with the real
 * backends, a filter belongs to one handle per interface: frio_setup_rx
 * refuses (FRIO_STATUS_FAILED) one that another open handle holds.
 * frio_get_fd() gives an eventfd that polls readable while the handle's
 * queue is not empty.
 * A frame lent by frio_rx_get stays counted until frio_rx_put; putting a
 * frame that is not lent (twice, or a foreign pointer) is a caller bug and
 * aborts the process with a message.
 *
 * Transmit.  Each frio_tx_vec that returns OK leaves a copy of the frame on
 * the handle's transmit queue, read with frio_mem_tx_pop().  A full queue
 * makes frio_tx_vec return FRIO_STATUS_NOMEM, like a full ring.
 *
 * Every function may be called from any thread; a handle passed in must
 * be open.  Functions given a handle of another backend fail.
 */
#ifndef FRIO_MEM_H
#define FRIO_MEM_H

#include <sys/types.h>

#include "frio.h"

#ifdef __cplusplus
extern "C" {
#endif

#define FRIO_MEM_IFINDEX    1000 /* default interface index */
#define FRIO_MEM_MAX_INJECT 4096 /* largest frame a test may inject */
#define FRIO_MEM_RX_DEPTH   256  /* frames queued or lent per handle */
#define FRIO_MEM_TX_DEPTH   256  /* transmitted frames kept per handle */

/* Names an interface; 0, or -1 when the name is bad or 8 are named. */
int frio_mem_add_interface(const char *ifname, int ifindex,
    const struct ether_addr *mac);
/* The most recently opened handle on ifname (any, when null), or null. */
frio_handle_t frio_mem_find(const char *ifname);
/* Open mem handles: a test's check for leaked handles. */
int frio_mem_open_count(void);

/* Queues a copy on hdl: NOMEM when the queue is full, TOOBIG over the
 * limit, BADARG for a handle of another backend. */
frio_status_t frio_mem_inject(frio_handle_t hdl, const void *frame, size_t len);
/* Queues a copy on each handle of ifname whose filters name the frame;
 * returns how many took it. */
int frio_mem_deliver(const char *ifname, const void *frame, size_t len);
/* Frames waiting for frio_rx_get, and frames lent and not yet put. */
int frio_mem_rx_pending(frio_handle_t hdl);
int frio_mem_lent(frio_handle_t hdl);

/* Takes the oldest transmitted frame: copies up to len bytes to buf and
 * returns the frame's whole length, or -1 when none is left. */
ssize_t frio_mem_tx_pop(frio_handle_t hdl, void *buf, size_t len);
int frio_mem_tx_pending(frio_handle_t hdl);

/* The next n frio_tx_vec calls on hdl (on any handle, when null) return
 * FRIO_STATUS_NOMEM. */
void frio_mem_fail_tx(frio_handle_t hdl, unsigned n);
/* The next frio_open, or the next frio_setup_rx on any handle, fails with
 * status (OK cancels). */
void frio_mem_fail_open(frio_status_t status);
void frio_mem_fail_setup_rx(frio_status_t status);

/* Copies up to max installed filters, oldest first; returns their number,
 * or -1 for a handle of another backend. */
int frio_mem_filters(frio_handle_t hdl, frio_filter_args_t *out, int max);

/* Forgets named interfaces and scripted failures; open handles keep their
 * queues. */
void frio_mem_reset(void);

#ifdef __cplusplus
}
#endif

#endif /* FRIO_MEM_H */
