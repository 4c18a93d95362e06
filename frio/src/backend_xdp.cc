/*
 * The xdp backend: AF_XDP sockets fed by an XDP steering program.
 *
 * Per interface, one steering program (frio/bpf/frio_steer.bpf.c) with two
 * maps: the filters, (MAC, address, port) -> (slot, queue, pid), and the
 * XSKMAP of slots, FRIO_XDP_MAX_HANDLES of them per queue.  Per (interface,
 * queue), one UMEM shared by every handle the process opens there; per
 * handle, one AF_XDP socket with its own receive and transmit rings and one
 * slot.  The shared fill ring is guarded by the port's fill lock, the
 * completion ring and the free transmit frames by its transmit lock: a
 * receiving thread and a sending thread never wait for each other.  They
 * are the only locks on the per-frame paths.
 *
 * UMEM frames are split for good: XDP_RX_FRAMES circulate between the fill
 * ring, the receive rings and the caller; the rest circulate between the
 * free stack, the transmit rings and the completion ring.  Neither side can
 * starve the other, and the fill ring is large enough never to overflow.
 * A handle holds at most its receive ring's size plus XDP_LEND_MAX lent
 * frames.  Ring sizes come out of a budget that always keeps
 * XDP_FILL_RESERVE frames for the fill ring and room for the smallest ring
 * of every handle still to come, so the first handles of a port get large
 * rings, later ones smaller, and no handle that is never read can starve
 * the others.
 *
 * The program is attached without a link and stays attached when the
 * process that attached it closes its handles or dies: other processes
 * (on other queues) keep using it, and a new process finds it and uses its
 * maps.  It never drops a frame: one whose slot is empty (its socket
 * closed, its process gone: the kernel removes a closed socket from the
 * map) goes to the kernel.  Filters left by a dead process are replaced
 * when asked for again.  A process that finds an older, incompatible
 * program of ours replaces it when it can, and never touches anybody
 * else's program.  `ip link set dev IFACE xdp off' (xdpgeneric off on veth)
 * removes it.
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
#include <signal.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <linux/ethtool.h>
#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <linux/xdp_diag.h>
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

/* The steering program's object file, linked in by xdp.cmake; immutable. */
extern "C" const unsigned char frio_steer_obj[];
extern "C" const unsigned char frio_steer_obj_end[];

/*
 * Sizing.  The UMEM is 64 MiB of locked memory per (interface, queue).
 * Every handle holds at most its receive ring plus XDP_LEND_MAX lent
 * frames; XDP_FILL_RESERVE frames always stay with the fill ring and the
 * driver (a zero-copy driver keeps a ring's worth posted).
 */
#define XDP_FRAME_SIZE    2048
#define XDP_FRAMES        32768
#define XDP_TX_FRAMES     1024
#define XDP_RX_FRAMES     (XDP_FRAMES - XDP_TX_FRAMES)
#define XDP_FILL_SIZE     32768 /* holds every receive frame */
#define XDP_COMP_SIZE     1024  /* holds every transmit frame */
#define XDP_FILL_RESERVE  2048
#define XDP_RX_RING_MIN   8
#define XDP_RX_RING_MAX   512
#define XDP_LEND_MAX      FRIO_XDP_MAX_LENT
#define XDP_TX_SIZE       512
#define XDP_HANDLES       FRIO_STEER_SLOTS_PER_QUEUE
#define XDP_AREA_SIZE     (static_cast<size_t>(XDP_FRAMES) * XDP_FRAME_SIZE)
#define XDP_NO_FRAME      (~0ULL)
#define XDP_NO_SLOT       (~0U)
#define XDP_HOLD_MIN      (XDP_RX_RING_MIN + XDP_LEND_MAX)
#define XDP_HANDLE_BUDGET (XDP_RX_FRAMES - XDP_FILL_RESERVE)

/*
 * The kernel frees the queue of a process that ended some time after its
 * sockets are gone (a second, more on a loaded machine), so an open that
 * finds the queue busy while no socket of this namespace is bound to it
 * tries again this often, this far apart (a server restarted at once
 * still gets its queue).  A live owner fails the open at once.  Where
 * the kernel cannot list AF_XDP sockets, a live process's filters on the
 * queue tell of an owner; without them only a process's first open
 * waits, XDP_BUSY_RETRIES_BLIND times.
 */
#define XDP_BUSY_RETRIES       250
#define XDP_BUSY_RETRIES_BLIND 75
#define XDP_BUSY_RETRY_US      20000

/* iface_reuse: the program went away or was replaced; look again. */
#define XDP_AGAIN (-1)

static_assert(XDP_FILL_SIZE >= XDP_RX_FRAMES,
    "the fill ring must hold every receive frame");
static_assert(XDP_COMP_SIZE >= XDP_TX_FRAMES,
    "the completion ring must hold every transmit frame");
static_assert(XDP_FRAME_SIZE >= FRIO_MAX_FRAME, "frame too small");
static_assert(XDP_HANDLES == FRIO_XDP_MAX_HANDLES, "the limit frio.h states");
static_assert(XDP_HANDLES * XDP_HOLD_MIN <= XDP_HANDLE_BUDGET,
    "every handle must get at least the smallest ring");
static_assert(XDP_HANDLES <= 0xffff, "frame owners are 16 bits");

/* The steering program on one interface, shared by the ports there. */
typedef struct xdp_iface {
	struct xdp_iface *xi_next;
	uint64_t xi_netns;
	int xi_ifindex;
	uint32_t xi_refs; /* ports using it */
	int xi_prog_fd;
	int xi_xsks_fd;
	int xi_filters_fd;
} xdp_iface_t;

/* One UMEM, bound to one queue of one interface. */
typedef struct xdp_port {
	struct xdp_port *xp_next;
	uint64_t xp_netns;
	int xp_ifindex;
	uint32_t xp_queue;
	uint32_t xp_refs; /* handles */
	/* Bit k: slot queue * XDP_HANDLES + k taken; how many are. */
	uint64_t xp_slots[XDP_HANDLES / 64];
	uint32_t xp_nslots;
	uint32_t xp_held; /* receive frames the handles may hold at most */
	xdp_iface_t *xp_iface;
	char *xp_area;
	struct xsk_umem *xp_umem;
	pthread_mutex_t xp_fill_lock; /* xp_fill */
	pthread_mutex_t xp_tx_lock;   /* xp_comp, xp_free, xp_nfree */
	struct xsk_ring_prod xp_fill;
	struct xsk_ring_cons xp_comp;
	uint32_t xp_nfree;
	uint64_t xp_free[XDP_TX_FRAMES];
	/* Receive frames lent to the caller, by frame number: the owning
	 * handle's xh_owner, 0 when not lent.  A frame has one owner at a
	 * time, so handles of different threads write different entries. */
	uint16_t xp_owner[XDP_RX_FRAMES];
} xdp_port_t;

typedef struct xdp_handle {
	struct frio_handle xh_base; /* first: the common part */
	xdp_port_t *xh_port;
	struct xsk_socket *xh_xsk;
	int xh_fd;
	uint32_t xh_slot;     /* XDP_NO_SLOT until one is taken */
	uint16_t xh_owner;    /* slot within the queue + 1 */
	uint32_t xh_hold;     /* receive ring size + XDP_LEND_MAX, once set */
	uint32_t xh_lent;     /* frames lent now, at most XDP_LEND_MAX */
	bool xh_kick_always;  /* copy mode: sends only when asked */
	uint64_t xh_tx_frame; /* allocated, not yet committed */
	struct xsk_ring_cons xh_rx;
	struct xsk_ring_prod xh_tx;
	frio_steer_key *xh_keys; /* the filters this handle entered */
	uint32_t xh_nkeys;
} xdp_handle_t;

