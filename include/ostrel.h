/*
 * ostrel: kernel-bypass UDP sockets through LD_PRELOAD.
 *
 * What an application may include: the socket option that reads a bypass
 * socket's counters, and the record it returns.
 *
 *	so_ost_stats_t st;
 *	socklen_t len = sizeof (st);
 *	if (getsockopt(fd, SOL_SOCKET, SO_OSTREL_STATS, &st, &len) == 0) ...
 *
 * The library answers the option itself for a socket that has a bypass
 * handle; for any other socket the request goes to the kernel, which does
 * not know the option and fails with ENOPROTOOPT.
 */
#ifndef OSTREL_H
#define OSTREL_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Level SOL_SOCKET. Linux does not use this number. */
#define SO_OSTREL_STATS 0x101b

typedef struct so_ost_stats_s {
	uint64_t osts_ipkts;      /* datagrams delivered to the application */
	uint64_t osts_ipkts_spin; /* of those, ones the receiver waited for */
	uint64_t osts_opkts;      /* frames handed to the interface */
	uint64_t osts_opkts_spin; /* of those, ones retried for want of room */
	uint32_t osts_send_spin_max; /* most retries one frame needed */
	uint32_t osts_pad;
	/* Since 1.1; an older caller's 40 bytes get the fields above. */
	uint64_t osts_kernel_ipkts; /* datagrams delivered from the kernel
				       socket (fragments, loopback, ...) */
	uint64_t osts_idrops;       /* frames dropped: malformed, not the
				       socket's, from a martian source */
	uint64_t osts_reserved;     /* zero */
} so_ost_stats_t;

#define SO_OSTREL_STATS_V1_SIZE 40

#ifdef __cplusplus
static_assert(sizeof(so_ost_stats_t) == 64, "so_ost_stats_t is 64 bytes");
#else
_Static_assert(sizeof(so_ost_stats_t) == 64, "so_ost_stats_t is 64 bytes");
#endif

#ifdef __cplusplus
}
#endif

#endif /* OSTREL_H */
