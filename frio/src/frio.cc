/*
 * libfrio: the part every backend shares.  Entry points check their
 * arguments, pick and call the backend, and complete the checksums of
 * transmitted frames; the backends only move bytes.
 */
#include <errno.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "frio_csum.h"
#include "frio_impl.h"

#define EXPORT extern "C" __attribute__((visibility("default")))

/* -1 until the first frio_debug call has read FRIO_DEBUG, then 0 or 1;
 * atomic (racing first calls store the same value). */
static int frio_debug_on = -1;
/* Handles opened so far, for the statistics id; atomic. */
static uint32_t frio_open_count;
/* Why the calling thread's last open or filter set-up failed: a text that
 * stands for the status's own, more precise.  Thread-local. */
static __thread frio_status_t frio_cause_status;
static __thread const char *frio_cause;
/*
 * Protects frio_handles, each handle's fh_next and fh_filters, and the
 * backends' fb_setup_rx calls.  Taken by frio_open, frio_close and
 * frio_setup_rx, never on a per-frame path.  Backend locks nest under it.
 */
static pthread_mutex_t frio_reg_lock = PTHREAD_MUTEX_INITIALIZER;
/* Every open handle, for the rule that one filter has one handle;
 * protected by frio_reg_lock. */
static struct frio_handle *frio_handles;

void
frio_debug(const char *fmt, ...)
{
	int on = __atomic_load_n(&frio_debug_on, __ATOMIC_RELAXED);
	int saved = errno;
	va_list ap;

	if (on < 0) {
		const char *v = getenv("FRIO_DEBUG");

		on = v != NULL && *v != '\0';
		__atomic_store_n(&frio_debug_on, on, __ATOMIC_RELAXED);
	}
	if (on) {
		char line[256];

		/* One write per line, so lines of threads do not mingle. */
		va_start(ap, fmt);
		(void)vsnprintf(line, sizeof(line), fmt, ap);
		va_end(ap);
		(void)fprintf(stderr, "frio: %s\n", line);
	}
	errno = saved;
}

frio_status_t
frio_fail(frio_status_t status, const char *why)
{
	frio_cause_status = status;
	frio_cause = why;
	frio_debug("%s", why);
	return status;
}

static void
frio_cause_clear(void)
{
	frio_cause = NULL;
}

frio_status_t
frio_filter_add(frio_filter_set_t *set, const frio_filter_args_t *filter)
{
	for (int i = 0; i < set->fs_count; i++) {
		if (memcmp(&set->fs_filter[i], filter, sizeof(*filter)) == 0)
			return FRIO_STATUS_OK;
	}
	if (set->fs_count == FRIO_MAX_FILTERS)
		return frio_fail(FRIO_STATUS_FAILED,
		    "too many receive filters on one handle (at most 16)");
	set->fs_filter[set->fs_count++] = *filter;
	return FRIO_STATUS_OK;
}

static bool
frio_is_zero(const void *p, size_t len)
{
	const uint8_t *b = static_cast<const uint8_t *>(p);

	for (size_t i = 0; i < len; i++) {
		if (b[i] != 0)
			return false;
	}
	return true;
}

static uint16_t
frio_be16(const uint8_t *p)
{
	return static_cast<uint16_t>(p[0] << 8 | p[1]);
}

/*
 * The rule every backend applies: a frame of at most FRIO_MAX_FRAME bytes
 * to the filter's MAC that carries UDP directly, in an IPv4 header without
 * options that is not a fragment or in an IPv6 header without extension
 * headers, whose IP and UDP lengths agree with each other and fit in the
 * frame, to the filter's address and port (and from its source address
 * and port, where those are not zero).  The AF_PACKET backend's socket
 * filter and the XDP steering program are this rule compiled; keep the
 * three alike.
 */