/*
 * Protects xdp_ifaces, xdp_ports, their reference counts and slot bits,
 * each handle's xh_keys, the BPF maps' contents, libbpf's print hook and
 * xdp_waited.  Taken by open, close and filter set-up; never per frame.
 * It nests under frio_reg_lock, and port locks nest under it.
 */
static pthread_mutex_t xdp_lock = PTHREAD_MUTEX_INITIALIZER;
/* Interfaces with our program in use; protected by xdp_lock. */
static xdp_iface_t *xdp_ifaces;
/* Ports with at least one handle; protected by xdp_lock. */
static xdp_port_t *xdp_ports;
/* Whether an open already waited for a busy queue; protected by
 * xdp_lock. */
static bool xdp_waited;
/*
 * The queue another process held at our last try, and until when to
 * believe it without asking: every try registers a UMEM and binds a
 * socket, which makes a sender that keeps setting up destinations slow
 * to a crawl.  Protected by xdp_lock.
 */
#define XDP_BUSY_MEMORY_NS (1000 * 1000 * 1000LL)
static const char xdp_busy_msg[] = "queue busy: another process has AF_XDP "
				   "sockets on it (FRIO_QUEUE picks another)";
static struct {
	uint64_t bq_netns;
	int bq_ifindex;
	uint32_t bq_queue;
	int64_t bq_until; /* CLOCK_MONOTONIC ns; 0: none */
} xdp_busy;

static int64_t
xdp_now(void)
{
	struct timespec ts;

	(void)clock_gettime(CLOCK_MONOTONIC, &ts);
	return (int64_t)ts.tv_sec * 1000000000LL + ts.tv_nsec;
}

static bool
xdp_busy_known(uint64_t netns, int ifindex, uint32_t queue)
{
	return xdp_busy.bq_until != 0 && xdp_busy.bq_netns == netns &&
	    xdp_busy.bq_ifindex == ifindex && xdp_busy.bq_queue == queue &&
	    xdp_now() < xdp_busy.bq_until;
}

static xdp_handle_t *
xdp_of(struct frio_handle *hdl)
{
	return reinterpret_cast<xdp_handle_t *>(hdl);
}

static bool
xdp_debug_on(void)
{
	const char *d = getenv("FRIO_DEBUG");

	return d != NULL && *d != '\0';
}

/* libbpf prints its warnings to stderr of whatever process we live in. */
static int
xdp_libbpf_print(enum libbpf_print_level level, const char *fmt, va_list ap)
{
	char line[256];
	size_t len;
	int n;

	if (level == LIBBPF_DEBUG || !xdp_debug_on())
		return 0;
	n = vsnprintf(line, sizeof(line), fmt, ap);
	len = strlen(line);
	if (len != 0 && line[len - 1] == '\n')
		line[len - 1] = '\0';
	frio_debug("libbpf: %s", line);
	return n;
}

static frio_status_t
xdp_errno_status(int err)
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

/* libbpf's descriptors are not close-on-exec; the copies we keep are. */
static int
xdp_dup_cloexec(int fd)
{
	return fcntl(fd, F_DUPFD_CLOEXEC, 3);
}

static void
xdp_close_fd(int *fdp)
{
	if (*fdp >= 0)
		(void)close(*fdp);
	*fdp = -1;
}

/*
 * The steering program and its maps.
 */

/* A descriptor for the map of prog_fd with this name and shape, or -1. */
static int
map_fd_by_name(int prog_fd, const char *name, uint32_t type, uint32_t key,
    uint32_t value, uint32_t entries)
{
	struct bpf_prog_info pinfo;
	uint32_t ids[8], n, len = sizeof(pinfo);

	memset(&pinfo, 0, sizeof(pinfo));
	pinfo.nr_map_ids = 8;
	pinfo.map_ids = reinterpret_cast<uintptr_t>(ids);
	if (bpf_obj_get_info_by_fd(prog_fd, &pinfo, &len) != 0)
		return -1;
	n = pinfo.nr_map_ids < 8 ? pinfo.nr_map_ids : 8;
	for (uint32_t i = 0; i < n; i++) {
		struct bpf_map_info minfo;
		uint32_t mlen = sizeof(minfo);
		int fd = bpf_map_get_fd_by_id(ids[i]);

		if (fd < 0)
			continue;
		memset(&minfo, 0, sizeof(minfo));
		if (bpf_obj_get_info_by_fd(fd, &minfo, &mlen) == 0 &&
		    strcmp(minfo.name, name) == 0 && minfo.type == type &&
		    minfo.key_size == key && minfo.value_size == value &&
		    minfo.max_entries == entries)
			return fd;
		(void)close(fd);
	}
	return -1;
}

/* Fills the map descriptors of our program prog_fd; false when its maps
 * are not the ones this library expects (an older build of ours). */
static bool
iface_adopt_maps(xdp_iface_t *xi, int prog_fd)
{
	xi->xi_xsks_fd = map_fd_by_name(prog_fd, FRIO_STEER_XSKS_NAME,
	    BPF_MAP_TYPE_XSKMAP, 4, 4, FRIO_STEER_MAX_SLOTS);
	xi->xi_filters_fd = map_fd_by_name(prog_fd, FRIO_STEER_FILTERS_NAME,
	    BPF_MAP_TYPE_HASH, sizeof(frio_steer_key), sizeof(frio_steer_val),
	    FRIO_STEER_MAX_FILTERS);
	if (xi->xi_xsks_fd < 0 || xi->xi_filters_fd < 0) {
		xdp_close_fd(&xi->xi_xsks_fd);
		xdp_close_fd(&xi->xi_filters_fd);
		return false;
	}
	return true;
}

static void
iface_close_fds(xdp_iface_t *xi)
{
	xdp_close_fd(&xi->xi_prog_fd);
	xdp_close_fd(&xi->xi_xsks_fd);
	xdp_close_fd(&xi->xi_filters_fd);
}

/* Keeps copies of the loaded object's program and map descriptors, which
 * go when the object is closed.  0 or an errno. */
static int
iface_keep_fds(xdp_iface_t *xi, struct bpf_object *obj)
{
	struct bpf_program *prog;
	struct bpf_map *xsks, *filters;

	prog = bpf_object__find_program_by_name(obj, FRIO_STEER_PROG_NAME);
	xsks = bpf_object__find_map_by_name(obj, FRIO_STEER_XSKS_NAME);
	filters = bpf_object__find_map_by_name(obj, FRIO_STEER_FILTERS_NAME);
	if (prog == NULL || xsks == NULL || filters == NULL)
		return ENOENT;
	xi->xi_prog_fd = xdp_dup_cloexec(bpf_program__fd(prog));
	xi->xi_xsks_fd = xdp_dup_cloexec(bpf_map__fd(xsks));
	xi->xi_filters_fd = xdp_dup_cloexec(bpf_map__fd(filters));
	if (xi->xi_prog_fd < 0 || xi->xi_xsks_fd < 0 || xi->xi_filters_fd < 0)
		return EMFILE;
	return 0;
}

