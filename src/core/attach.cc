/*
 * Attach and detach: the one place that puts a socket on the bypass and the
 * one place that takes it off.
 *
 * The record says what the socket needs: the interface (uost_if_name,
 * uost_if_index), its own address and port, the groups it joined.  Attach
 * makes the handle match, whatever order the application's calls came in:
 * it opens the handle, installs each filter not yet installed, and switches
 * the kernel socket once there is a filter and a port (Linux refuses the
 * switch on a socket without one).  The kernel socket stays a live second
 * source: it keeps whatever the handle does not serve.  It is called again after every change
 * that may need more (bind, a join, a destination), and does only what is
 * missing.  Filters are never removed from a handle: a socket whose needs
 * shrink leaves the bypass instead.
 */
#include <errno.h>
#include <string.h>

#include "core/addr.h"
#include "core/ost.h"
#include "os/frio_loader.h"
#include "os/kernel_count.h"

static bool
ost_open_handle_locked(uost_t *up)
{
	struct ether_addr mac;
	frio_status_t st;
	char buf[128];

	st = ost_frio_open(up->uost_if_name, NULL, &up->uost_frio_hdl);
	if (st != FRIO_STATUS_OK) {
		ost_debug("frio_open (%s): %s\n", up->uost_if_name,
		    ost_frio_status2str(st, buf, sizeof(buf)));
		ost_err_exit(ost_frio_status2str(st, buf, sizeof(buf)));
		return false;
	}
	up->uost_frio_set = true;
	if (ost_frio->get_mac_addr(up->uost_frio_hdl, &mac) == FRIO_STATUS_OK)
		ost_tpl_set_src_mac(up, &mac);
	up->uost_rx_copies = ost_frio->rx_copies(up->uost_frio_hdl) != 0;
	up->uost_mtu = ost_if_mtu(up->uost_if_name);
	if (up->uost_mtu == 0 || up->uost_mtu > ETH_DATA_LEN)
		up->uost_mtu = ETH_DATA_LEN;
	return true;
}

/* A filter for datagrams to addr:port carried in frames to mac. */
static bool
ost_set_filter(uost_t *up, const struct in6_addr *addr, in_port_t port,
    const struct ether_addr *mac)
{
	frio_filter_args_t args;
	frio_status_t st;
	char buf[128];

	memset(&args, 0, sizeof(args));
	args.uf_type = FRIO_FILTER_MAC_IP_PORT;
	memcpy(args.uf_macaddr, mac, sizeof(args.uf_macaddr));
	args.uf_dst_ip = *addr;
	args.uf_dst_port = port;
	st = ost_frio->setup_rx(up->uost_frio_hdl, &args);
	if (st != FRIO_STATUS_OK) {
		ost_debug("frio_setup_rx: %s\n",
		    ost_frio_status2str(st, buf, sizeof(buf)));
		ost_err_exit(ost_frio_status2str(st, buf, sizeof(buf)));
		return false;
	}
	/* Receivers read it without the lock (ost_rx_served). */
	__atomic_store_n(&up->uost_filter_set, true, __ATOMIC_RELEASE);
	return true;
}

/*
 * Every filter the record names that the handle lacks; none before bind.
 * Groups go on a handle only when the kernel sees copies of its frames: a
 * handle that took group frames away from the kernel would take them from
 * every other member on this host, in this process or another.
 */
static bool
ost_install_filters_locked(uost_t *up)
{
	if (!up->uost_bound)
		return true;
	if (!up->uost_laddr_filtered &&
	    !IN6_IS_ADDR_UNSPECIFIED(&up->uost_laddr_v6)) {
		if (!ost_set_filter(up, &up->uost_laddr_v6, up->uost_lport,
			(const struct ether_addr *)up->uost_eth->ether_shost))
			return false;
		up->uost_laddr_filtered = true;
	}
	while (
	    up->uost_rx_copies && up->uost_groups_filtered < up->uost_ngroups) {
		const struct in6_addr *group =
		    &up->uost_groups[up->uost_groups_filtered];
		struct ether_addr mac;

		ost_maddr_ip2e(group, &mac);
		if (!ost_set_filter(up, group, up->uost_lport, &mac))
			return false;
		up->uost_groups_filtered++;
	}
	return true;
}

