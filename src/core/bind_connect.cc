/*
 * bind and connect: after the kernel has acted, give the socket a frame
 * handle on the right interface, a receive filter for its own address and
 * port, and switch its kernel socket into bypass mode.  A socket the bypass
 * cannot serve leaves it for good; the application's call still succeeds.
 */
#include <errno.h>
#include <string.h>

#include "core/addr.h"
#include "ost_impl.h"
#include "platform/frio_loader.h"

static const char *
ost_status_text(frio_status_t st, char *buf, size_t len)
{
	return ost_frio_status2str(st, buf, len);
}

/* SO_OSTREL on, for the record's handle and interface. */
static boolean_t
ost_arm_kernel(uost_t *up)
{
	so_ost_opt_t opt;

	opt.ost_onoff = B_TRUE;
	opt.ost_stat_id = ost_frio->handle2statid(up->uost_frio_hdl);
	opt.ost_if_id = (int)up->uost_if_index;
	return ost_kernel_bypass_set(up->uost_sd, &opt) == 0 ? B_TRUE : B_FALSE;
}

boolean_t
ost_set_filter(uost_t *up, const struct in6_addr *addr, in_port_t port,
    const struct ether_addr *mac)
{
	frio_filter_args_t args;
	frio_status_t st;
	char buf[128];

	memset(&args, 0, sizeof (args));
	args.uf_type = FRIO_FILTER_MAC_IP_PORT;
	memcpy(args.uf_macaddr, mac, sizeof (args.uf_macaddr));
	args.uf_dst_ip = *addr;
	args.uf_dst_port = port;
	st = ost_frio->setup_rx(up->uost_frio_hdl, &args);
	if (st == FRIO_STATUS_OK) {
		up->uost_filter_set = B_TRUE;
		return B_TRUE;
	}
	ost_debug("%s: frio_setup_rx: %s\n", "ost_set_filter",
	    ost_status_text(st, buf, sizeof (buf)));
	ost_err_exit(ost_status_text(st, buf, sizeof (buf)));
	return B_FALSE;
}

boolean_t
ost_frio_bind(uost_t *up)
{
	static const char fn[] = "ost_frio_bind";
	frio_status_t st;
	char buf[128];

	st = ost_frio_open(up->uost_if_name, NULL, &up->uost_frio_hdl);
	if (st != FRIO_STATUS_OK) {
		ost_debug("%s: frio_open (%s) %s\n", fn, up->uost_if_name,
		    ost_status_text(st, buf, sizeof (buf)));
		ost_err_exit(ost_status_text(st, buf, sizeof (buf)));
		return B_FALSE;
	}
	up->uost_frio_set = B_TRUE;
	(void) ost_frio->get_mac_addr(up->uost_frio_hdl,
	    (struct ether_addr *)up->uost_eth->ether_shost);
	/* On failure the handle stays; the record's teardown closes it. */
	if (!ost_set_filter(up, &up->uost_laddr_v6, up->uost_lport,
	    (const struct ether_addr *)up->uost_eth->ether_shost))
		return B_FALSE;
	if (!ost_arm_kernel(up)) {
		ost_debug("%s: cannot set SO_OSTREL: %d\n", fn, up->uost_sd);
		ost_err_exit(strerror(errno));
		return B_FALSE;
	}
	up->uost_kernel_set = B_TRUE;
	return B_TRUE;
}

/*
 * The wildcard bind of a socket that joined a group before binding: the
 * group filter goes on the handle the join opened.  Called and returns with
 * uost_lock held.
 */
static boolean_t
ost_bind_pending_group(uost_t *up)
{
	struct ether_addr group_mac;

	if (!up->uost_frio_set)
		return B_FALSE;
	if (up->uost_is_v6)
		ost_maddr_ip2e_v6(&up->uost_ip_maddr_v6, &group_mac);
	else
		ost_maddr_ip2e_v4(ost_unmap_v4(&up->uost_ip_maddr_v6),
		    &group_mac);
	return ost_set_filter(up, &up->uost_ip_maddr_v6, up->uost_lport,
	    &group_mac);
}