bool
frio_filter_match(const frio_filter_set_t *set, const void *frame, size_t len)
{
	const uint8_t *f = static_cast<const uint8_t *>(frame);
	bool v6;
	size_t src, dst, alen, ports, iplen;

	if (len > FRIO_MAX_FRAME || len < 14 + 20 + 8)
		return false;
	if (f[12] == 0x08 && f[13] == 0x00) {
		if (f[14] != 0x45 || ((f[20] & 0x3f) | f[21]) != 0 ||
		    f[23] != 17)
			return false;
		iplen = frio_be16(f + 16);
		if (iplen < 20 + 8 || iplen > len - 14 ||
		    frio_be16(f + 38) != iplen - 20)
			return false;
		v6 = false;
		src = 26, dst = 30, alen = 4, ports = 34;
	} else if (f[12] == 0x86 && f[13] == 0xdd) {
		if (len < 14 + 40 + 8 || (f[14] & 0xf0) != 0x60 || f[20] != 17)
			return false;
		iplen = frio_be16(f + 18);
		if (iplen < 8 || iplen > len - 54 || frio_be16(f + 58) != iplen)
			return false;
		v6 = true;
		src = 22, dst = 38, alen = 16, ports = 54;
	} else {
		return false;
	}
	for (int i = 0; i < set->fs_count; i++) {
		const frio_filter_args_t *fl = &set->fs_filter[i];
		const uint8_t *fdst = fl->uf_dst_ip.s6_addr + 16 - alen;
		const uint8_t *fsrc = fl->uf_src_ip.s6_addr + 16 - alen;

		if (IN6_IS_ADDR_V4MAPPED(&fl->uf_dst_ip) == v6)
			continue;
		if (memcmp(f, fl->uf_macaddr, 6) != 0 ||
		    memcmp(f + dst, fdst, alen) != 0 ||
		    memcmp(f + ports + 2, &fl->uf_dst_port, 2) != 0)
			continue;
		if (!frio_is_zero(&fl->uf_src_ip, sizeof(fl->uf_src_ip)) &&
		    memcmp(f + src, fsrc, alen) != 0)
			continue;
		if (fl->uf_src_port != 0 &&
		    memcmp(f + ports, &fl->uf_src_port, 2) != 0)
			continue;
		return true;
	}
	return false;
}

/* True when both filters name the same destination. */
static bool
frio_same_dst(const frio_filter_args_t *a, const frio_filter_args_t *b)
{
	return memcmp(a->uf_macaddr, b->uf_macaddr, 6) == 0 &&
	    IN6_ARE_ADDR_EQUAL(&a->uf_dst_ip, &b->uf_dst_ip) &&
	    a->uf_dst_port == b->uf_dst_port;
}

uint64_t
frio_netns(void)
{
	struct stat st;

	return stat("/proc/thread-self/ns/net", &st) == 0 ? st.st_ino : 0;
}

/*
 * FRIO_BACKEND names the backend; unset, the best one built: AF_XDP takes
 * frames from the kernel, AF_PACKET only taps a copy of each.
 */
static frio_status_t
frio_pick_backend(const frio_backend_ops_t **opsp)
{
	const char *name = getenv("FRIO_BACKEND");

	if (name == NULL || *name == '\0')
		name = &frio_xdp_ops != nullptr ? "xdp" : "packet";
	if (strcmp(name, "xdp") == 0) {
		if (&frio_xdp_ops == nullptr)
			return frio_fail(FRIO_STATUS_NOTSUP,
			    "AF_XDP support "
			    "was not built into libfrio (try "
			    "FRIO_BACKEND=packet)");
		*opsp = &frio_xdp_ops;
	} else if (strcmp(name, "packet") == 0) {
		*opsp = &frio_packet_ops;
	} else if (strcmp(name, "mem") == 0) {
		*opsp = &frio_mem_ops;
	} else {
		return frio_fail(FRIO_STATUS_NOTSUP,
		    "FRIO_BACKEND must be "
		    "xdp, packet or mem");
	}
	return FRIO_STATUS_OK;
}

