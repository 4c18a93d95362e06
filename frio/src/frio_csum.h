/*
 * Checksum completion for frio_tx_vec.  Kept apart from the rest of the
 * library, with no dependencies, so that tests can compile it directly and
 * hold it against a checksum of their own.
 */
#ifndef FRIO_CSUM_H
#define FRIO_CSUM_H

#include <stddef.h>
#include <stdint.h>

#include "frio.h"

/*
 * What frio_tx_finish completes in a frame, decided from the prepared
 * headers alone: once a transmit buffer is taken it must be committed, so
 * every check happens before.
 */
typedef struct frio_tx_plan {
	uint16_t tp_ip4_off; /* IPv4 header, or 0: no header checksum */
	uint16_t tp_ip4_len;
	uint16_t tp_udp_off; /* UDP header, or 0: leave its checksum */
} frio_tx_plan_t;

/*
 * Checks the prepared headers (hdr_len bytes from the Ethernet header) and
 * plans the checksums: BADHDR for anything but an unfragmented IPv4/UDP
 * frame or an IPv6 frame (with UDP as next header when v6_udp_csum).
 */
frio_status_t frio_tx_plan(const void *hdr, size_t hdr_len, bool v6_udp_csum,
    frio_tx_plan_t *plan);
/* Completes the planned checksums of the built frame of len bytes. */
void frio_tx_finish(void *frame, size_t len, const frio_tx_plan_t *plan);

/* One's-complement sum of len bytes as they lie in memory, added to sum. */
uint64_t frio_csum_add(uint64_t sum, const void *data, size_t len);
/* Folds a sum to 16 bits, not complemented. */
uint16_t frio_csum_fold(uint64_t sum);

#endif /* FRIO_CSUM_H */