/* The port, in the record and in the template. */
static void
ost_bind_port(uost_t *up, in_port_t port)
{
	up->uost_lport = port;
	up->uost_udph->uh_sport = port;
	up->uost_bound = B_TRUE;
}

typedef enum { OST_BIND_GIVE_UP, OST_BIND_KEEP, OST_BIND_OPEN,
    OST_BIND_ARM } ost_bind_next_t;

/* The address-dependent steps, under uost_lock. */
static ost_bind_next_t
ost_bind_v4(uost_t *up, const struct sockaddr_in *sin, uint32_t *if_index)
{
	in_addr_t a = sin->sin_addr.s_addr;

	if (ost_is_loopback_v4(a) || ost_is_broadcast_v4(a))
		return OST_BIND_GIVE_UP;
	ost_bind_port(up, sin->sin_port);
	if (a == INADDR_ANY) {
		if (!up->uost_need_mc_filter)
			return OST_BIND_KEEP;
		if (!ost_bind_pending_group(up))
			return OST_BIND_GIVE_UP;
		return OST_BIND_ARM;
	}
	if (ost_is_multicast_v4(a))
		return OST_BIND_KEEP;
	ost_map_v4(&up->uost_laddr_v6, a);
	up->uost_iph->ip_src = sin->sin_addr;
	if (!ost_get_eaddr_v4(&sin->sin_addr, (struct ether_addr *)
	    up->uost_eth->ether_shost, if_index, up->uost_if_name))
		return OST_BIND_GIVE_UP;
	return OST_BIND_OPEN;
}

static ost_bind_next_t
ost_bind_v6(uost_t *up, const struct sockaddr_in6 *sin6, uint32_t *if_index)
{
	const struct in6_addr *a = &sin6->sin6_addr;

	if (IN6_IS_ADDR_LOOPBACK(a))
		return OST_BIND_GIVE_UP;
	*if_index = sin6->sin6_scope_id;
	ost_bind_port(up, sin6->sin6_port);
	if (IN6_IS_ADDR_UNSPECIFIED(a)) {
		if (!up->uost_need_mc_filter)
			return OST_BIND_KEEP;
		if (!ost_bind_pending_group(up))
			return OST_BIND_GIVE_UP;
		return OST_BIND_ARM;
	}
	if (IN6_IS_ADDR_MULTICAST(a))
		return OST_BIND_KEEP;
	up->uost_laddr_v6 = *a;
	up->uost_ip6h->ip6_src = *a;
	up->uost_if_name[0] = '\0';
	if (!ost_get_eaddr_v6(a, (struct ether_addr *)
	    up->uost_eth->ether_shost, if_index, up->uost_if_name))
		return OST_BIND_GIVE_UP;
	return OST_BIND_OPEN;
}