/* The kernel's index and MAC of an Ethernet interface. */
static frio_status_t
frio_identify(const char *ifname, int *ifindexp, struct ether_addr *macp)
{
	struct ifreq ifr;
	int fd, err;

	*ifindexp = static_cast<int>(if_nametoindex(ifname));
	if (*ifindexp == 0)
		return frio_fail(FRIO_STATUS_NOTFOUND,
		    "interface not found "
		    "in this network namespace");
	fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
	if (fd < 0)
		fd = socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
	if (fd < 0)
		return frio_fail(FRIO_STATUS_FAILED,
		    "cannot open a socket "
		    "to read the interface's MAC address");
	memset(&ifr, 0, sizeof(ifr));
	(void)strncpy(ifr.ifr_name, ifname, sizeof(ifr.ifr_name) - 1);
	err = ioctl(fd, SIOCGIFHWADDR, &ifr);
	(void)close(fd);
	if (err != 0)
		return frio_fail(FRIO_STATUS_NOTFOUND,
		    "interface not found "
		    "(cannot read its MAC address)");
	if (ifr.ifr_hwaddr.sa_family != ARPHRD_ETHER)
		return frio_fail(FRIO_STATUS_NOTSUP,
		    "not an Ethernet "
		    "interface; frame access needs one");
	memcpy(macp, ifr.ifr_hwaddr.sa_data, sizeof(*macp));
	return FRIO_STATUS_OK;
}

EXPORT frio_status_t
frio_open(const char *ifname, frio_open_args_t *args, frio_handle_t *hdlp)
{
	const frio_backend_ops_t *ops = NULL;
	struct frio_handle *h = NULL;
	struct ether_addr mac;
	frio_status_t st;
	uint32_t n;
	int ifindex;

	(void)args;
	frio_cause_clear();
	if (hdlp == NULL || ifname == NULL || *ifname == '\0' ||
	    strnlen(ifname, IF_NAMESIZE) >= IF_NAMESIZE)
		return FRIO_STATUS_BADARG;
	*hdlp = NULL;
	if ((st = frio_pick_backend(&ops)) != FRIO_STATUS_OK)
		return st;
	st = ops->fb_identify != NULL ?
	    ops->fb_identify(ifname, &ifindex, &mac) :
	    frio_identify(ifname, &ifindex, &mac);
	if (st != FRIO_STATUS_OK)
		return st;
	if ((st = ops->fb_open(ifname, ifindex, &h)) != FRIO_STATUS_OK) {
		frio_debug("%s: %s backend: open failed (%d)", ifname,
		    ops->fb_name, st);
		return st;
	}
	h->fh_ops = ops;
	(void)snprintf(h->fh_ifname, sizeof(h->fh_ifname), "%s", ifname);
	h->fh_ifindex = ifindex;
	h->fh_netns = frio_netns();
	h->fh_mac = mac;
	/* Unique among the handles of this process until the low half wraps
	 * (65535 opens on one interface); never 0. */
	do {
		n = __atomic_add_fetch(&frio_open_count, 1, __ATOMIC_RELAXED);
	} while ((n & 0xffff) == 0);
	h->fh_statid = static_cast<uint32_t>(ifindex) << 16 | (n & 0xffff);
	h->fh_filters.fs_count = 0;
	(void)pthread_mutex_lock(&frio_reg_lock);
	h->fh_next = frio_handles;
	frio_handles = h;
	(void)pthread_mutex_unlock(&frio_reg_lock);
	frio_debug("%s: opened with the %s backend, index %d, statid %#x",
	    ifname, ops->fb_name, ifindex, h->fh_statid);
	*hdlp = h;
	return FRIO_STATUS_OK;
}

