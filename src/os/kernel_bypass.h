/*
 * The kernel socket's side of bypass mode.  Linux has no socket option that
 * hands a socket's traffic to a frame-access handle, so the library keeps
 * its own: "on" ties the descriptor to the handle's statistics id and
 * interface and keeps the datagrams the handle serves out of the kernel
 * socket; "off" makes it an ordinary kernel socket again.  An application
 * that sets SO_OSTREL itself gets the kernel's ENOPROTOOPT.
 */
#ifndef OST_OS_KERNEL_BYPASS_H
#define OST_OS_KERNEL_BYPASS_H

#include <stdint.h>

#define SO_OSTREL 0x101a /* level SOL_SOCKET; Linux does not use it */

typedef struct so_ost_opt_s {
	bool ost_onoff;
	uint32_t ost_stat_id; /* frio_handle2statid() of the handle */
	int ost_if_id;        /* interface index of the handle */
} so_ost_opt_t;

/*
 * 0, or -1 with the errno a kernel would give: EBADF or ENOTSOCK, and
 * ENOPROTOOPT for a socket that is not UDP, EINVAL for one without a port.
 * Safe from any thread; takes only its own leaf lock.
 */
int ost_kernel_bypass_set(int sd, const so_ost_opt_t *opt);
/* The socket is closed: forget the tie without touching the descriptor. */
void ost_kernel_bypass_forget(int sd);
bool ost_kernel_bypass_get(int sd, so_ost_opt_t *opt);

#endif /* OST_OS_KERNEL_BYPASS_H */
