/*
 * Multicast on the bypass path: one handle per socket on one interface, one
 * recorded group, a receive filter per join, and the interface that group
 * datagrams leave by.  A join or interface choice the handle cannot follow
 * returns -1, and the caller takes the socket off the bypass.
 *
 * Every change is made under uost_lock; the kernel's bypass option is set
 * after the lock is released.  Linux refuses that option on a socket
 * without a local port, so an unbound socket is armed later, by the bind
 * or the destination set-up that gives it one (core/bind_connect.cc).
 */
#include <errno.h>
#include <net/if.h>
#include <string.h>

#include "core/addr.h"
#include "ost_impl.h"
#include "platform/frio_loader.h"

/* SO_OSTREL on for a bound socket; 0, or -1 with the log line given. */
static int
ost_mcast_arm(uost_t *up, uint32_t if_index, const char *fn,
    const char *fail_fmt)
{
	so_ost_opt_t opt;

	if (up->uost_kernel_set || !up->uost_bound)
		return 0;
	opt.ost_onoff = B_TRUE;
	opt.ost_stat_id = ost_frio->handle2statid(up->uost_frio_hdl);
	opt.ost_if_id = (int)if_index;
	if (ost_kernel_bypass_set(up->uost_sd, &opt) == 0) {
		up->uost_kernel_set = B_TRUE;
		return 0;
	}
	int saved_errno = errno;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
	ost_debug(fail_fmt, fn, up->uost_sd);
#pragma GCC diagnostic pop
	ost_err_exit(strerror(saved_errno));
	return -1;
}

/* Opens the handle on uost_if_name; uost_lock held, released on failure. */
static boolean_t
ost_mcast_open(uost_t *up, uint32_t if_index, const char *fn)
{
	frio_status_t st;
	char buf[128];

	st = ost_frio_open(up->uost_if_name, NULL, &up->uost_frio_hdl);
	if (st != FRIO_STATUS_OK) {
		(void) pthread_mutex_unlock(&up->uost_lock);
		ost_debug("%s: frio_open (%s): %s\n", fn, up->uost_if_name,
		    ost_frio_status2str(st, buf, sizeof (buf)));
		ost_err_exit(ost_frio_status2str(st, buf, sizeof (buf)));
		return B_FALSE;
	}
	up->uost_frio_set = B_TRUE;
	up->uost_if_index = if_index;
	return B_TRUE;
}

/*
 * The common end of a join: the group recorded, its filter installed now
 * or at bind, the kernel option armed.  uost_lock held, and released.
 */
static int
ost_mcast_finish_join(uost_t *up, uint32_t if_index, const char *fn,
    const char *arm_fail_fmt)
{
	struct ether_addr mac;
	frio_status_t st;
	frio_filter_args_t args;
	char buf[128];

	if (up->uost_is_v6 && !IN6_IS_ADDR_V4MAPPED(&up->uost_ip_maddr_v6))
		ost_maddr_ip2e_v6(&up->uost_ip_maddr_v6, &mac);
	else
		ost_maddr_ip2e_v4(ost_unmap_v4(&up->uost_ip_maddr_v6), &mac);
	if (!up->uost_bound) {
		up->uost_need_mc_filter = B_TRUE;
		(void) pthread_mutex_unlock(&up->uost_lock);
		return 0;
	}
	memset(&args, 0, sizeof (args));
	args.uf_type = FRIO_FILTER_MAC_IP_PORT;
	memcpy(args.uf_macaddr, &mac, sizeof (args.uf_macaddr));
	args.uf_dst_ip = up->uost_ip_maddr_v6;
	args.uf_dst_port = up->uost_lport;
	st = ost_frio->setup_rx(up->uost_frio_hdl, &args);
	if (st != FRIO_STATUS_OK) {
		(void) pthread_mutex_unlock(&up->uost_lock);
		ost_debug("%s: frio_setup_rx: %s\n", fn,
		    ost_frio_status2str(st, buf, sizeof (buf)));
		ost_err_exit(ost_frio_status2str(st, buf, sizeof (buf)));
		return -1;
	}
	up->uost_filter_set = B_TRUE;
	(void) pthread_mutex_unlock(&up->uost_lock);
	return ost_mcast_arm(up, if_index, fn, arm_fail_fmt);
}

int
ost_multicast_join_v6(uost_t *up, uint32_t if_index,
    const struct in6_addr *group)
{
	static const char fn[] = "ost_multicast_join_v6";
	static const boolean_t want_ll = B_TRUE;
	struct in6_addr scratch;

	(void) pthread_mutex_lock(&up->uost_lock);
	if (up->uost_frio_set) {
		if (if_index != up->uost_if_index) {
			(void) pthread_mutex_unlock(&up->uost_lock);
			return -1;
		}
	} else {
		if (!ost_get_if_info_v6(if_index, &want_ll, &scratch,
		    up->uost_if_name)) {
			(void) pthread_mutex_unlock(&up->uost_lock);
			ost_debug("%s: cannot get IPv6 multicast interface: "
			    "idx %d\n", fn, (int)if_index);
			return -1;
		}
		if (!ost_mcast_open(up, if_index, fn))
			return -1;
	}
	up->uost_ip_maddr_v6 = *group;
	return ost_mcast_finish_join(up, if_index, fn,
	    "%s: %d cannot set SO_OSTREL\n");
}