EXPORT void
frio_close(frio_handle_t hdl)
{
	if (hdl == NULL)
		return;
	(void)pthread_mutex_lock(&frio_reg_lock);
	for (struct frio_handle **pp = &frio_handles; *pp != NULL;
	     pp = &(*pp)->fh_next) {
		if (*pp == hdl) {
			*pp = hdl->fh_next;
			break;
		}
	}
	(void)pthread_mutex_unlock(&frio_reg_lock);
	hdl->fh_ops->fb_close(hdl);
}

EXPORT frio_status_t
frio_get_mac_addr(frio_handle_t hdl, struct ether_addr *mac)
{
	if (hdl == NULL || mac == NULL)
		return FRIO_STATUS_BADARG;
	*mac = hdl->fh_mac;
	return FRIO_STATUS_OK;
}

EXPORT frio_status_t
frio_setup_rx(frio_handle_t hdl, frio_filter_args_t *filter)
{
	static const struct in6_addr mapped_any = {
		{ { 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff, 0, 0, 0, 0 } }
	};

	frio_cause_clear();
	if (hdl == NULL || filter == NULL)
		return FRIO_STATUS_BADARG;
	if (filter->uf_type != FRIO_FILTER_MAC_IP_PORT)
		return frio_fail(FRIO_STATUS_BADARG, "unknown filter type");
	/* A wildcard address would name no frame at all. */
	if (filter->uf_dst_port == 0 ||
	    IN6_IS_ADDR_UNSPECIFIED(&filter->uf_dst_ip) ||
	    IN6_ARE_ADDR_EQUAL(&filter->uf_dst_ip, &mapped_any))
		return frio_fail(FRIO_STATUS_BADARG,
		    "a filter needs a "
		    "destination address and port");

	frio_filter_set_t next;
	frio_status_t st = FRIO_STATUS_OK;

	(void)pthread_mutex_lock(&frio_reg_lock);
	next = hdl->fh_filters;
	for (int i = 0; i < next.fs_count; i++) {
		if (memcmp(&next.fs_filter[i], filter, sizeof(*filter)) == 0)
			goto out;
	}
	/* Two sockets on one address and port: the first keeps its
	 * datagrams and the second stays with the kernel. */
	for (struct frio_handle *o = frio_handles; o != NULL; o = o->fh_next) {
		if (o == hdl || o->fh_ifindex != hdl->fh_ifindex ||
		    o->fh_netns != hdl->fh_netns)
			continue;
		for (int i = 0; i < o->fh_filters.fs_count; i++) {
			if (frio_same_dst(&o->fh_filters.fs_filter[i],
				filter)) {
				st = frio_fail(FRIO_STATUS_FAILED,
				    "another "
				    "handle already receives for this address "
				    "and port");
				goto out;
			}
		}
	}
	if ((st = frio_filter_add(&next, filter)) != FRIO_STATUS_OK)
		goto out;
	st = hdl->fh_ops->fb_setup_rx(hdl, filter, &next);
	if (st == FRIO_STATUS_OK)
		hdl->fh_filters = next;
out:
	(void)pthread_mutex_unlock(&frio_reg_lock);
	return st;
}

EXPORT uint32_t
frio_handle2statid(frio_handle_t hdl)
{
	return hdl != NULL ? hdl->fh_statid : 0;
}