int
ost_bind(uost_t *up)
{
	struct sockaddr_storage ss;
	socklen_t len = sizeof (ss);
	ost_bind_next_t next = OST_BIND_GIVE_UP;
	uint32_t if_index = 0;
	frio_status_t st;
	char buf[128];

	(void) pthread_mutex_lock(&up->uost_lock);
	if (getsockname(up->uost_sd, (struct sockaddr *)&ss, &len) == 0) {
		if (ss.ss_family == AF_INET && !up->uost_is_v6)
			next = ost_bind_v4(up, (struct sockaddr_in *)&ss,
			    &if_index);
		else if (ss.ss_family == AF_INET6 && up->uost_is_v6)
			next = ost_bind_v6(up, (struct sockaddr_in6 *)&ss,
			    &if_index);
	}
	if (next == OST_BIND_KEEP || next == OST_BIND_GIVE_UP) {
		(void) pthread_mutex_unlock(&up->uost_lock);
		if (next == OST_BIND_KEEP)
			return 0;
		goto give_up;
	}

	if (next == OST_BIND_OPEN) {
		/* A handle opened for a multicast interface is replaced by one
		 * on the interface that owns the address. */
		if (up->uost_frio_set) {
			ost_frio->close(up->uost_frio_hdl);
			up->uost_frio_set = B_FALSE;
			up->uost_filter_set = B_FALSE;
		}
		st = ost_frio_open(up->uost_if_name, NULL, &up->uost_frio_hdl);
		if (st != FRIO_STATUS_OK) {
			(void) pthread_mutex_unlock(&up->uost_lock);
			ost_debug("%s: frio_open (%s): %s\n", "ost_bind",
			    up->uost_if_name,
			    ost_status_text(st, buf, sizeof (buf)));
			ost_err_exit(ost_status_text(st, buf, sizeof (buf)));
			goto give_up;
		}
		up->uost_frio_set = B_TRUE;
		up->uost_if_index = if_index;
		if (!ost_set_filter(up, &up->uost_laddr_v6, up->uost_lport,
		    (const struct ether_addr *)up->uost_eth->ether_shost)) {
			(void) pthread_mutex_unlock(&up->uost_lock);
			goto give_up;
		}
	}
	(void) pthread_mutex_unlock(&up->uost_lock);
	if (up->uost_kernel_set)
		return 0;
	if (ost_arm_kernel(up)) {
		up->uost_kernel_set = B_TRUE;
		return 0;
	}
	ost_debug("%s: cannot set SO_OSTREL: %d\n", "ost_bind", errno);
	ost_err_exit(strerror(errno));
give_up:
	ost_del(up, B_TRUE);
	return -1;
}

int
ost_bind_call(int fd, const struct sockaddr *addr, socklen_t len)
{
	uost_t *up;

	if (xbind(fd, addr, len) != 0) {
		int saved_errno = errno;

		ost_debug("%s: real %d not bound: %s\n", "bind", fd,
		    strerror(saved_errno));
		errno = saved_errno;
		return -1;
	}
	up = ost_find_sd(fd);
	if (up != NULL && ost_bind(up) == 0)
		ost_release(up);
	return 0;
}

boolean_t
ost_connect(uost_t *up, const struct sockaddr *addr, socklen_t len)
{
	boolean_t ok;

	/*
	 * Only an address of the socket's own family, whole, can name a
	 * peer.  Anything else (AF_UNSPEC dissolving the association, a
	 * short address) leaves the kernel to decide what the socket is.
	 */
	if (addr == NULL || len < (up->uost_is_v6 ?
	    sizeof (struct sockaddr_in6) : sizeof (struct sockaddr_in)) ||
	    addr->sa_family != (up->uost_is_v6 ? AF_INET6 : AF_INET)) {
		ost_debug("%s: %d leaves the bypass: family %d, length %u\n",
		    "ost_connect", up->uost_sd, addr != NULL &&
		    len >= sizeof (sa_family_t) ? addr->sa_family : -1,
		    (unsigned)len);
		ost_del(up, B_TRUE);
		return B_FALSE;
	}
	(void) pthread_mutex_lock(&up->uost_lock);
	ok = up->uost_is_v6 ?
	    ost_sendto_frio_set_v6(up, (const struct sockaddr_in6 *)addr,
	    B_FALSE) :
	    ost_sendto_frio_set_v4(up, (const struct sockaddr_in *)addr,
	    B_FALSE);
	if (ok) {
		up->uost_peer_set = B_TRUE;
		up->uost_connected = B_TRUE;
	}
	(void) pthread_mutex_unlock(&up->uost_lock);
	if (!ok)
		ost_del(up, B_TRUE);
	return ok;
}

int
ost_connect_call(int fd, const struct sockaddr *addr, socklen_t len)
{
	uost_t *up;

	if (xconnect(fd, addr, len) != 0)
		return -1;
	up = ost_find_sd(fd);
	if (up != NULL && ost_connect(up, addr, len))
		ost_release(up);
	return 0;
}