int
ost_multicast_join_v4(uost_t *up, uint32_t if_index,
    const struct in_addr *group)
{
	static const char fn[] = "ost_multicast_join_v4";

	(void) pthread_mutex_lock(&up->uost_lock);
	if (up->uost_frio_set) {
		if (if_index != up->uost_if_index) {
			(void) pthread_mutex_unlock(&up->uost_lock);
			return -1;
		}
	} else if (!ost_mcast_open(up, if_index, fn)) {
		return -1;
	}
	ost_map_v4(&up->uost_ip_maddr_v6, group->s_addr);
	return ost_mcast_finish_join(up, if_index, fn,
	    "%s: cannot set SO_OSTREL: %d\n");
}

/*
 * Leaving the recorded group ends the socket's bypass life (-1): its
 * handle may be in use by a receiver or a poll that holds only a
 * reference, and only the record's teardown waits for those to go.
 * Leaving anything else changes nothing.
 */
int
ost_multicast_leave(uost_t *up, uint32_t if_index,
    const struct in6_addr *group)
{
	boolean_t recorded;

	(void) pthread_mutex_lock(&up->uost_lock);
	recorded = up->uost_frio_set && if_index == up->uost_if_index &&
	    IN6_ARE_ADDR_EQUAL(group, &up->uost_ip_maddr_v6) ? B_TRUE : B_FALSE;
	(void) pthread_mutex_unlock(&up->uost_lock);
	return recorded ? -1 : 0;
}

/*
 * The interface of an IPv4 multicast choice: by index (ip_mreqn), else by
 * one of its addresses.  Writes the index, name and the address that
 * frames leave with.
 */
static boolean_t
ost_mcast_if_v4(const ost_mcast_if_t *want, uint32_t *if_index, char *name,
    struct in6_addr *addr)
{
	struct in_addr a;

	if (want->omi_index != 0) {
		if (if_indextoname(want->omi_index, name) == NULL ||
		    !ost_if_addr_v4(name, &a))
			return B_FALSE;
		*if_index = want->omi_index;
		ost_map_v4(addr, a.s_addr);
		return B_TRUE;
	}
	struct ether_addr scratch;

	if (!ost_get_eaddr_v4(&want->omi_addr, &scratch, if_index, name))
		return B_FALSE;
	ost_map_v4(addr, want->omi_addr.s_addr);
	return B_TRUE;
}

int
ost_process_mcast_if(uost_t *up, int optname, const void *optval)
{
	static const char fn[] = "ost_process_mcast_if";
	char name[OST_IFNAME_SIZE];
	struct in6_addr addr;
	uint32_t if_index;
	boolean_t found;

	OST_VERIFY(optname == IP_MULTICAST_IF || optname == IPV6_MULTICAST_IF);
	(void) pthread_mutex_lock(&up->uost_lock);
	if (optname == IP_MULTICAST_IF) {
		found = ost_mcast_if_v4((const ost_mcast_if_t *)optval,
		    &if_index, name, &addr);
	} else {
		if_index = *(const uint32_t *)optval;
		found = ost_get_if_info_v6(if_index, NULL, &addr, name);
	}
	if (!found) {
		(void) pthread_mutex_unlock(&up->uost_lock);
		return -1;
	}
	if (up->uost_frio_set && up->uost_if_index == if_index)
		goto opened;
	if (up->uost_frio_set) {
		if (up->uost_filter_set || up->uost_bound) {
			uint32_t was = up->uost_if_index;

			(void) pthread_mutex_unlock(&up->uost_lock);
			ost_debug("%s: receive filter set on different "
			    "interface (%d vs %d)\n", fn, (int)was,
			    (int)if_index);
			return -1;
		}
		ost_frio->close(up->uost_frio_hdl);
		up->uost_frio_set = B_FALSE;
	} else {
		up->uost_laddr_v6 = addr;
		if (up->uost_is_v6)
			up->uost_ip6h->ip6_src = addr;
		else
			up->uost_iph->ip_src.s_addr = ost_unmap_v4(&addr);
	}
	memcpy(up->uost_if_name, name, sizeof (up->uost_if_name));
	if (!ost_mcast_open(up, if_index, fn))
		return -1;
opened:
	(void) ost_frio->get_mac_addr(up->uost_frio_hdl,
	    (struct ether_addr *)up->uost_eth->ether_shost);
	up->uost_frio_set = B_TRUE;
	up->uost_mc_bind = B_TRUE;
	up->uost_if_index = if_index;
	(void) pthread_mutex_unlock(&up->uost_lock);
	return ost_mcast_arm(up, if_index, fn, "%s: cannot set SO_OSTREL: %d\n");
}
