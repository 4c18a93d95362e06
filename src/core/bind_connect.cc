/*
 * bind and connect: after the kernel has acted, point the record at the
 * interface that owns the socket's address and attach it.  A socket the
 * bypass cannot serve leaves it for good; the application's call still
 * succeeds.
 */
#include <errno.h>
#include <string.h>

#include "core/addr.h"
#include "core/ost.h"

typedef enum {
	OST_BIND_GIVE_UP, /* the bypass cannot serve this socket */
	OST_BIND_KEEP,    /* nothing to attach yet */
	OST_BIND_ATTACH   /* attach on uost_if_name */
} ost_bind_next_t;

/*
 * A wildcard bind attaches only a socket that joined groups before it
 * bound: their filters waited for the port.
 */
static ost_bind_next_t
ost_bind_wildcard(const uost_t *up)
{
	return up->uost_ngroups != 0 ? OST_BIND_ATTACH : OST_BIND_KEEP;
}

/* The address-dependent steps, under uost_lock. */
static ost_bind_next_t
ost_bind_v4(uost_t *up, const struct sockaddr_in *sin, uint32_t *if_index)
{
	in_addr_t a = sin->sin_addr.s_addr;
	struct ether_addr mac;
	struct in6_addr mapped;

	if (ost_is_loopback_v4(a) || ost_is_broadcast_v4(a))
		return OST_BIND_GIVE_UP;
	ost_tpl_set_sport(up, sin->sin_port);
	if (a == INADDR_ANY)
		return ost_bind_wildcard(up);
	if (ost_is_multicast_v4(a))
		return OST_BIND_KEEP;
	ost_map_v4(&mapped, a);
	ost_tpl_set_saddr(up, &mapped);
	if (!ost_get_eaddr_v4(&sin->sin_addr, &mac, if_index, up->uost_if_name))
		return OST_BIND_GIVE_UP;
	return OST_BIND_ATTACH;
}

static ost_bind_next_t
ost_bind_v6(uost_t *up, const struct sockaddr_in6 *sin6, uint32_t *if_index)
{
	const struct in6_addr *a = &sin6->sin6_addr;
	struct ether_addr mac;

	if (IN6_IS_ADDR_LOOPBACK(a))
		return OST_BIND_GIVE_UP;
	ost_tpl_set_sport(up, sin6->sin6_port);
	if (IN6_IS_ADDR_UNSPECIFIED(a))
		return ost_bind_wildcard(up);
	if (IN6_IS_ADDR_MULTICAST(a))
		return OST_BIND_KEEP;
	ost_tpl_set_saddr(up, a);
	*if_index = sin6->sin6_scope_id; /* which link, when it is scoped */
	up->uost_if_name[0] = '\0';
	if (!ost_get_eaddr_v6(a, &mac, if_index, up->uost_if_name))
		return OST_BIND_GIVE_UP;
	return OST_BIND_ATTACH;
}

/* Under uost_lock: what the kernel bound the socket to decides. */
static bool
ost_bind_locked(uost_t *up)
{
	struct sockaddr_storage ss;
	socklen_t len = sizeof(ss);
	ost_bind_next_t next = OST_BIND_GIVE_UP;
	uint32_t if_index = up->uost_if_index;

	if (getsockname(up->uost_sd, (struct sockaddr *)&ss, &len) == 0) {
		if (ss.ss_family == AF_INET && !up->uost_is_v6)
			next = ost_bind_v4(up, (struct sockaddr_in *)&ss,
			    &if_index);
		else if (ss.ss_family == AF_INET6 && up->uost_is_v6)
			next = ost_bind_v6(up, (struct sockaddr_in6 *)&ss,
			    &if_index);
	}
	if (next != OST_BIND_ATTACH)
		return next == OST_BIND_KEEP;
	/* A handle opened for a group interface gives way to one on the
	 * interface that owns the address. */
	if (up->uost_frio_set && if_index != up->uost_if_index) {
		if (up->uost_ngroups != 0)
			return false;
		ost_detach_handle_locked(up);
	}
	up->uost_if_index = if_index;
	return ost_attach_locked(up);
}

/* 0 with the socket on the bypass or waiting for it; -1: it left. */
int
ost_bind(uost_t *up)
{
	bool ok;

	(void)pthread_mutex_lock(&up->uost_lock);
	ok = ost_bind_locked(up);
	(void)pthread_mutex_unlock(&up->uost_lock);
	if (ok)
		return 0;
	ost_del(up, true);
	return -1;
}

int
ost_bind_call(int fd, const struct sockaddr *addr, socklen_t len)
{
	uost_t *up;

	if (real_bind(fd, addr, len) != 0) {
		ost_debug("real %d not bound: %d\n", fd, errno);
		return -1;
	}
	up = ost_find_sd(fd);
	if (up != NULL && ost_bind(up) == 0)
		ost_release(up);
	return 0;
}

bool
ost_connect(uost_t *up, const struct sockaddr *addr, socklen_t len)
{
	ost_dst_t r;

	/*
	 * Only an address of the socket's own family, whole, can name a
	 * peer.  Anything else (AF_UNSPEC dissolving the association, a
	 * short address) leaves the kernel to decide what the socket is.
	 */
	if (addr == NULL ||
	    len < (up->uost_is_v6 ? sizeof(struct sockaddr_in6) :
				    sizeof(struct sockaddr_in)) ||
	    addr->sa_family != (up->uost_is_v6 ? AF_INET6 : AF_INET)) {
		ost_debug("%d leaves the bypass: family %d, length %u\n",
		    up->uost_sd,
		    addr != NULL && len >= sizeof(sa_family_t) ?
			addr->sa_family :
			-1,
		    (unsigned)len);
		ost_del(up, true);
		return false;
	}
	/*
	 * A peer that cannot take the bypass yet (its next hop unresolved,
	 * say) stays the peer: its datagrams go through the kernel until the
	 * tables change.
	 */
	(void)pthread_mutex_lock(&up->uost_lock);
	r = ost_set_destination(up, addr, false);
	if (r != OST_DST_NEVER) {
		up->uost_connected = true;
		/* Its kernel socket now reports the peer's ICMP errors. */
		ost_kcount_drop(up);
	}
	(void)pthread_mutex_unlock(&up->uost_lock);
	if (r == OST_DST_NEVER) {
		ost_del(up, true);
		return false;
	}
	return true;
}

int
ost_connect_call(int fd, const struct sockaddr *addr, socklen_t len)
{
	uost_t *up;

	if (real_connect(fd, addr, len) != 0)
		return -1;
	up = ost_find_sd(fd);
	if (up != NULL && ost_connect(up, addr, len))
		ost_release(up);
	return 0;
}