/* Loads our program from the embedded object into xi's descriptors. */
static int
iface_load(xdp_iface_t *xi)
{
	LIBBPF_OPTS(bpf_object_open_opts, oo, .object_name = "frio_steer");
	struct bpf_object *obj;
	int err;

	obj = bpf_object__open_mem(frio_steer_obj,
	    static_cast<size_t>(frio_steer_obj_end - frio_steer_obj), &oo);
	if (obj == NULL)
		return errno != 0 ? errno : EINVAL;
	if ((err = -bpf_object__load(obj)) == 0)
		err = iface_keep_fds(xi, obj);
	else
		frio_debug("xdp: cannot load the steering program: %s",
		    strerror(err));
	bpf_object__close(obj);
	if (err != 0)
		iface_close_fds(xi);
	return err;
}

/* The attach flags that detach a program attached in this mode. */
static uint32_t
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

static const char *
mode_name(uint32_t flags)
{
	return flags == XDP_FLAGS_SKB_MODE ? "generic" : "native";
}

/* True when the interface's driver is veth, where generic XDP is the
 * faster of the two modes (native mode moves the peer to NAPI). */
static bool
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
	if (if_indextoname(static_cast<unsigned>(ifindex), ifr.ifr_name) !=
		NULL &&
	    ioctl(fd, SIOCETHTOOL, &ifr) == 0)
		veth = strcmp(info.driver, "veth") == 0;
	(void)close(fd);
	return veth;
}

/*
 * The attach modes to try, best first: generic on veth, native elsewhere
 * with generic as the fallback; FRIO_XDP_MODE=skb or native forces one.
 */
static int
attach_modes(int ifindex, uint32_t modes[2])
{
	const char *mode = getenv("FRIO_XDP_MODE");

	if (mode != NULL && strcmp(mode, "skb") == 0) {
		modes[0] = XDP_FLAGS_SKB_MODE;
		return 1;
	}
	if (mode != NULL && strcmp(mode, "native") == 0) {
		modes[0] = XDP_FLAGS_DRV_MODE;
		return 1;
	}
	if (iface_is_veth(ifindex)) {
		modes[0] = XDP_FLAGS_SKB_MODE;
		return 1;
	}
	modes[0] = XDP_FLAGS_DRV_MODE;
	modes[1] = XDP_FLAGS_SKB_MODE;
	return 2;
}

/*
 * Attaches our freshly loaded program, without a link: it stays when this
 * process goes, for the others that use it and the next one to come.  0,
 * or an errno: EBUSY or EEXIST when a program is already there.
 */
static int
iface_attach(xdp_iface_t *xi)
{
	uint32_t modes[2];
	int n = attach_modes(xi->xi_ifindex, modes), err = EINVAL;

	for (int i = 0; i < n; i++) {
		if (bpf_xdp_attach(xi->xi_ifindex, xi->xi_prog_fd,
			modes[i] | XDP_FLAGS_UPDATE_IF_NOEXIST, NULL) == 0) {
			frio_debug("xdp: steering program attached on ifindex "
				   "%d in %s mode",
			    xi->xi_ifindex, mode_name(modes[i]));
			return 0;
		}
		err = errno;
		frio_debug("xdp: attach in %s mode: %s", mode_name(modes[i]),
		    strerror(err));
		if (err == EBUSY || err == EEXIST || err == EPERM)
			return err;
	}
	return err;
}

/*
 * The interface runs the program prog_id: use its maps when it is ours,
 * take it away when it is an older, incompatible build of ours attached
 * without a link (XDP_AGAIN: look again), and leave anybody else's alone
 * (EEXIST).
 */
static int
iface_reuse(xdp_iface_t *xi, uint32_t prog_id, uint8_t attach_mode)
{
	LIBBPF_OPTS(bpf_xdp_attach_opts, ao);
	struct bpf_prog_info info;
	uint32_t len = sizeof(info);
	int fd, err;

	if ((fd = bpf_prog_get_fd_by_id(prog_id)) < 0)
		return errno == ENOENT ? XDP_AGAIN : errno;
	memset(&info, 0, sizeof(info));
	if (bpf_obj_get_info_by_fd(fd, &info, &len) != 0) {
		err = errno;
		(void)close(fd);
		return err;
	}
	if (attach_mode == XDP_ATTACHED_MULTI ||
	    strcmp(info.name, FRIO_STEER_PROG_NAME) != 0) {
		frio_debug("xdp: interface %d runs another XDP program (%s)",
		    xi->xi_ifindex, info.name);
		(void)close(fd);
		return EEXIST;
	}
	if (iface_adopt_maps(xi, fd)) {
		xi->xi_prog_fd = fd;
		frio_debug("xdp: using the steering program on ifindex %d",
		    xi->xi_ifindex);
		return 0;
	}
	ao.old_prog_fd = fd;
	err =
	    bpf_xdp_detach(xi->xi_ifindex, mode_flags(attach_mode), &ao) == 0 ?
	    0 :
	    errno;
	(void)close(fd);
	if (err != 0) {
		frio_debug("xdp: cannot detach an older steering program: %s",
		    strerror(err));
		return EEXIST;
	}
	frio_debug("xdp: detached an older steering program");
	return XDP_AGAIN;
}

/* Sets xi up on its interface: attach, reuse or replace.  0 or an errno. */
static int
iface_setup(xdp_iface_t *xi)
{
	for (int round = 0; round < 3; round++) {
		LIBBPF_OPTS(bpf_xdp_query_opts, qo);
		int err = -bpf_xdp_query(xi->xi_ifindex, 0, &qo);

		if (err != 0)
			return err;
		if (qo.prog_id != 0) {
			err = iface_reuse(xi, qo.prog_id, qo.attach_mode);
			if (err != XDP_AGAIN)
				return err;
			continue;
		}
		if ((err = iface_load(xi)) != 0)
			return err;
		if ((err = iface_attach(xi)) == 0)
			return 0;
		iface_close_fds(xi);
		/* Unless somebody attached first, give up. */
		if (err != EBUSY && err != EEXIST)
			return err;
	}
	return EEXIST;
}

/* xdp_lock held.  Drops a port's reference to xi; the program stays
 * attached for the next handle, of this process or another. */
static void
iface_put(xdp_iface_t *xi)
{
	if (--xi->xi_refs != 0)
		return;
	for (xdp_iface_t **pp = &xdp_ifaces; *pp != NULL;
	     pp = &(*pp)->xi_next) {
		if (*pp == xi) {
			*pp = xi->xi_next;
			break;
		}
	}
	iface_close_fds(xi);
	free(xi);
}

/* xdp_lock held.  The interface's program, set up at the first use. */
static int
iface_get(uint64_t netns, int ifindex, xdp_iface_t **xip)
{
	xdp_iface_t *xi;
	int err;

	for (xi = xdp_ifaces; xi != NULL; xi = xi->xi_next) {
		if (xi->xi_ifindex == ifindex && xi->xi_netns == netns) {
			xi->xi_refs++;
			*xip = xi;
			return 0;
		}
	}
	xi = static_cast<xdp_iface_t *>(calloc(1, sizeof(*xi)));
	if (xi == NULL)
		return ENOMEM;
	xi->xi_ifindex = ifindex;
	xi->xi_netns = netns;
	xi->xi_prog_fd = xi->xi_xsks_fd = xi->xi_filters_fd = -1;
	if ((err = iface_setup(xi)) != 0) {
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
static void
queue_forget(xdp_iface_t *xi, uint32_t queue)
{
	frio_steer_key key, next, *prev = NULL, *stale = NULL;
	size_t nstale = 0, cap = 0;

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

			if (p == NULL)
				break;
			stale = static_cast<frio_steer_key *>(p);
			cap = ncap;
		}
		stale[nstale++] = key;
	}
	/* Deleting while walking would restart the walk. */
	for (size_t i = 0; i < nstale; i++)
		(void)bpf_map_delete_elem(xi->xi_filters_fd, &stale[i]);
	free(stale);
	for (uint32_t k = 0; k < XDP_HANDLES; k++) {
		uint32_t slot = queue * XDP_HANDLES + k;

		(void)bpf_map_delete_elem(xi->xi_xsks_fd, &slot);
	}
	if (nstale != 0)
		frio_debug("xdp: dropped %zu stale filters of queue %u", nstale,
		    queue);
}

