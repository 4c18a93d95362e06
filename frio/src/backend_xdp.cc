/*
 * AF_XDP backend.
 *
 * Per interface, one steering program (frio/bpf/frio_steer.bpf.c) with two
 * maps: frio_filters, (MAC, address, port) -> (slot, queue), and frio_xsks,
 * the XSKMAP of slots.  Per (interface, queue), one UMEM of 4096 frames
 * shared by every handle the process opens there; per handle, one AF_XDP
 * socket with its own receive and transmit rings and one slot.  The shared
 * fill and completion rings and the free transmit frames are guarded by the
 * port lock; that is the only lock on the per-frame paths.
 *
 * UMEM frames are split for good: kRxFrames circulate between the fill ring,
 * the receive rings and the caller; the rest circulate between the free
 * stack, the transmit rings and the completion ring.  Neither side can
 * starve the other, and the fill ring is large enough never to overflow.
 *
 * Nothing is pinned.  The process that attaches the program does so
 * through a BPF link, so the kernel detaches it when that process closes
 * its last handle there or dies in any way, and the kernel gets every frame
 * again.  The program never drops either: a frame whose slot is empty (its
 * socket closed, the kernel removing the socket from the map) goes to the
 * kernel.  A process that finds a compatible program of ours attached (a
 * second process on another queue) uses its maps; it replaces an older one
 * of ours that was attached without a link, and never touches anybody
 * else's program.
 */
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <linux/ethtool.h>
#include <linux/if_link.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <linux/if_xdp.h>

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <xdp/xsk.h>

#include "frio_impl.h"
#include "frio_steer.h"

#ifndef SOL_XDP
#define SOL_XDP 283
#endif

/* The steering program's object file, linked in by xdp.cmake. */
extern "C" const unsigned char frio_steer_obj[];
extern "C" const unsigned char frio_steer_obj_end[];