EXPORT frio_status_t
frio_tx_vec(frio_handle_t hdl, frio_tx_args_t *args, const void *hdr,
    size_t hdr_len, const struct iovec *iov, int iovcnt)
{
	frio_tx_plan_t plan;
	frio_status_t st;
	size_t total = hdr_len;
	uint8_t *buf, *p;
	void *b;

	if (hdl == NULL || hdr == NULL || iovcnt < 0 ||
	    (iovcnt > 0 && iov == NULL))
		return FRIO_STATUS_BADARG;
	if (total > FRIO_MAX_FRAME)
		return FRIO_STATUS_TOOBIG;
	for (int i = 0; i < iovcnt; i++) {
		if (iov[i].iov_len > FRIO_MAX_FRAME - total)
			return FRIO_STATUS_TOOBIG;
		if (iov[i].iov_base == NULL && iov[i].iov_len != 0)
			return FRIO_STATUS_BADARG;
		total += iov[i].iov_len;
	}
	st = frio_tx_plan(hdr, hdr_len,
	    args != NULL && args->ut_pkt_options == FRIO_TX_OPT_IPV6_CKSUM,
	    &plan);
	if (st != FRIO_STATUS_OK)
		return st;
	/* From here on nothing may fail: a taken buffer must be committed. */
	if ((st = hdl->fh_ops->fb_tx_alloc(hdl, &b)) != FRIO_STATUS_OK)
		return st;
	buf = static_cast<uint8_t *>(b);
	memcpy(buf, hdr, hdr_len);
	p = buf + hdr_len;
	for (int i = 0; i < iovcnt; i++) {
		if (iov[i].iov_len != 0)
			memcpy(p, iov[i].iov_base, iov[i].iov_len);
		p += iov[i].iov_len;
	}
	frio_tx_finish(buf, total, &plan);
	return hdl->fh_ops->fb_tx_commit(hdl, buf, total);
}

EXPORT frio_status_t
frio_rx_get(frio_handle_t hdl, frio_rx_args_t *args, void **framep)
{
	frio_status_t st;
	uint32_t len;

	if (hdl == NULL || framep == NULL)
		return FRIO_STATUS_BADARG;
	st = hdl->fh_ops->fb_rx_get(hdl, framep, &len);
	if (st == FRIO_STATUS_OK && args != NULL)
		args->ur_pkt_len = len;
	return st;
}

EXPORT frio_status_t
frio_rx_put(frio_handle_t hdl, void *frame)
{
	if (hdl == NULL || frame == NULL)
		return FRIO_STATUS_BADARG;
	return hdl->fh_ops->fb_rx_put(hdl, frame);
}

static const char *
frio_status_text(frio_status_t status)
{
	switch (status) {
	case FRIO_STATUS_OK:
		return "success";
	case FRIO_STATUS_BADARG:
		return "invalid argument to the frame-access library";
	case FRIO_STATUS_BADHDR:
		return "frame headers are not Ethernet with IPv4 or IPv6 "
		       "and UDP";
	case FRIO_STATUS_TOOBIG:
		return "frame larger than 1514 bytes; send less per datagram";
	case FRIO_STATUS_NOTFOUND:
		return "interface not found";
	case FRIO_STATUS_NOTSUP:
		return "interface or kernel does not support this backend "
		       "(try FRIO_BACKEND=packet)";
	case FRIO_STATUS_NOMEM:
		return "no transmit room (or no received frame) right now; "
		       "retry";
	case FRIO_STATUS_DENIED:
		return "permission denied: run as root or grant "
		       "CAP_NET_ADMIN, CAP_NET_RAW and CAP_BPF";
	case FRIO_STATUS_DLERR:
		return "frame-access library cannot be loaded";
	case FRIO_STATUS_FAILED:
		return "backend failure (see FRIO_DEBUG=1 output)";
	}
	return NULL;
}

EXPORT const char *
frio_status2str(frio_status_t status, char *buf, size_t len)
{
	const char *text = frio_status_text(status);

	if (buf == NULL || len == 0)
		return text != NULL ? text : "unknown frame-access status";
	if (text == NULL)
		(void)snprintf(buf, len, "unknown frame-access status %d",
		    static_cast<int>(status));
	else if (frio_cause != NULL && frio_cause_status == status)
		(void)snprintf(buf, len, "%s", frio_cause);
	else
		(void)snprintf(buf, len, "%s", text);
	return buf;
}

EXPORT int
frio_get_fd(frio_handle_t hdl)
{
	return hdl != NULL ? hdl->fh_ops->fb_get_fd(hdl) : -1;
}

EXPORT int
frio_rx_copies(frio_handle_t hdl)
{
	return hdl != NULL ? hdl->fh_ops->fb_rx_copies(hdl) : -1;
}