/*
 * UMEM.
 */

/* Transmit lock held.  Moves completed transmit frames to the free stack. */
static void
port_reclaim(xdp_port_t *xp)
{
	uint32_t idx;
	uint32_t n = xsk_ring_cons__peek(&xp->xp_comp, XDP_COMP_SIZE, &idx);

	for (uint32_t i = 0; i < n && xp->xp_nfree < XDP_TX_FRAMES; i++)
		xp->xp_free[xp->xp_nfree++] =
		    *xsk_ring_cons__comp_addr(&xp->xp_comp, idx + i);
	if (n != 0)
		xsk_ring_cons__release(&xp->xp_comp, n);
}

/* Fill lock held.  Gives a receive frame back to the kernel. */
static bool
port_fill(xdp_port_t *xp, uint64_t addr)
{
	uint32_t idx;

	if (xsk_ring_prod__reserve(&xp->xp_fill, 1, &idx) != 1)
		return false;
	*xsk_ring_prod__fill_addr(&xp->xp_fill, idx) = addr;
	xsk_ring_prod__submit(&xp->xp_fill, 1);
	return true;
}

static void
port_destroy(xdp_port_t *xp)
{
	if (xp->xp_umem != NULL)
		(void)xsk_umem__delete(xp->xp_umem);
	if (xp->xp_area != NULL)
		(void)munmap(xp->xp_area, XDP_AREA_SIZE);
	(void)pthread_mutex_destroy(&xp->xp_fill_lock);
	(void)pthread_mutex_destroy(&xp->xp_tx_lock);
	free(xp);
}

/* The first XDP_RX_FRAMES frames receive, the others transmit. */
static bool
port_prime(xdp_port_t *xp)
{
	uint32_t idx;

	if (xsk_ring_prod__reserve(&xp->xp_fill, XDP_RX_FRAMES, &idx) !=
	    XDP_RX_FRAMES)
		return false;
	for (uint32_t i = 0; i < XDP_RX_FRAMES; i++)
		*xsk_ring_prod__fill_addr(&xp->xp_fill, idx + i) =
		    static_cast<uint64_t>(i) * XDP_FRAME_SIZE;
	xsk_ring_prod__submit(&xp->xp_fill, XDP_RX_FRAMES);
	for (uint32_t i = 0; i < XDP_TX_FRAMES; i++)
		xp->xp_free[i] =
		    static_cast<uint64_t>(XDP_RX_FRAMES + i) * XDP_FRAME_SIZE;
	xp->xp_nfree = XDP_TX_FRAMES;
	return true;
}