/* The kernel switch for the filters installed so far. */
static void
ost_kernel_opt(const uost_t *up, so_ost_opt_t *opt)
{
	memset(opt, 0, sizeof(*opt));
	opt->ost_onoff = true;
	opt->ost_stat_id = ost_frio->handle2statid(up->uost_frio_hdl);
	opt->ost_if_id = (int)up->uost_if_index;
	opt->ost_copies = up->uost_rx_copies;
	opt->ost_v6 = up->uost_is_v6;
	opt->ost_port = up->uost_lport;
	opt->ost_mtu = up->uost_mtu;
	if (up->uost_laddr_filtered)
		opt->ost_addrs[opt->ost_naddrs++] = up->uost_laddr_v6;
	for (uint32_t i = 0; i < up->uost_groups_filtered; i++)
		opt->ost_addrs[opt->ost_naddrs++] = up->uost_groups[i];
}

/* Switches the kernel socket, again when the filters changed. */
static bool
ost_switch_kernel_locked(uost_t *up)
{
	so_ost_opt_t opt;

	if (!up->uost_filter_set || !up->uost_bound)
		return true;
	ost_kernel_opt(up, &opt);
	if (up->uost_kernel_set && up->uost_kernel_naddrs == opt.ost_naddrs)
		return true;
	if (ost_kernel_bypass_set(up->uost_sd, &opt) != 0) {
		int err = errno;

		ost_debug("cannot switch %d to the bypass: %d\n", up->uost_sd,
		    err);
		ost_err_exit(strerror(err));
		return false;
	}
	up->uost_kernel_set = true;
	up->uost_kernel_naddrs = opt.ost_naddrs;
	/* The packet backend's kernel socket has its own filter. */
	if (up->uost_kcount_map == NULL && !up->uost_rx_copies &&
	    !up->uost_connected) {
		up->uost_kcount_map = ost_kernel_count_attach(up->uost_sd);
		/* What came before the filter was not counted: the first
		 * look asks. */
		__atomic_store_n(&up->uost_kcount_seen, UINT64_MAX,
		    __ATOMIC_RELAXED);
		__atomic_store_n(&up->uost_kcount, up->uost_kcount_map,
		    __ATOMIC_RELEASE);
	}
	return true;
}

bool
ost_attach_locked(uost_t *up)
{
	ost_errno_keep keep;

	if (!up->uost_frio_set && !ost_open_handle_locked(up))
		return false;
	return ost_install_filters_locked(up) && ost_switch_kernel_locked(up);
}

void
ost_detach_handle_locked(uost_t *up)
{
	OST_VERIFY(!up->uost_filter_set && !up->uost_kernel_set);
	if (up->uost_frio_set)
		ost_frio->close(up->uost_frio_hdl);
	up->uost_frio_set = false;
}

void
ost_detach_locked(uost_t *up, bool sd_open)
{
	so_ost_opt_t off;
	ost_errno_keep keep;

	memset(&off, 0, sizeof(off));

	if (up->uost_kcount_map != NULL) {
		ost_kcount_drop(up);
		ost_kernel_count_detach(up->uost_sd, up->uost_kcount_map,
		    sd_open);
		up->uost_kcount_map = NULL;
	}
	if (up->uost_kernel_set && !sd_open)
		ost_kernel_bypass_forget(up->uost_sd);
	else if (up->uost_kernel_set &&
	    ost_kernel_bypass_set(up->uost_sd, &off) != 0)
		ost_debug("cannot switch %d back to the kernel: %d\n",
		    up->uost_sd, errno);
	if (sd_open && up->uost_filter_set)
		ost_requeue_locked(up);
	up->uost_kernel_set = false;
	up->uost_kernel_naddrs = 0;
	__atomic_store_n(&up->uost_filter_set, false, __ATOMIC_RELAXED);
	up->uost_laddr_filtered = false;
	up->uost_groups_filtered = 0;
	ost_detach_handle_locked(up);
}