namespace
{

constexpr uint32_t kFrameSize = 2048;
constexpr uint32_t kFrames = 4096;
constexpr uint32_t kTxFrames = 1024;
constexpr uint32_t kRxFrames = kFrames - kTxFrames;
constexpr uint32_t kFillSize = 4096; /* holds every receive frame */
constexpr uint32_t kCompSize = 1024; /* holds every transmit frame */
constexpr uint32_t kRxSize = 2048;
constexpr uint32_t kTxSize = 512;
constexpr uint64_t kNoFrame = ~0ULL;

/*
 * The kernel releases the sockets of a process that ended up to a second
 * later, so the first open of a process tries a busy queue again this
 * often, this far apart (a server restarted at once still gets its
 * queue).  Later opens do not wait: a live owner would not go away.
 */
constexpr int kBusyRetries = 75;
constexpr useconds_t kBusyRetryUs = 20000;

static_assert(kFillSize >= kRxFrames, "fill ring must hold all rx frames");
static_assert(kCompSize >= kTxFrames, "completion ring must hold all tx");
static_assert(kFrameSize >= FRIO_MAX_FRAME, "frame too small");

struct xdp_iface {
	xdp_iface *xi_next;
	uint64_t xi_netns;
	int xi_ifindex;
	uint32_t xi_refs; /* ports using it */
	int xi_prog_fd;
	int xi_xsks_fd;
	int xi_filters_fd;
	int xi_link_fd; /* ours: the attachment lives as long as it */
};

struct xdp_port {
	xdp_port *xp_next;
	uint64_t xp_netns;
	int xp_ifindex;
	uint32_t xp_queue;
	uint32_t xp_refs;  /* handles */
	uint32_t xp_slots; /* bit k: slot queue * 16 + k is taken */
	xdp_iface *xp_iface;
	char *xp_area;
	xsk_umem *xp_umem;
	pthread_mutex_t xp_lock; /* xp_fill, xp_comp, xp_free */
	xsk_ring_prod xp_fill;
	xsk_ring_cons xp_comp;
	uint32_t xp_nfree;
	uint64_t xp_free[kTxFrames];
	/* Receive frames lent to the caller, by frame number.  A byte each:
	 * handles of different threads write different bytes. */
	uint8_t xp_lent[kRxFrames];
};

struct xdp_filter {
	frio_steer_key xf_key;
};

struct xdp_handle {
	frio_handle xh_common; /* first: the common code's view */
	xdp_port *xh_port;
	xsk_socket *xh_xsk;
	int xh_fd;
	uint32_t xh_slot;
	bool xh_kick_always;  /* copy mode: the kernel sends only when asked */
	uint64_t xh_tx_frame; /* allocated, not yet committed */
	xsk_ring_cons xh_rx;
	xsk_ring_prod xh_tx;
	xdp_filter *xh_filters;
	uint32_t xh_nfilters;
};

/* Protects xdp_ifaces, xdp_ports, their lists and reference counts, slot
 * bits, handles' filter lists and the BPF maps.  Taken before a port lock. */
pthread_mutex_t xdp_lock = PTHREAD_MUTEX_INITIALIZER;
xdp_iface *xdp_ifaces; /* protected by xdp_lock */
xdp_port *xdp_ports;   /* protected by xdp_lock */

bool
debug_on()
{
	const char *d = getenv("FRIO_DEBUG");

	return d != nullptr && *d != '\0';
}

/* libbpf prints its warnings to stderr of whatever process we live in. */
int
libbpf_quiet(enum libbpf_print_level level, const char *fmt, va_list ap)
{
	if (level == LIBBPF_DEBUG || !debug_on())
		return 0;
	char line[256];
	int n = vsnprintf(line, sizeof(line), fmt, ap);
	size_t len = strlen(line);

	if (len != 0 && line[len - 1] == '\n')
		line[len - 1] = '\0';
	frio_debug("libbpf: %s", line);
	return n;
}

frio_status_t
errno2status(int err)
{
	switch (err) {
	case EPERM:
	case EACCES:
		return FRIO_STATUS_DENIED;
	case ENODEV:
	case ENXIO:
		return FRIO_STATUS_NOTFOUND;
	case EOPNOTSUPP:
	case EINVAL:
	case EAFNOSUPPORT:
	case EPROTONOSUPPORT:
		return FRIO_STATUS_NOTSUP;
	default:
		return FRIO_STATUS_FAILED;
	}
}

int
dup_cloexec(int fd)
{
	return fcntl(fd, F_DUPFD_CLOEXEC, 3);
}

void
close_fd(int *fdp)
{
	if (*fdp >= 0)
		close(*fdp);
	*fdp = -1;
}

/*
 * Program and maps.
 */

int
map_fd_by_name(int prog_fd, const char *name, uint32_t type, uint32_t key,
               uint32_t value, uint32_t entries)
{
	uint32_t ids[8];
	bpf_prog_info pinfo;
	uint32_t len = sizeof(pinfo);

	memset(&pinfo, 0, sizeof(pinfo));
	pinfo.nr_map_ids = 8;
	pinfo.map_ids = (uint64_t)(uintptr_t)ids;
	if (bpf_obj_get_info_by_fd(prog_fd, &pinfo, &len) != 0)
		return -1;
	uint32_t n = pinfo.nr_map_ids < 8 ? pinfo.nr_map_ids : 8;
	for (uint32_t i = 0; i < n; i++) {
		int fd = bpf_map_get_fd_by_id(ids[i]);
		bpf_map_info minfo;
		uint32_t mlen = sizeof(minfo);

		if (fd < 0)
			continue;
		memset(&minfo, 0, sizeof(minfo));
		if (bpf_obj_get_info_by_fd(fd, &minfo, &mlen) == 0 &&
		    strcmp(minfo.name, name) == 0 && minfo.type == type &&
		    minfo.key_size == key && minfo.value_size == value &&
		    minfo.max_entries == entries)
			return fd;
		close(fd);
	}
	return -1;
}

/* Fills the map descriptors of our program prog_fd; false when its maps
 * are not the ones this library expects (an older build of ours). */
bool
iface_adopt_maps(xdp_iface *xi, int prog_fd)
{
	xi->xi_xsks_fd =
	    map_fd_by_name(prog_fd, FRIO_STEER_XSKS_NAME, BPF_MAP_TYPE_XSKMAP,
	                   4, 4, FRIO_STEER_MAX_SLOTS);
	xi->xi_filters_fd =
	    map_fd_by_name(prog_fd, FRIO_STEER_FILTERS_NAME, BPF_MAP_TYPE_HASH,
	                   sizeof(frio_steer_key), sizeof(frio_steer_val),
	                   FRIO_STEER_MAX_FILTERS);
	if (xi->xi_xsks_fd < 0 || xi->xi_filters_fd < 0) {
		close_fd(&xi->xi_xsks_fd);
		close_fd(&xi->xi_filters_fd);
		return false;
	}
	return true;
}

/* Loads our program from the embedded object into xi's descriptors. */
int
iface_load(xdp_iface *xi)
{
	LIBBPF_OPTS(bpf_object_open_opts, oo, .object_name = "frio_steer");
	bpf_object *obj = bpf_object__open_mem(
	    frio_steer_obj, (size_t)(frio_steer_obj_end - frio_steer_obj), &oo);
	int err;

	if (obj == nullptr)
		return errno != 0 ? errno : EINVAL;
	err = -bpf_object__load(obj);
	if (err == 0) {
		bpf_program *prog =
		    bpf_object__find_program_by_name(obj, FRIO_STEER_PROG_NAME);
		bpf_map *xsks =
		    bpf_object__find_map_by_name(obj, FRIO_STEER_XSKS_NAME);
		bpf_map *filters =
		    bpf_object__find_map_by_name(obj, FRIO_STEER_FILTERS_NAME);

		if (prog == nullptr || xsks == nullptr || filters == nullptr) {
			err = ENOENT;
		} else {
			xi->xi_prog_fd = dup_cloexec(bpf_program__fd(prog));
			xi->xi_xsks_fd = dup_cloexec(bpf_map__fd(xsks));
			xi->xi_filters_fd = dup_cloexec(bpf_map__fd(filters));
			if (xi->xi_prog_fd < 0 || xi->xi_xsks_fd < 0 ||
			    xi->xi_filters_fd < 0)
				err = EMFILE;
		}
	} else {
		frio_debug("xdp: cannot load the steering program: %s",
		           strerror(err));
	}
	bpf_object__close(obj);
	if (err != 0) {
		close_fd(&xi->xi_prog_fd);
		close_fd(&xi->xi_xsks_fd);
		close_fd(&xi->xi_filters_fd);
	}
	return err;
}

uint32_t
mode_flags(uint8_t attach_mode)
{
	switch (attach_mode) {
	case XDP_ATTACHED_DRV:
		return XDP_FLAGS_DRV_MODE;
	case XDP_ATTACHED_SKB:
		return XDP_FLAGS_SKB_MODE;
	case XDP_ATTACHED_HW:
		return XDP_FLAGS_HW_MODE;
	default:
		return 0;
	}
}

/* True when the interface's driver is veth, where generic XDP is the
 * faster of the two modes (native mode moves the peer to NAPI). */
bool
iface_is_veth(int ifindex)
{
	struct ethtool_drvinfo info;
	struct ifreq ifr;
	int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
	bool veth = false;

	if (fd < 0)
		return false;
	memset(&ifr, 0, sizeof(ifr));
	memset(&info, 0, sizeof(info));
	info.cmd = ETHTOOL_GDRVINFO;
	ifr.ifr_data = reinterpret_cast<char *>(&info);
	if (if_indextoname((unsigned)ifindex, ifr.ifr_name) != nullptr &&
	    ioctl(fd, SIOCETHTOOL, &ifr) == 0)
		veth = strcmp(info.driver, "veth") == 0;
	close(fd);
	return veth;
}

/*
 * Attaches our freshly loaded program through a BPF link.  Generic mode on
 * veth, native elsewhere with generic as the fallback; FRIO_XDP_MODE=skb or
 * native forces one.  0, or an errno: EBUSY or EEXIST when a program is
 * already there.
 */
int
iface_attach(xdp_iface *xi)
{
	const char *mode = getenv("FRIO_XDP_MODE");
	uint32_t tries[2];
	int ntries = 0;
	int err = EINVAL;

	if (mode != nullptr && strcmp(mode, "skb") == 0) {
		tries[ntries++] = XDP_FLAGS_SKB_MODE;
	} else if (mode != nullptr && strcmp(mode, "native") == 0) {
		tries[ntries++] = XDP_FLAGS_DRV_MODE;
	} else if (iface_is_veth(xi->xi_ifindex)) {
		tries[ntries++] = XDP_FLAGS_SKB_MODE;
	} else {
		tries[ntries++] = XDP_FLAGS_DRV_MODE;
		tries[ntries++] = XDP_FLAGS_SKB_MODE;
	}
	for (int i = 0; i < ntries; i++) {
		LIBBPF_OPTS(bpf_link_create_opts, lo, .flags = tries[i]);
		int fd = bpf_link_create(xi->xi_prog_fd, xi->xi_ifindex,
		                         BPF_XDP, &lo);

		if (fd >= 0) {
			xi->xi_link_fd = dup_cloexec(fd);
			close(fd);
			if (xi->xi_link_fd < 0)
				return EMFILE;
			frio_debug("xdp: steering program attached on ifindex "
			           "%d in %s mode",
			           xi->xi_ifindex,
			           tries[i] == XDP_FLAGS_SKB_MODE ? "generic"
			                                          : "native");
			return 0;
		}
		err = errno;
		frio_debug("xdp: attach in %s mode: %s",
		           tries[i] == XDP_FLAGS_SKB_MODE ? "generic" : "native",
		           strerror(err));
		if (err == EBUSY || err == EEXIST || err == EPERM)
			return err;
	}
	return err;
}

void
iface_close_fds(xdp_iface *xi)
{
	close_fd(&xi->xi_link_fd);
	close_fd(&xi->xi_prog_fd);
	close_fd(&xi->xi_xsks_fd);
	close_fd(&xi->xi_filters_fd);
}

/* Sets xi up on its interface: attach, reuse or replace.  0 or an errno. */
int
iface_setup(xdp_iface *xi)
{
	for (int round = 0; round < 3; round++) {
		LIBBPF_OPTS(bpf_xdp_query_opts, qo);
		int err = -bpf_xdp_query(xi->xi_ifindex, 0, &qo);

		if (err != 0)
			return err;
		if (qo.prog_id == 0) {
			if ((err = iface_load(xi)) != 0)
				return err;
			if ((err = iface_attach(xi)) == 0)
				return 0;
			iface_close_fds(xi);
			if (err == EBUSY || err == EEXIST)
				continue; /* somebody attached first */
			return err;
		}

		int fd = bpf_prog_get_fd_by_id(qo.prog_id);
		bpf_prog_info info;
		uint32_t len = sizeof(info);

		if (fd < 0) {
			if (errno == ENOENT)
				continue; /* detached meanwhile */
			return errno;
		}
		memset(&info, 0, sizeof(info));
		if (bpf_obj_get_info_by_fd(fd, &info, &len) != 0) {
			err = errno;
			close(fd);
			return err;
		}
		if (qo.attach_mode == XDP_ATTACHED_MULTI ||
		    strcmp(info.name, FRIO_STEER_PROG_NAME) != 0) {
			frio_debug(
			    "xdp: interface %d runs another XDP program (%s)",
			    xi->xi_ifindex, info.name);
			close(fd);
			return EEXIST;
		}
		if (iface_adopt_maps(xi, fd)) {
			xi->xi_prog_fd = fd;
			frio_debug(
			    "xdp: using the steering program on ifindex %d",
			    xi->xi_ifindex);
			return 0;
		}
		/* One of ours with other maps: an older build left it.  Only
		 * one attached without a link can be taken away. */
		LIBBPF_OPTS(bpf_xdp_attach_opts, ao, .old_prog_fd = fd);

		err = bpf_xdp_detach(xi->xi_ifindex,
		                     mode_flags(qo.attach_mode), &ao) == 0
		          ? 0
		          : errno;
		close(fd);
		if (err != 0) {
			frio_debug("xdp: cannot detach an older steering "
			           "program: %s",
			           strerror(err));
			return EEXIST;
		}
		frio_debug("xdp: detached an older steering program");
	}
	return EEXIST;
}

bool
filters_empty(int fd)
{
	frio_steer_key next;

	return bpf_map_get_next_key(fd, nullptr, &next) != 0;
}

void
iface_put(xdp_iface *xi)
{
	if (--xi->xi_refs != 0)
		return;
	/* Ours goes with the link.  One that we found attached without a
	 * link (an older build of ours) goes once no filter is left in it. */
	if (xi->xi_link_fd < 0 && filters_empty(xi->xi_filters_fd)) {
		LIBBPF_OPTS(bpf_xdp_query_opts, qo);
		LIBBPF_OPTS(bpf_xdp_attach_opts, ao,
		            .old_prog_fd = xi->xi_prog_fd);

		if (bpf_xdp_query(xi->xi_ifindex, 0, &qo) == 0 &&
		    qo.prog_id != 0 &&
		    bpf_xdp_detach(xi->xi_ifindex, mode_flags(qo.attach_mode),
		                   &ao) == 0)
			frio_debug(
			    "xdp: steering program detached from ifindex %d",
			    xi->xi_ifindex);
	}
	for (xdp_iface **pp = &xdp_ifaces; *pp != nullptr;
	     pp = &(*pp)->xi_next) {
		if (*pp == xi) {
			*pp = xi->xi_next;
			break;
		}
	}
	iface_close_fds(xi);
	free(xi);
}

int
iface_get(uint64_t netns, int ifindex, xdp_iface **xip)
{
	for (xdp_iface *xi = xdp_ifaces; xi != nullptr; xi = xi->xi_next) {
		if (xi->xi_ifindex == ifindex && xi->xi_netns == netns) {
			xi->xi_refs++;
			*xip = xi;
			return 0;
		}
	}
	xdp_iface *xi = static_cast<xdp_iface *>(calloc(1, sizeof(*xi)));

	if (xi == nullptr)
		return ENOMEM;
	xi->xi_ifindex = ifindex;
	xi->xi_netns = netns;
	xi->xi_prog_fd = xi->xi_xsks_fd = xi->xi_filters_fd = -1;
	xi->xi_link_fd = -1;
	int err = iface_setup(xi);

	if (err != 0) {
		free(xi);
		return err;
	}
	xi->xi_refs = 1;
	xi->xi_next = xdp_ifaces;
	xdp_ifaces = xi;
	*xip = xi;
	return 0;
}

/*
 * Binding proves that no other process holds this queue, so whatever our
 * maps still say about it was left by a process that died: forget it, so
 * that none of its filters steer into our new sockets.
 */
void
queue_forget(xdp_iface *xi, uint32_t queue)
{
	frio_steer_key key, next, *stale = nullptr;
	size_t nstale = 0, cap = 0;
	frio_steer_key *prev = nullptr;

	while (bpf_map_get_next_key(xi->xi_filters_fd, prev, &next) == 0) {
		frio_steer_val val;

		key = next;
		prev = &key;
		if (bpf_map_lookup_elem(xi->xi_filters_fd, &key, &val) != 0 ||
		    val.fv_queue != queue)
			continue;
		if (nstale == cap) {
			size_t ncap = cap != 0 ? cap * 2 : 16;
			void *p = realloc(stale, ncap * sizeof(*stale));

			if (p == nullptr)
				break;
			stale = static_cast<frio_steer_key *>(p);
			cap = ncap;
		}
		stale[nstale++] = key;
	}
	for (size_t i = 0; i < nstale; i++)
		bpf_map_delete_elem(xi->xi_filters_fd, &stale[i]);
	free(stale);
	for (uint32_t k = 0; k < FRIO_STEER_SLOTS_PER_QUEUE; k++) {
		uint32_t slot = queue * FRIO_STEER_SLOTS_PER_QUEUE + k;

		bpf_map_delete_elem(xi->xi_xsks_fd, &slot);
	}
	if (nstale != 0)
		frio_debug("xdp: dropped %zu stale filters of queue %u", nstale,
		           queue);
}

/*
 * UMEM.
 */

/* Port lock held.  Moves completed transmit frames to the free stack. */
void
port_reclaim(xdp_port *xp)
{
	uint32_t idx;
	uint32_t n = xsk_ring_cons__peek(&xp->xp_comp, kCompSize, &idx);

	for (uint32_t i = 0; i < n && xp->xp_nfree < kTxFrames; i++)
		xp->xp_free[xp->xp_nfree++] =
		    *xsk_ring_cons__comp_addr(&xp->xp_comp, idx + i);
	if (n != 0)
		xsk_ring_cons__release(&xp->xp_comp, n);
}

/* Port lock held. */
bool
port_fill(xdp_port *xp, uint64_t addr)
{
	uint32_t idx;

	if (xsk_ring_prod__reserve(&xp->xp_fill, 1, &idx) != 1)
		return false;
	*xsk_ring_prod__fill_addr(&xp->xp_fill, idx) = addr;
	xsk_ring_prod__submit(&xp->xp_fill, 1);
	return true;
}

void
port_destroy(xdp_port *xp)
{
	if (xp->xp_umem != nullptr)
		xsk_umem__delete(xp->xp_umem);
	if (xp->xp_area != nullptr)
		munmap(xp->xp_area, (size_t)kFrames * kFrameSize);
	pthread_mutex_destroy(&xp->xp_lock);
	free(xp);
}

int
port_create(int ifindex, uint32_t queue, xdp_port **xpp)
{
	xdp_port *xp = static_cast<xdp_port *>(calloc(1, sizeof(*xp)));
	xsk_umem_config cfg;
	uint32_t idx;
	int err;

	if (xp == nullptr)
		return ENOMEM;
	xp->xp_ifindex = ifindex;
	xp->xp_queue = queue;
	pthread_mutex_init(&xp->xp_lock, nullptr);
	void *area =
	    mmap(nullptr, (size_t)kFrames * kFrameSize, PROT_READ | PROT_WRITE,
	         MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);

	if (area == MAP_FAILED) {
		err = errno;
		port_destroy(xp);
		return err;
	}
	xp->xp_area = static_cast<char *>(area);
	memset(&cfg, 0, sizeof(cfg));
	cfg.fill_size = kFillSize;
	cfg.comp_size = kCompSize;
	cfg.frame_size = kFrameSize;
	cfg.frame_headroom = 0;
	err = -xsk_umem__create(&xp->xp_umem, area,
	                        (uint64_t)kFrames * kFrameSize, &xp->xp_fill,
	                        &xp->xp_comp, &cfg);
	if (err != 0) {
		xp->xp_umem = nullptr;
		frio_debug("xdp: cannot register UMEM: %s", strerror(err));
		port_destroy(xp);
		return err;
	}
	/* The first kRxFrames frames receive, the others transmit. */
	if (xsk_ring_prod__reserve(&xp->xp_fill, kRxFrames, &idx) !=
	    kRxFrames) {
		port_destroy(xp);
		return ENOBUFS;
	}
	for (uint32_t i = 0; i < kRxFrames; i++)
		*xsk_ring_prod__fill_addr(&xp->xp_fill, idx + i) =
		    (uint64_t)i * kFrameSize;
	xsk_ring_prod__submit(&xp->xp_fill, kRxFrames);
	for (uint32_t i = 0; i < kTxFrames; i++)
		xp->xp_free[i] = (uint64_t)(kRxFrames + i) * kFrameSize;
	xp->xp_nfree = kTxFrames;
	*xpp = xp;
	return 0;
}

uint32_t
env_queue(bool *ok)
{
	const char *s = getenv("FRIO_QUEUE");
	char *end;

	*ok = true;
	if (s == nullptr || *s == '\0')
		return 0;
	errno = 0;
	unsigned long q = strtoul(s, &end, 10);

	if (errno != 0 || *end != '\0' || q >= FRIO_STEER_MAX_QUEUES)
		*ok = false;
	return (uint32_t)q;
}

/*
 * Transmit side helpers.
 */

bool tx_ring_busy(const xdp_handle *xh);

/*
 * Wakes the kernel for a socket's rings.  Straight to the system call: a
 * preloaded library that interposes sendto and recvfrom (ours does) must
 * not sit on the path of every kick.
 */
static long
xsk_wake(int fd, long nr)
{
	return syscall(nr, fd, nullptr, 0, MSG_DONTWAIT, nullptr, nullptr);
}

/*
 * In copy mode the kernel sends only inside this sendto(), at most 32
 * descriptors a call.  EAGAIN, EBUSY and ENOBUFS mean that descriptors may
 * be left (the budget ran out, a frame was dropped, no skb could be had):
 * kick again while some are left and the last kick moved any.  Normally
 * the first kick empties the ring and is the only one.
 */
void
tx_kick(xdp_handle *xh)
{
	if (!xh->xh_kick_always && !xsk_ring_prod__needs_wakeup(&xh->xh_tx))
		return;
	int saved = errno;

	for (uint32_t i = 0; i <= kTxSize / 32; i++) {
		uint32_t before =
		    __atomic_load_n(xh->xh_tx.consumer, __ATOMIC_ACQUIRE);
		bool failed = xsk_wake(xh->xh_fd, SYS_sendto) < 0;

		if (!tx_ring_busy(xh))
			break;
		if (failed && errno != EAGAIN && errno != EBUSY &&
		    errno != ENOBUFS)
			break;
		if (__atomic_load_n(xh->xh_tx.consumer, __ATOMIC_ACQUIRE) ==
		    before)
			break; /* the kernel cannot send now */
	}
	errno = saved;
}

bool
tx_ring_busy(const xdp_handle *xh)
{
	return __atomic_load_n(xh->xh_tx.consumer, __ATOMIC_ACQUIRE) !=
	       xh->xh_tx.cached_prod;
}

void
free_frame(xdp_port *xp, uint64_t addr)
{
	pthread_mutex_lock(&xp->xp_lock);
	if (xp->xp_nfree < kTxFrames)
		xp->xp_free[xp->xp_nfree++] = addr;
	pthread_mutex_unlock(&xp->xp_lock);
}

/*
 * Closing a socket loses what its rings hold, so hand the receive ring's
 * frames back to the fill ring and, in copy mode (where the kernel takes
 * transmit descriptors only inside our own sendto), the unsent ones back to
 * the free stack.
 */
void
handle_drain(xdp_handle *xh)
{
	xdp_port *xp = xh->xh_port;
	uint32_t idx;

	if (xh->xh_tx_frame != kNoFrame) {
		free_frame(xp, xh->xh_tx_frame);
		xh->xh_tx_frame = kNoFrame;
	}
	if (tx_ring_busy(xh))
		tx_kick(xh);
	pthread_mutex_lock(&xp->xp_lock);
	uint32_t n = xsk_ring_cons__peek(&xh->xh_rx, kRxSize, &idx);

	for (uint32_t i = 0; i < n; i++) {
		uint64_t addr =
		    xsk_ring_cons__rx_desc(&xh->xh_rx, idx + i)->addr;

		port_fill(xp, addr & ~(uint64_t)(kFrameSize - 1));
	}
	xsk_ring_cons__release(&xh->xh_rx, n);
	if (xh->xh_kick_always) {
		uint32_t cons =
		    __atomic_load_n(xh->xh_tx.consumer, __ATOMIC_ACQUIRE);

		for (uint32_t i = cons; i != xh->xh_tx.cached_prod; i++)
			if (xp->xp_nfree < kTxFrames)
				xp->xp_free[xp->xp_nfree++] =
				    xsk_ring_prod__tx_desc(&xh->xh_tx, i)->addr;
	}
	port_reclaim(xp);
	pthread_mutex_unlock(&xp->xp_lock);
}

/* xdp_lock held.  Releases everything a handle holds, in reverse order of
 * xdp_open. */
void
handle_release(xdp_handle *xh)
{
	xdp_port *xp = xh->xh_port;

	if (xp != nullptr && xp->xp_iface != nullptr) {
		xdp_iface *xi = xp->xp_iface;

		for (uint32_t i = 0; i < xh->xh_nfilters; i++) {
			frio_steer_val val;

			if (bpf_map_lookup_elem(xi->xi_filters_fd,
			                        &xh->xh_filters[i].xf_key,
			                        &val) == 0 &&
			    val.fv_slot == xh->xh_slot)
				bpf_map_delete_elem(xi->xi_filters_fd,
				                    &xh->xh_filters[i].xf_key);
		}
		bpf_map_delete_elem(xi->xi_xsks_fd, &xh->xh_slot);
	}
	if (xh->xh_xsk != nullptr) {
		handle_drain(xh);
		xsk_socket__delete(xh->xh_xsk);
	}
	if (xp != nullptr) {
		xp->xp_slots &=
		    ~(1U << (xh->xh_slot % FRIO_STEER_SLOTS_PER_QUEUE));
		if (--xp->xp_refs == 0) {
			for (xdp_port **pp = &xdp_ports; *pp != nullptr;
			     pp = &(*pp)->xp_next) {
				if (*pp == xp) {
					*pp = xp->xp_next;
					break;
				}
			}
			xdp_iface *xi = xp->xp_iface;

			port_destroy(xp);
			if (xi != nullptr)
				iface_put(xi);
		}
	}
	free(xh->xh_filters);
	free(xh);
}

/*
 * The backend operations.
 */

frio_status_t
xdp_open(const char *ifname, int ifindex, frio_handle **hdlp)
{
	bool ok;
	uint32_t queue = env_queue(&ok);

	if (!ok) {
		return frio_fail(
		    FRIO_STATUS_BADARG,
		    "FRIO_QUEUE must be a receive queue number below 256");
	}
	xdp_handle *xh = static_cast<xdp_handle *>(calloc(1, sizeof(*xh)));

	if (xh == nullptr)
		return FRIO_STATUS_FAILED;
	xh->xh_fd = -1;
	xh->xh_tx_frame = kNoFrame;

	pthread_mutex_lock(&xdp_lock);
	libbpf_print_fn_t old_print = libbpf_set_print(libbpf_quiet);
	frio_status_t st = FRIO_STATUS_FAILED;
	xdp_port *xp;
	bool new_port = false;
	int err = 0;

	/* Indexes repeat across namespaces, and a thread may have entered
	 * another one. */
	uint64_t netns = frio_netns();

	for (xp = xdp_ports; xp != nullptr; xp = xp->xp_next)
		if (xp->xp_ifindex == ifindex && xp->xp_queue == queue &&
		    xp->xp_netns == netns)
			break;
	if (xp == nullptr) {
		if ((err = port_create(ifindex, queue, &xp)) != 0) {
			st = err == ENOBUFS || err == ENOMEM
			         ? frio_fail(FRIO_STATUS_FAILED,
			                     "cannot register "
			                     "UMEM: locked-memory limit (needs "
			                     "CAP_IPC_LOCK)")
			         : errno2status(err);
			goto fail;
		}
		new_port = true;
		xp->xp_netns = netns;
		xp->xp_next = xdp_ports;
		xdp_ports = xp;
	}
	xp->xp_refs++;
	xh->xh_port = xp;
	{
		uint32_t k = 0;

		while (k < FRIO_STEER_SLOTS_PER_QUEUE &&
		       (xp->xp_slots & (1U << k)))
			k++;
		if (k == FRIO_STEER_SLOTS_PER_QUEUE) {
			st = frio_fail(
			    FRIO_STATUS_FAILED,
			    "too many handles on one queue (at most 16)");
			goto fail;
		}
		xp->xp_slots |= 1U << k;
		xh->xh_slot = queue * FRIO_STEER_SLOTS_PER_QUEUE + k;
	}
	{
		xsk_socket_config cfg;

		memset(&cfg, 0, sizeof(cfg));
		cfg.rx_size = kRxSize;
		cfg.tx_size = kTxSize;
		cfg.libxdp_flags = XSK_LIBXDP_FLAGS__INHIBIT_PROG_LOAD;
		cfg.bind_flags = XDP_USE_NEED_WAKEUP;
		static bool waited;	/* under the backend's lock */

		for (int tries = 0;; tries++) {
			err = -xsk_socket__create(&xh->xh_xsk, ifname, queue,
			                          xp->xp_umem, &xh->xh_rx,
			                          &xh->xh_tx, &cfg);
			if (err != EBUSY || waited || tries == kBusyRetries)
				break;
			usleep(kBusyRetryUs);
		}
		waited = true;
	}
	if (err != 0) {
		xh->xh_xsk = nullptr;
		if (err == EBUSY) {
			st = frio_fail(
			    FRIO_STATUS_FAILED,
			    "queue busy: another process has AF_XDP "
			    "sockets on it (FRIO_QUEUE picks another)");
		} else {
			frio_debug(
			    "xdp: %s: cannot bind an AF_XDP socket to queue "
			    "%u: %s",
			    ifname, queue, strerror(err));
			st = errno2status(err);
		}
		goto fail;
	}
	xh->xh_fd = xsk_socket__fd(xh->xh_xsk);
	/* libxdp opens it without close-on-exec; a program this process
	 * starts must not keep the socket (and its traffic) alive. */
	(void)fcntl(xh->xh_fd, F_SETFD, FD_CLOEXEC);
	{
		xdp_options opts;
		socklen_t len = sizeof(opts);

		memset(&opts, 0, sizeof(opts));
		xh->xh_kick_always = getsockopt(xh->xh_fd, SOL_XDP, XDP_OPTIONS,
		                                &opts, &len) != 0 ||
		                     !(opts.flags & XDP_OPTIONS_ZEROCOPY);
	}
	if (new_port) {
		if ((err = iface_get(netns, ifindex, &xp->xp_iface)) != 0) {
			xp->xp_iface = nullptr;
			frio_debug(
			    "xdp: %s: cannot set up the steering program: %s",
			    ifname, strerror(err));
			st = err == EEXIST || err == EBUSY
			         ? frio_fail(FRIO_STATUS_FAILED,
			                     "another XDP program is attached to "
			                     "the interface; remove it or use "
			                     "FRIO_BACKEND=packet")
			         : err == EOPNOTSUPP
			               ? frio_fail(FRIO_STATUS_NOTSUP,
			                           "interface without XDP support; "
			                           "use FRIO_BACKEND=packet")
			               : errno2status(err);
			goto fail;
		}
		queue_forget(xp->xp_iface, queue);
	}
	if (bpf_map_update_elem(xp->xp_iface->xi_xsks_fd, &xh->xh_slot,
	                        &xh->xh_fd, BPF_ANY) != 0) {
		err = errno;
		frio_debug("xdp: %s: cannot enter the socket into the map: %s",
		           ifname, strerror(err));
		st = errno2status(err);
		goto fail;
	}
	frio_debug("xdp: %s: handle on queue %u, slot %u, %s mode", ifname,
	           queue, xh->xh_slot,
	           xh->xh_kick_always ? "copy" : "zero-copy");
	libbpf_set_print(old_print);
	pthread_mutex_unlock(&xdp_lock);
	*hdlp = &xh->xh_common;
	return FRIO_STATUS_OK;

fail:
	handle_release(xh);
	libbpf_set_print(old_print);
	pthread_mutex_unlock(&xdp_lock);
	return st;
}

void
xdp_close(frio_handle *hdl)
{
	xdp_handle *xh = reinterpret_cast<xdp_handle *>(hdl);

	pthread_mutex_lock(&xdp_lock);
	libbpf_print_fn_t old_print = libbpf_set_print(libbpf_quiet);

	handle_release(xh);
	libbpf_set_print(old_print);
	pthread_mutex_unlock(&xdp_lock);
}

frio_status_t
xdp_setup_rx(frio_handle *hdl, const frio_filter_args_t *f,
             const frio_filter_set_t *next)
{
	static const in6_addr any = IN6ADDR_ANY_INIT;
	xdp_handle *xh = reinterpret_cast<xdp_handle *>(hdl);
	frio_steer_key key;
	frio_steer_val val, cur;

	(void)next;
	/* The program cannot match on the source. */
	if (memcmp(&f->uf_src_ip, &any, sizeof(any)) != 0 ||
	    f->uf_src_port != 0)
		return frio_fail(FRIO_STATUS_NOTSUP,
		                 "the xdp backend cannot filter on the source "
		                 "address or port");
	memset(&key, 0, sizeof(key));
	memcpy(key.fk_mac, f->uf_macaddr, sizeof(key.fk_mac));
	key.fk_port = f->uf_dst_port;
	memcpy(key.fk_addr, &f->uf_dst_ip, sizeof(key.fk_addr));
	val.fv_slot = xh->xh_slot;
	val.fv_queue = xh->xh_port->xp_queue;

	pthread_mutex_lock(&xdp_lock);
	xdp_port *xp = xh->xh_port;
	int fd = xp->xp_iface->xi_filters_fd;
	frio_status_t st = FRIO_STATUS_OK;

	/*
	 * Entries of our own queue that are not ours were left by a process
	 * that held the queue before us: queue_forget removed those, so one
	 * here is a live handle of ours.  An entry of another queue belongs
	 * to the process that holds that queue.  Either keeps its traffic.
	 */
	if (bpf_map_lookup_elem(fd, &key, &cur) == 0) {
		if (cur.fv_slot == val.fv_slot && cur.fv_queue == val.fv_queue)
			goto out; /* already ours */
		if (cur.fv_queue != val.fv_queue ||
		    (xp->xp_slots &
		     (1U << (cur.fv_slot % FRIO_STEER_SLOTS_PER_QUEUE)))) {
			st = frio_fail(FRIO_STATUS_FAILED,
			               "another handle already receives for "
			               "this address and port");
			goto out;
		}
	}
	{
		void *p = realloc(xh->xh_filters, (xh->xh_nfilters + 1) *
		                                      sizeof(*xh->xh_filters));

		if (p == nullptr) {
			st = FRIO_STATUS_FAILED;
			goto out;
		}
		xh->xh_filters = static_cast<xdp_filter *>(p);
	}
	if (bpf_map_update_elem(fd, &key, &val, BPF_ANY) != 0) {
		int err = errno;

		frio_debug("xdp: cannot install a filter: %s", strerror(err));
		st = err == E2BIG || err == ENOMEM
		         ? frio_fail(FRIO_STATUS_FAILED,
		                     "the interface's filter table is full")
		         : errno2status(err);
		goto out;
	}
	xh->xh_filters[xh->xh_nfilters++].xf_key = key;
out:
	pthread_mutex_unlock(&xdp_lock);
	return st;
}

frio_status_t
xdp_tx_alloc(frio_handle *hdl, void **bufp)
{
	xdp_handle *xh = reinterpret_cast<xdp_handle *>(hdl);
	xdp_port *xp = xh->xh_port;

	if (xh->xh_tx_frame == kNoFrame) {
		for (int attempt = 0;; attempt++) {
			bool room = xsk_prod_nb_free(&xh->xh_tx, 1) >= 1;

			if (room) {
				pthread_mutex_lock(&xp->xp_lock);
				if (xp->xp_nfree == 0)
					port_reclaim(xp);
				if (xp->xp_nfree != 0)
					xh->xh_tx_frame =
					    xp->xp_free[--xp->xp_nfree];
				pthread_mutex_unlock(&xp->xp_lock);
				if (xh->xh_tx_frame != kNoFrame)
					break;
			}
			/* Descriptors a kick left behind hold ring slots and
			 * frames: push them once before giving up. */
			if (attempt != 0 || !tx_ring_busy(xh))
				return FRIO_STATUS_NOMEM;
			tx_kick(xh);
		}
	}
	*bufp = xp->xp_area + xh->xh_tx_frame;
	return FRIO_STATUS_OK;
}

frio_status_t
xdp_tx_commit(frio_handle *hdl, void *buf, size_t len)
{
	xdp_handle *xh = reinterpret_cast<xdp_handle *>(hdl);
	xdp_port *xp = xh->xh_port;
	uint64_t addr = xh->xh_tx_frame;
	uint32_t idx;

	if (addr == kNoFrame || buf != xp->xp_area + addr)
		return FRIO_STATUS_BADARG;
	xh->xh_tx_frame = kNoFrame;
	/* A zero length gives an allocated frame back unsent. */
	if (len == 0 || len > kFrameSize) {
		free_frame(xp, addr);
		return len == 0 ? FRIO_STATUS_OK : FRIO_STATUS_TOOBIG;
	}
	if (xsk_ring_prod__reserve(&xh->xh_tx, 1, &idx) != 1) {
		free_frame(xp, addr);
		return FRIO_STATUS_NOMEM;
	}
	xdp_desc *d = xsk_ring_prod__tx_desc(&xh->xh_tx, idx);

	d->addr = addr;
	d->len = (uint32_t)len;
	d->options = 0;
	xsk_ring_prod__submit(&xh->xh_tx, 1);
	tx_kick(xh);
	return FRIO_STATUS_OK;
}

frio_status_t
xdp_rx_get(frio_handle *hdl, void **framep, uint32_t *lenp)
{
	xdp_handle *xh = reinterpret_cast<xdp_handle *>(hdl);
	xdp_port *xp = xh->xh_port;
	uint32_t idx;

	if (xsk_ring_cons__peek(&xh->xh_rx, 1, &idx) == 0) {
		/* A zero-copy driver that ran out of fill frames sleeps
		 * until told. */
		if (!xh->xh_kick_always &&
		    xsk_ring_prod__needs_wakeup(&xp->xp_fill)) {
			int saved = errno;

			(void)xsk_wake(xh->xh_fd, SYS_recvfrom);
			errno = saved;
		}
		return FRIO_STATUS_NOMEM;
	}
	const xdp_desc *d = xsk_ring_cons__rx_desc(&xh->xh_rx, idx);

	*framep = xsk_umem__get_data(xp->xp_area, d->addr);
	*lenp = d->len;
	xp->xp_lent[d->addr / kFrameSize] = 1;
	/* The frame is ours now; the ring slot is not needed to hold it. */
	xsk_ring_cons__release(&xh->xh_rx, 1);
	return FRIO_STATUS_OK;
}

frio_status_t
xdp_rx_put(frio_handle *hdl, void *frame)
{
	xdp_handle *xh = reinterpret_cast<xdp_handle *>(hdl);
	xdp_port *xp = xh->xh_port;
	char *p = static_cast<char *>(frame);

	if (p < xp->xp_area ||
	    p >= xp->xp_area + (size_t)kRxFrames * kFrameSize)
		return FRIO_STATUS_BADARG;
	uint64_t addr =
	    (uint64_t)(p - xp->xp_area) & ~(uint64_t)(kFrameSize - 1);

	uint8_t *lent = &xp->xp_lent[addr / kFrameSize];

	if (!*lent) {
		frio_debug("%s: frio_rx_put of a frame that is not lent (%p)",
		           hdl->fh_ifname, frame);
		return FRIO_STATUS_BADARG;
	}
	*lent = 0;
	pthread_mutex_lock(&xp->xp_lock);
	bool ok = port_fill(xp, addr);

	pthread_mutex_unlock(&xp->xp_lock);
	if (!ok)
		return FRIO_STATUS_FAILED;
	if (!xh->xh_kick_always && xsk_ring_prod__needs_wakeup(&xp->xp_fill)) {
		int saved = errno;

		(void)recvfrom(xh->xh_fd, nullptr, 0, MSG_DONTWAIT, nullptr,
		               nullptr);
		errno = saved;
	}
	return FRIO_STATUS_OK;
}

int
xdp_get_fd(frio_handle *hdl)
{
	return reinterpret_cast<xdp_handle *>(hdl)->xh_fd;
}

} /* namespace */

extern const frio_backend_ops_t frio_xdp_ops = {
    "xdp",         xdp_open,   xdp_close,  xdp_setup_rx, xdp_tx_alloc,
    xdp_tx_commit, xdp_rx_get, xdp_rx_put, xdp_get_fd,   nullptr,
};
