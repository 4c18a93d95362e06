/*
 * Layout shared by the steering program (frio_steer.bpf.c) and the AF_XDP
 * backend that fills its maps.  A process that finds the program already
 * attached checks the maps against these sizes before it reuses them, so
 * any change here must also change a map name.
 */
#ifndef FRIO_STEER_H
#define FRIO_STEER_H

#include <linux/types.h>

#define FRIO_STEER_PROG_NAME    "frio_steer"
#define FRIO_STEER_XSKS_NAME    "frio_xsks_1k"
#define FRIO_STEER_FILTERS_NAME "frio_filters_2"

/*
 * Socket slots: queue q owns slots [q * FRIO_STEER_SLOTS_PER_QUEUE, +1024).
 * Only one process can bind AF_XDP sockets to a queue (the kernel keeps one
 * UMEM per queue), so whoever holds the queue owns its slots outright.
 * The XSKMAP costs the kernel 8 bytes a slot: 2 MiB per interface.
 */
#define FRIO_STEER_SLOTS_PER_QUEUE 1024
#define FRIO_STEER_MAX_QUEUES      256
#define FRIO_STEER_MAX_SLOTS \
	(FRIO_STEER_SLOTS_PER_QUEUE * FRIO_STEER_MAX_QUEUES)
/* Not preallocated: an entry costs memory only while it exists. */
#define FRIO_STEER_MAX_FILTERS 65536

/* Frames longer than a handle may lend stay with the kernel. */
#define FRIO_STEER_MAX_FRAME 1514

struct frio_steer_key {
	__u8 fk_mac[6];   /* destination MAC */
	__u16 fk_port;    /* destination UDP port, network order */
	__u8 fk_addr[16]; /* destination address; IPv4 as ::ffff:a.b.c.d */
};

struct frio_steer_val {
	__u32 fv_slot;  /* index into frio_xsks */
	__u32 fv_queue; /* the receive queue the slot's socket is bound to */
	__u32 fv_pid;   /* the process that entered it, to tell stale ones */
	__u32 fv_pad;   /* zero */
};

#endif /* FRIO_STEER_H */
