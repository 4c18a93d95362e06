/*
 * The kernel socket's side of bypass mode.  Linux has no socket option that
 * hands a socket's traffic to a frame-access handle, so the library keeps
 * its own: "on" ties the descriptor to the handle's statistics id and
 * interface and keeps the datagrams the handle serves out of the kernel
 * socket, which stays a live second source for everything else the kernel
 * delivers to it (fragments, loopback, other interfaces and addresses,
 * IPv6 extension headers); "off" makes it an ordinary kernel socket again.
 * An application that sets SO_OSTREL itself gets the kernel's ENOPROTOOPT.
 */
#ifndef OST_OS_KERNEL_BYPASS_H
#define OST_OS_KERNEL_BYPASS_H

#include <netinet/in.h>
#include <stdint.h>

#define SO_OSTREL 0x101a /* level SOL_SOCKET; Linux does not use it */

#define OST_KB_MAX_ADDRS 21 /* the socket's own address and 20 groups */

typedef struct so_ost_opt_s {
	bool ost_onoff;
	uint32_t ost_stat_id; /* frio_handle2statid() of the handle */
	int ost_if_id;        /* interface index of the handle */
	/*
	 * A handle whose frames the kernel also receives (AF_PACKET): the
	 * kernel socket drops exactly the datagrams the handle serves, whole
	 * datagrams of at most ost_mtu bytes arriving on ost_if_id for one of
	 * ost_addrs (IPv4-mapped for IPv4) and ost_port.  Otherwise the kernel
	 * socket keeps everything the kernel gives it.
	 */
	bool ost_copies;
	bool ost_v6;
	in_port_t ost_port; /* network order */
	uint32_t ost_mtu;
	uint32_t ost_naddrs;
	struct in6_addr ost_addrs[OST_KB_MAX_ADDRS];
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