/* A port with its UMEM registered and its fill ring full.  0 or an errno. */
static int
port_create(int ifindex, uint32_t queue, xdp_port_t **xpp)
{
	xdp_port_t *xp = static_cast<xdp_port_t *>(calloc(1, sizeof(*xp)));
	struct xsk_umem_config cfg;
	void *area;
	int err;

	if (xp == NULL)
		return ENOMEM;
	xp->xp_ifindex = ifindex;
	xp->xp_queue = queue;
	(void)pthread_mutex_init(&xp->xp_fill_lock, NULL);
	(void)pthread_mutex_init(&xp->xp_tx_lock, NULL);
	area = mmap(NULL, XDP_AREA_SIZE, PROT_READ | PROT_WRITE,
	    MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
	if (area == MAP_FAILED) {
		err = errno;
		port_destroy(xp);
		return err;
	}
	xp->xp_area = static_cast<char *>(area);
	memset(&cfg, 0, sizeof(cfg));
	cfg.fill_size = XDP_FILL_SIZE;
	cfg.comp_size = XDP_COMP_SIZE;
	cfg.frame_size = XDP_FRAME_SIZE;
	cfg.frame_headroom = 0;
	err = -xsk_umem__create(&xp->xp_umem, area, XDP_AREA_SIZE, &xp->xp_fill,
	    &xp->xp_comp, &cfg);
	if (err != 0) {
		xp->xp_umem = NULL;
		frio_debug("xdp: cannot register UMEM: %s", strerror(err));
		port_destroy(xp);
		return err;
	}
	if (!port_prime(xp)) {
		port_destroy(xp);
		return ENOBUFS;
	}
	*xpp = xp;
	return 0;
}

/* The queue FRIO_QUEUE names (0 when unset); false when it is bad. */
static bool
env_queue(uint32_t *queuep)
{
	const char *s = getenv("FRIO_QUEUE");
	unsigned long q;
	char *end;

	*queuep = 0;
	if (s == NULL || *s == '\0')
		return true;
	errno = 0;
	q = strtoul(s, &end, 10);
	if (errno != 0 || *end != '\0' || q >= FRIO_STEER_MAX_QUEUES)
		return false;
	*queuep = static_cast<uint32_t>(q);
	return true;
}

/*
 * Transmit side helpers.
 */

/*
 * Wakes the kernel for a socket's rings.  Straight to the system call: a
 * preloaded library that interposes sendto and recvfrom (ours does) must
 * not sit on the path of every kick.
 */
static long
xsk_wake(int fd, long nr)
{
	return syscall(nr, fd, NULL, 0, MSG_DONTWAIT, NULL, NULL);
}

static bool
tx_ring_busy(const xdp_handle_t *xh)
{
	return __atomic_load_n(xh->xh_tx.consumer, __ATOMIC_ACQUIRE) !=
	    xh->xh_tx.cached_prod;
}

/*
 * In copy mode the kernel sends only inside this sendto(), at most 32
 * descriptors a call.  EAGAIN, EBUSY and ENOBUFS mean that descriptors may
 * be left (the budget ran out, a frame was dropped, no skb could be had):
 * kick again while some are left and the last kick moved any.  Normally
 * the first kick empties the ring and is the only one.
 */
static void
tx_kick(xdp_handle_t *xh)
{
	int saved;

	if (!xh->xh_kick_always && !xsk_ring_prod__needs_wakeup(&xh->xh_tx))
		return;
	saved = errno;
	for (uint32_t i = 0; i <= XDP_TX_SIZE / 32; i++) {
		uint32_t before =
		    __atomic_load_n(xh->xh_tx.consumer, __ATOMIC_ACQUIRE);
		bool failed = xsk_wake(xh->xh_fd, SYS_sendto) < 0;

		if (!tx_ring_busy(xh))
			break;
		if (failed && errno != EAGAIN && errno != EBUSY &&
		    errno != ENOBUFS)
			break;
		/* The kernel cannot send now. */
		if (__atomic_load_n(xh->xh_tx.consumer, __ATOMIC_ACQUIRE) ==
		    before)
			break;
	}
	errno = saved;
}

static void
free_frame(xdp_port_t *xp, uint64_t addr)
{
	(void)pthread_mutex_lock(&xp->xp_tx_lock);
	if (xp->xp_nfree < XDP_TX_FRAMES)
		xp->xp_free[xp->xp_nfree++] = addr;
	(void)pthread_mutex_unlock(&xp->xp_tx_lock);
}

/*
 * Closing a socket loses what its rings hold, so hand the receive ring's
 * frames and the ones still lent back to the fill ring and, in copy mode
 * (where the kernel takes transmit descriptors only inside our own
 * sendto), the unsent ones back to the free stack.
 */
static void
handle_drain(xdp_handle_t *xh)
{
	xdp_port_t *xp = xh->xh_port;
	uint32_t idx, n;

	if (xh->xh_tx_frame != XDP_NO_FRAME) {
		free_frame(xp, xh->xh_tx_frame);
		xh->xh_tx_frame = XDP_NO_FRAME;
	}
	if (tx_ring_busy(xh))
		tx_kick(xh);
	(void)pthread_mutex_lock(&xp->xp_fill_lock);
	n = xsk_ring_cons__peek(&xh->xh_rx, xh->xh_rx.size, &idx);
	for (uint32_t i = 0; i < n; i++) {
		uint64_t addr =
		    xsk_ring_cons__rx_desc(&xh->xh_rx, idx + i)->addr;

		(void)port_fill(xp,
		    addr & ~static_cast<uint64_t>(XDP_FRAME_SIZE - 1));
	}
	xsk_ring_cons__release(&xh->xh_rx, n);
	for (uint32_t f = 0; xh->xh_lent != 0 && f < XDP_RX_FRAMES; f++) {
		if (xp->xp_owner[f] == xh->xh_owner) {
			xp->xp_owner[f] = 0;
			xh->xh_lent--;
			(void)port_fill(xp,
			    static_cast<uint64_t>(f) * XDP_FRAME_SIZE);
		}
	}
	(void)pthread_mutex_unlock(&xp->xp_fill_lock);
	(void)pthread_mutex_lock(&xp->xp_tx_lock);
	if (xh->xh_kick_always) {
		uint32_t cons =
		    __atomic_load_n(xh->xh_tx.consumer, __ATOMIC_ACQUIRE);

		for (uint32_t i = cons; i != xh->xh_tx.cached_prod; i++) {
			if (xp->xp_nfree < XDP_TX_FRAMES)
				xp->xp_free[xp->xp_nfree++] =
				    xsk_ring_prod__tx_desc(&xh->xh_tx, i)->addr;
		}
	}
	port_reclaim(xp);
	(void)pthread_mutex_unlock(&xp->xp_tx_lock);
}

/* xdp_lock held.  Whether slot k of the port's queue is taken. */
static bool
slot_taken(const xdp_port_t *xp, uint32_t k)
{
	return k < XDP_HANDLES && (xp->xp_slots[k / 64] >> (k % 64) & 1) != 0;
}

static void
slot_put(xdp_port_t *xp, uint32_t k)
{
	if (slot_taken(xp, k)) {
		xp->xp_slots[k / 64] &= ~(1ULL << (k % 64));
		xp->xp_nslots--;
	}
}

/*
 * The receive ring of the nslots-th handle of a port whose handles may
 * hold held frames already: a power of two between XDP_RX_RING_MIN and
 * XDP_RX_RING_MAX that leaves the smallest ring to every handle still to
 * come, and a quarter of what is left over to the next one.
 */
static uint32_t
rx_ring_size(uint32_t held, uint32_t nslots)
{
	uint32_t later = (XDP_HANDLES - nslots) * XDP_HOLD_MIN;
	uint32_t spare = XDP_HANDLE_BUDGET - held - later - XDP_HOLD_MIN;
	uint32_t ring = XDP_RX_RING_MAX;

	while (ring > XDP_RX_RING_MIN && ring - XDP_RX_RING_MIN > spare / 4)
		ring /= 2;
	return ring;
}

/* xdp_lock held.  Drops a handle's reference to xp, the last one with
 * the port and its interface's reference. */
static void
port_put(xdp_port_t *xp)
{
	xdp_iface_t *xi = xp->xp_iface;

	if (--xp->xp_refs != 0)
		return;
	for (xdp_port_t **pp = &xdp_ports; *pp != NULL; pp = &(*pp)->xp_next) {
		if (*pp == xp) {
			*pp = xp->xp_next;
			break;
		}
	}
	port_destroy(xp);
	if (xi != NULL)
		iface_put(xi);
}

/* xdp_lock held.  Removes the handle's filters and slot from the maps. */
static void
handle_unsteer(xdp_handle_t *xh, xdp_iface_t *xi)
{
	for (uint32_t i = 0; i < xh->xh_nkeys; i++) {
		frio_steer_val val;

		/* Another handle's, when ours failed to replace it. */
		if (bpf_map_lookup_elem(xi->xi_filters_fd, &xh->xh_keys[i],
			&val) == 0 &&
		    val.fv_slot == xh->xh_slot)
			(void)bpf_map_delete_elem(xi->xi_filters_fd,
			    &xh->xh_keys[i]);
	}
	(void)bpf_map_delete_elem(xi->xi_xsks_fd, &xh->xh_slot);
}

/* xdp_lock held.  Releases everything a handle holds, in reverse order of
 * xdp_open; any step of it may not have been reached. */
static void
handle_release(xdp_handle_t *xh)
{
	xdp_port_t *xp = xh->xh_port;

	/* Without a slot of its own, the handle must not touch slot 0's
	 * map entry or bit: they are another handle's. */
	if (xp != NULL && xp->xp_iface != NULL && xh->xh_slot != XDP_NO_SLOT)
		handle_unsteer(xh, xp->xp_iface);
	if (xh->xh_xsk != NULL) {
		handle_drain(xh);
		xsk_socket__delete(xh->xh_xsk);
	}
	if (xp != NULL) {
		if (xh->xh_slot != XDP_NO_SLOT)
			slot_put(xp, xh->xh_slot % XDP_HANDLES);
		xp->xp_held -= xh->xh_hold;
		port_put(xp);
	}
	free(xh->xh_keys);
	free(xh);
}

/*
 * The steps of xdp_open, each under xdp_lock.  A step that fails says why
 * and leaves what it got in the handle for handle_release.
 */

/* The port of (this namespace, ifindex, queue), created at the first use;
 * *newp tells which. */
static frio_status_t
open_port(xdp_handle_t *xh, uint64_t netns, int ifindex, uint32_t queue,
    bool *newp)
{
	xdp_port_t *xp;
	int err;

	*newp = false;
	for (xp = xdp_ports; xp != NULL; xp = xp->xp_next) {
		if (xp->xp_ifindex == ifindex && xp->xp_queue == queue &&
		    xp->xp_netns == netns)
			break;
	}
	if (xp == NULL) {
		if ((err = port_create(ifindex, queue, &xp)) != 0)
			return err == ENOBUFS || err == ENOMEM ?
			    frio_fail(FRIO_STATUS_FAILED,
				"cannot register "
				"UMEM: locked-memory limit (needs "
				"CAP_IPC_LOCK)") :
			    xdp_errno_status(err);
		*newp = true;
		xp->xp_netns = netns;
		xp->xp_next = xdp_ports;
		xdp_ports = xp;
	}
	xp->xp_refs++;
	xh->xh_port = xp;
	return FRIO_STATUS_OK;
}

/* The lowest free slot of the port's queue, and the handle's ring size
 * out of the port's budget. */
static frio_status_t
open_slot(xdp_handle_t *xh)
{
	xdp_port_t *xp = xh->xh_port;
	uint32_t k = 0, w;

	if (xp->xp_nslots == XDP_HANDLES)
		return frio_fail(FRIO_STATUS_FAILED,
		    "too many handles on "
		    "one interface queue (at most 1024 per process)");
	for (w = 0; xp->xp_slots[w] == ~0ULL; w++)
		;
	k = w * 64 + static_cast<uint32_t>(__builtin_ctzll(~xp->xp_slots[w]));
	xp->xp_slots[w] |= 1ULL << (k % 64);
	xp->xp_nslots++;
	xh->xh_slot = xp->xp_queue * XDP_HANDLES + k;
	xh->xh_owner = static_cast<uint16_t>(k + 1);
	xh->xh_hold = rx_ring_size(xp->xp_held, xp->xp_nslots) + XDP_LEND_MAX;
	xp->xp_held += xh->xh_hold;
	return FRIO_STATUS_OK;
}

/*
 * Whether an AF_XDP socket of this namespace is bound to the queue: 1 or
 * 0, or -1 when the kernel does not say (no sock_diag for AF_XDP).  Raw
 * system calls: a preloaded library that interposes sendto and recvfrom
 * may hold its own locks around this open.
 */
static int
queue_held(int ifindex, uint32_t queue)
{
	struct {
		struct nlmsghdr nh;
		struct xdp_diag_req req;
	} msg;
	uint64_t buf[1024]; /* 8 KiB, aligned */
	int fd =
	    socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
	int held = -1;

	if (fd < 0)
		return -1;
	memset(&msg, 0, sizeof(msg));
	msg.nh.nlmsg_len = sizeof(msg);
	msg.nh.nlmsg_type = SOCK_DIAG_BY_FAMILY;
	msg.nh.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
	msg.req.sdiag_family = AF_XDP;
	msg.req.xdiag_show = XDP_SHOW_INFO;
	if (syscall(SYS_sendto, fd, &msg, sizeof(msg), 0, NULL, 0) < 0) {
		(void)close(fd);
		return -1;
	}
	for (;;) {
		long n =
		    syscall(SYS_recvfrom, fd, buf, sizeof(buf), 0, NULL, NULL);
		struct nlmsghdr *nh = reinterpret_cast<struct nlmsghdr *>(buf);
		bool done = n <= 0;

		for (; !done && NLMSG_OK(nh, n); nh = NLMSG_NEXT(nh, n)) {
			struct xdp_diag_msg *m;
			struct rtattr *a;
			int alen;

			if (nh->nlmsg_type == NLMSG_DONE) {
				held = held < 0 ? 0 : held;
				done = true;
				break;
			}
			if (nh->nlmsg_type != SOCK_DIAG_BY_FAMILY) {
				done = true; /* NLMSG_ERROR: not supported */
				break;
			}
			held = held < 0 ? 0 : held;
			m = static_cast<struct xdp_diag_msg *>(NLMSG_DATA(nh));
			a = reinterpret_cast<struct rtattr *>(m + 1);
			alen = static_cast<int>(
			    nh->nlmsg_len - NLMSG_LENGTH(sizeof(*m)));
			for (; RTA_OK(a, alen); a = RTA_NEXT(a, alen)) {
				struct xdp_diag_info info;

				if (a->rta_type != XDP_DIAG_INFO ||
				    RTA_PAYLOAD(a) < sizeof(info))
					continue;
				memcpy(&info, RTA_DATA(a), sizeof(info));
				if (static_cast<int>(info.ifindex) == ifindex &&
				    info.queue_id == queue)
					held = 1;
			}
		}
		if (done || held == 1)
			break;
	}
	(void)close(fd);
	return held;
}

static bool owner_gone(uint32_t pid);

/*
 * Whether a live process other than this one has filters on the queue:
 * its socket holds the queue, which is then not about to come free.  What
 * an open that cannot list AF_XDP sockets goes by, rather than waiting
 * blindly while the application's socket is already receiving.
 */
static bool
queue_owner_alive(int ifindex, uint32_t queue)
{
	LIBBPF_OPTS(bpf_xdp_query_opts, qo);
	frio_steer_key key, next, *prev = NULL;
	uint32_t self = static_cast<uint32_t>(getpid());
	xdp_iface_t xi;
	bool alive = false;

	/* The maps of the steering program on the interface, if ours. */
	if (bpf_xdp_query(ifindex, 0, &qo) != 0 || qo.prog_id == 0)
		return false;
	memset(&xi, 0, sizeof(xi));
	xi.xi_xsks_fd = xi.xi_filters_fd = -1;
	if ((xi.xi_prog_fd = bpf_prog_get_fd_by_id(qo.prog_id)) < 0)
		return false;
	if (!iface_adopt_maps(&xi, xi.xi_prog_fd)) {
		iface_close_fds(&xi);
		return false;
	}
	while (!alive &&
	    bpf_map_get_next_key(xi.xi_filters_fd, prev, &next) == 0) {
		frio_steer_val val;

		key = next;
		prev = &key;
		alive =
		    bpf_map_lookup_elem(xi.xi_filters_fd, &key, &val) == 0 &&
		    val.fv_queue == queue && val.fv_pid != self &&
		    !owner_gone(val.fv_pid);
	}
	iface_close_fds(&xi);
	return alive;
}

/* The AF_XDP socket, bound to the port's queue and UMEM. */
static frio_status_t
open_socket(xdp_handle_t *xh, const char *ifname)
{
	xdp_port_t *xp = xh->xh_port;
	struct xsk_socket_config cfg;
	struct xdp_options opts;
	socklen_t len = sizeof(opts);
	int err;

	memset(&cfg, 0, sizeof(cfg));
	cfg.rx_size = xh->xh_hold - XDP_LEND_MAX;
	cfg.tx_size = XDP_TX_SIZE;
	cfg.libxdp_flags = XSK_LIBXDP_FLAGS__INHIBIT_PROG_LOAD;
	cfg.bind_flags = XDP_USE_NEED_WAKEUP;
	for (int tries = 0;; tries++) {
		int held;

		err = -xsk_socket__create(&xh->xh_xsk, ifname, xp->xp_queue,
		    xp->xp_umem, &xh->xh_rx, &xh->xh_tx, &cfg);
		if (err != EBUSY || tries == XDP_BUSY_RETRIES)
			break;
		held = queue_held(xp->xp_ifindex, xp->xp_queue);
		if (held < 0 && queue_owner_alive(xp->xp_ifindex, xp->xp_queue))
			held = 1;
		if (held == 1 ||
		    (held < 0 &&
			(xdp_waited || tries == XDP_BUSY_RETRIES_BLIND)))
			break;
		(void)usleep(XDP_BUSY_RETRY_US);
	}
	xdp_waited = true;
	if (err != 0) {
		xh->xh_xsk = NULL;
		if (err == EBUSY) {
			xdp_busy.bq_netns = xp->xp_netns;
			xdp_busy.bq_ifindex = xp->xp_ifindex;
			xdp_busy.bq_queue = xp->xp_queue;
			xdp_busy.bq_until = xdp_now() + XDP_BUSY_MEMORY_NS;
		}
		if (err == EBUSY)
			return frio_fail(FRIO_STATUS_FAILED, xdp_busy_msg);
		frio_debug("xdp: %s: cannot bind an AF_XDP socket to queue "
			   "%u: %s",
		    ifname, xp->xp_queue, strerror(err));
		return xdp_errno_status(err);
	}
	xh->xh_fd = xsk_socket__fd(xh->xh_xsk);
	/* libxdp opens it without close-on-exec; a program this process
	 * starts must not keep the socket (and its traffic) alive. */
	(void)fcntl(xh->xh_fd, F_SETFD, FD_CLOEXEC);
	memset(&opts, 0, sizeof(opts));
	xh->xh_kick_always =
	    getsockopt(xh->xh_fd, SOL_XDP, XDP_OPTIONS, &opts, &len) != 0 ||
	    (opts.flags & XDP_OPTIONS_ZEROCOPY) == 0;
	return FRIO_STATUS_OK;
}

/* A new port's interface: its steering program, and no stale filters. */
static frio_status_t
open_steering(xdp_handle_t *xh, const char *ifname, uint64_t netns)
{
	xdp_port_t *xp = xh->xh_port;
	int err = iface_get(netns, xp->xp_ifindex, &xp->xp_iface);

	if (err != 0) {
		xp->xp_iface = NULL;
		frio_debug("xdp: %s: cannot set up the steering program: %s",
		    ifname, strerror(err));
		if (err == EEXIST || err == EBUSY)
			return frio_fail(FRIO_STATUS_FAILED,
			    "another XDP "
			    "program is attached to the interface; remove it "
			    "or use FRIO_BACKEND=packet");
		if (err == EOPNOTSUPP)
			return frio_fail(FRIO_STATUS_NOTSUP,
			    "interface "
			    "without XDP support; use FRIO_BACKEND=packet");
		return xdp_errno_status(err);
	}
	queue_forget(xp->xp_iface, xp->xp_queue);
	return FRIO_STATUS_OK;
}

/* Puts the socket in its slot of the XSKMAP. */
static frio_status_t
open_enter(xdp_handle_t *xh, const char *ifname)
{
	int err;

	if (bpf_map_update_elem(xh->xh_port->xp_iface->xi_xsks_fd, &xh->xh_slot,
		&xh->xh_fd, BPF_ANY) == 0)
		return FRIO_STATUS_OK;
	err = errno;
	frio_debug("xdp: %s: cannot enter the socket into the map: %s", ifname,
	    strerror(err));
	return xdp_errno_status(err);
}

/*
 * The backend operations.
 */

static frio_status_t
xdp_open(const char *ifname, int ifindex, struct frio_handle **hdlp)
{
	libbpf_print_fn_t old_print;
	xdp_handle_t *xh;
	frio_status_t st;
	uint32_t queue;
	uint64_t netns;
	bool new_port;

	if (!env_queue(&queue))
		return frio_fail(FRIO_STATUS_BADARG,
		    "FRIO_QUEUE must be a "
		    "receive queue number below 256");
	xh = static_cast<xdp_handle_t *>(calloc(1, sizeof(*xh)));
	if (xh == NULL)
		return frio_fail(FRIO_STATUS_FAILED, "out of memory");
	xh->xh_fd = -1;
	xh->xh_slot = XDP_NO_SLOT;
	xh->xh_tx_frame = XDP_NO_FRAME;
	/* Indexes repeat across namespaces, and a thread may have entered
	 * another one. */
	netns = frio_netns();

	(void)pthread_mutex_lock(&xdp_lock);
	if (xdp_busy_known(netns, ifindex, queue)) {
		(void)pthread_mutex_unlock(&xdp_lock);
		free(xh);
		return frio_fail(FRIO_STATUS_FAILED, xdp_busy_msg);
	}
	old_print = libbpf_set_print(xdp_libbpf_print);
	if ((st = open_port(xh, netns, ifindex, queue, &new_port)) ==
		FRIO_STATUS_OK &&
	    (st = open_slot(xh)) == FRIO_STATUS_OK &&
	    (st = open_socket(xh, ifname)) == FRIO_STATUS_OK &&
	    (!new_port ||
		(st = open_steering(xh, ifname, netns)) == FRIO_STATUS_OK))
		st = open_enter(xh, ifname);
	if (st == FRIO_STATUS_OK) {
		frio_debug("xdp: %s: handle on queue %u, slot %u, %s mode",
		    ifname, queue, xh->xh_slot,
		    xh->xh_kick_always ? "copy" : "zero-copy");
		*hdlp = &xh->xh_base;
	} else {
		handle_release(xh);
	}
	(void)libbpf_set_print(old_print);
	(void)pthread_mutex_unlock(&xdp_lock);
	return st;
}

static void
xdp_close(struct frio_handle *hdl)
{
	libbpf_print_fn_t old_print;

	(void)pthread_mutex_lock(&xdp_lock);
	old_print = libbpf_set_print(xdp_libbpf_print);
	handle_release(xdp_of(hdl));
	(void)libbpf_set_print(old_print);
	(void)pthread_mutex_unlock(&xdp_lock);
}

/* The steering key of a filter: the program matches only destinations. */
static frio_status_t
filter_key(const frio_filter_args_t *f, frio_steer_key *key)
{
	static const struct in6_addr any = IN6ADDR_ANY_INIT;

	if (memcmp(&f->uf_src_ip, &any, sizeof(any)) != 0 ||
	    f->uf_src_port != 0)
		return frio_fail(FRIO_STATUS_NOTSUP,
		    "the xdp backend cannot "
		    "filter on the source address or port");
	memset(key, 0, sizeof(*key));
	memcpy(key->fk_mac, f->uf_macaddr, sizeof(key->fk_mac));
	key->fk_port = f->uf_dst_port;
	memcpy(key->fk_addr, &f->uf_dst_ip, sizeof(key->fk_addr));
	return FRIO_STATUS_OK;
}

/* Whether the process that entered a filter is gone. */
static bool
owner_gone(uint32_t pid)
{
	return pid != 0 && kill(static_cast<pid_t>(pid), 0) != 0 &&
	    errno == ESRCH;
}

/*
 * xdp_lock held.  Whether the map's entry for key, if any, may be
 * replaced by ours; *mine when it is ours already.  Entries of our own
 * queue were left by a process that held the queue before us (queue_forget
 * removed those) or by one of our handles: taken slots keep their traffic.
 * An entry of another queue belongs to the process that holds that queue,
 * and keeps its traffic while that process lives.
 */
static frio_status_t
filter_free(xdp_handle_t *xh, int fd, const frio_steer_key *key, bool *mine)
{
	xdp_port_t *xp = xh->xh_port;
	frio_steer_val cur;

	*mine = false;
	if (bpf_map_lookup_elem(fd, key, &cur) != 0)
		return FRIO_STATUS_OK;
	if (cur.fv_slot == xh->xh_slot && cur.fv_queue == xp->xp_queue &&
	    cur.fv_pid == static_cast<uint32_t>(getpid())) {
		*mine = true;
		return FRIO_STATUS_OK;
	}
	if (cur.fv_queue == xp->xp_queue ?
		slot_taken(xp, cur.fv_slot - xp->xp_queue * XDP_HANDLES) :
		!owner_gone(cur.fv_pid))
		return frio_fail(FRIO_STATUS_FAILED,
		    "another handle already "
		    "receives for this address and port");
	return FRIO_STATUS_OK;
}

/* xdp_lock held.  Enters key into the map and the handle's list. */
static frio_status_t
filter_enter(xdp_handle_t *xh, int fd, const frio_steer_key *key)
{
	frio_steer_val val;
	void *p;
	int err;

	p = realloc(xh->xh_keys, (xh->xh_nkeys + 1) * sizeof(*xh->xh_keys));
	if (p == NULL)
		return frio_fail(FRIO_STATUS_FAILED, "out of memory");
	xh->xh_keys = static_cast<frio_steer_key *>(p);
	val.fv_slot = xh->xh_slot;
	val.fv_queue = xh->xh_port->xp_queue;
	val.fv_pid = static_cast<uint32_t>(getpid());
	val.fv_pad = 0;
	if (bpf_map_update_elem(fd, key, &val, BPF_ANY) != 0) {
		err = errno;
		frio_debug("xdp: cannot install a filter: %s", strerror(err));
		return err == E2BIG || err == ENOMEM ?
		    frio_fail(FRIO_STATUS_FAILED,
			"the interface's filter "
			"table is full") :
		    xdp_errno_status(err);
	}
	xh->xh_keys[xh->xh_nkeys++] = *key;
	return FRIO_STATUS_OK;
}

static frio_status_t
xdp_setup_rx(struct frio_handle *hdl, const frio_filter_args_t *f,
    const frio_filter_set_t *next)
{
	xdp_handle_t *xh = xdp_of(hdl);
	frio_steer_key key;
	frio_status_t st;
	bool mine;
	int fd;

	(void)next;
	if ((st = filter_key(f, &key)) != FRIO_STATUS_OK)
		return st;
	(void)pthread_mutex_lock(&xdp_lock);
	fd = xh->xh_port->xp_iface->xi_filters_fd;
	if ((st = filter_free(xh, fd, &key, &mine)) == FRIO_STATUS_OK && !mine)
		st = filter_enter(xh, fd, &key);
	(void)pthread_mutex_unlock(&xdp_lock);
	return st;
}

static frio_status_t
xdp_tx_alloc(struct frio_handle *hdl, void **bufp)
{
	xdp_handle_t *xh = xdp_of(hdl);
	xdp_port_t *xp = xh->xh_port;

	for (int attempt = 0; xh->xh_tx_frame == XDP_NO_FRAME; attempt++) {
		if (xsk_prod_nb_free(&xh->xh_tx, 1) >= 1) {
			(void)pthread_mutex_lock(&xp->xp_tx_lock);
			if (xp->xp_nfree == 0)
				port_reclaim(xp);
			if (xp->xp_nfree != 0)
				xh->xh_tx_frame = xp->xp_free[--xp->xp_nfree];
			(void)pthread_mutex_unlock(&xp->xp_tx_lock);
			if (xh->xh_tx_frame != XDP_NO_FRAME)
				break;
		}
		/* Descriptors a kick left behind hold ring slots and
		 * frames: push them once before giving up. */
		if (attempt != 0 || !tx_ring_busy(xh))
			return FRIO_STATUS_NOMEM;
		tx_kick(xh);
	}
	*bufp = xp->xp_area + xh->xh_tx_frame;
	return FRIO_STATUS_OK;
}

static frio_status_t
xdp_tx_commit(struct frio_handle *hdl, void *buf, size_t len)
{
	xdp_handle_t *xh = xdp_of(hdl);
	xdp_port_t *xp = xh->xh_port;
	uint64_t addr = xh->xh_tx_frame;
	struct xdp_desc *d;
	uint32_t idx;

	if (addr == XDP_NO_FRAME || buf != xp->xp_area + addr)
		return FRIO_STATUS_BADARG;
	xh->xh_tx_frame = XDP_NO_FRAME;
	/* A zero length gives an allocated frame back unsent. */
	if (len == 0 || len > XDP_FRAME_SIZE) {
		free_frame(xp, addr);
		return len == 0 ? FRIO_STATUS_OK : FRIO_STATUS_TOOBIG;
	}
	if (xsk_ring_prod__reserve(&xh->xh_tx, 1, &idx) != 1) {
		free_frame(xp, addr);
		return FRIO_STATUS_NOMEM;
	}
	d = xsk_ring_prod__tx_desc(&xh->xh_tx, idx);
	d->addr = addr;
	d->len = static_cast<uint32_t>(len);
	d->options = 0;
	xsk_ring_prod__submit(&xh->xh_tx, 1);
	tx_kick(xh);
	return FRIO_STATUS_OK;
}

/* A zero-copy driver that ran out of fill frames sleeps until told. */
static void
rx_kick(xdp_handle_t *xh)
{
	int saved;

	if (xh->xh_kick_always ||
	    !xsk_ring_prod__needs_wakeup(&xh->xh_port->xp_fill))
		return;
	saved = errno;
	(void)xsk_wake(xh->xh_fd, SYS_recvfrom);
	errno = saved;
}

static frio_status_t
xdp_rx_get(struct frio_handle *hdl, void **framep, uint32_t *lenp)
{
	xdp_handle_t *xh = xdp_of(hdl);
	xdp_port_t *xp = xh->xh_port;
	const struct xdp_desc *d;
	uint32_t idx;

	/* The bound on what one handle holds: it gets no more until it
	 * puts one back. */
	if (xh->xh_lent == XDP_LEND_MAX)
		return FRIO_STATUS_NOMEM;
	if (xsk_ring_cons__peek(&xh->xh_rx, 1, &idx) == 0) {
		rx_kick(xh);
		return FRIO_STATUS_NOMEM;
	}
	d = xsk_ring_cons__rx_desc(&xh->xh_rx, idx);
	*framep = xsk_umem__get_data(xp->xp_area, d->addr);
	*lenp = d->len;
	xp->xp_owner[d->addr / XDP_FRAME_SIZE] = xh->xh_owner;
	xh->xh_lent++;
	/* The frame is ours now; the ring slot is not needed to hold it. */
	xsk_ring_cons__release(&xh->xh_rx, 1);
	return FRIO_STATUS_OK;
}

static frio_status_t
xdp_rx_put(struct frio_handle *hdl, void *frame)
{
	xdp_handle_t *xh = xdp_of(hdl);
	xdp_port_t *xp = xh->xh_port;
	char *p = static_cast<char *>(frame);
	uint64_t addr;
	uint16_t *owner;
	bool ok;

	if (p < xp->xp_area ||
	    p >= xp->xp_area +
		    static_cast<size_t>(XDP_RX_FRAMES) * XDP_FRAME_SIZE)
		return FRIO_STATUS_BADARG;
	addr = static_cast<uint64_t>(p - xp->xp_area) &
	    ~static_cast<uint64_t>(XDP_FRAME_SIZE - 1);
	owner = &xp->xp_owner[addr / XDP_FRAME_SIZE];
	/* Not lent, or lent by another handle: that handle still owns it. */
	if (*owner != xh->xh_owner) {
		frio_debug("%s: frio_rx_put of a frame that this handle has "
			   "not lent (%p)",
		    hdl->fh_ifname, frame);
		return FRIO_STATUS_BADARG;
	}
	*owner = 0;
	xh->xh_lent--;
	(void)pthread_mutex_lock(&xp->xp_fill_lock);
	ok = port_fill(xp, addr);
	(void)pthread_mutex_unlock(&xp->xp_fill_lock);
	if (!ok)
		return FRIO_STATUS_FAILED;
	rx_kick(xh);
	return FRIO_STATUS_OK;
}

static int
xdp_get_fd(struct frio_handle *hdl)
{
	return xdp_of(hdl)->xh_fd;
}

/* The steering program takes the handle's frames from the kernel. */
static int
xdp_rx_copies(struct frio_handle *hdl)
{
	(void)hdl;
	return 0;
}

extern const frio_backend_ops_t frio_xdp_ops = {
	.fb_name = "xdp",
	.fb_open = xdp_open,
	.fb_close = xdp_close,
	.fb_setup_rx = xdp_setup_rx,
	.fb_tx_alloc = xdp_tx_alloc,
	.fb_tx_commit = xdp_tx_commit,
	.fb_rx_get = xdp_rx_get,
	.fb_rx_put = xdp_rx_put,
	.fb_get_fd = xdp_get_fd,
	.fb_rx_copies = xdp_rx_copies,
	.fb_identify = NULL,
};
