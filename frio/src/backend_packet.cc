/*
 * The packet backend: an AF_PACKET socket on one interface, with a
 * classic BPF socket filter compiled from the handle's filters, a
 * TPACKET_V2 receive ring that frames are lent from in place, and transmit
 * by sendto() past the qdisc.
 *
 * AF_PACKET taps a copy: every frame a handle receives also goes on up the
 * kernel stack, which answers it as it would without us (an ICMP port
 * unreachable, say, when no kernel socket has the port).  Only CAP_NET_RAW
 * is needed, and any Ethernet interface works.
 */
#include <errno.h>
#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include "frio_impl.h"

/* A frame slot holds the ring header and one whole frame. */
#define PKT_FRAME_SIZE 2048
#define PKT_BLOCK_SIZE (1 << 16)
#define PKT_BLOCK_NR   16
#define PKT_FRAME_NR   (PKT_BLOCK_SIZE / PKT_FRAME_SIZE * PKT_BLOCK_NR)

/* Worst case: all 16 filters IPv6 with source address and port. */
#define PKT_MAX_INSNS  512
#define PKT_MAX_LABELS (FRIO_MAX_FILTERS + 8)

typedef struct pkt_handle {
	struct frio_handle ph_base; /* first: the common part */
	int ph_fd;
	uint8_t *ph_ring;    /* PKT_FRAME_NR slots */
	unsigned ph_rx_next; /* next slot the kernel fills */
	int ph_lent_count;
	uint8_t ph_lent[PKT_FRAME_NR];
	struct sockaddr_ll ph_dst; /* sendto() address, ifindex set */
	uint8_t ph_tx_buf[FRIO_MAX_FRAME];
} pkt_handle_t;

/*
 * A classic BPF program under construction.  Conditional jumps reach at
 * most 255 instructions ahead, so jumps name labels and are resolved at
 * the end, which fails rather than emit a wrong offset.
 */
typedef struct bpf_buf {
	struct sock_filter bb_ins[PKT_MAX_INSNS];
	uint8_t bb_jt[PKT_MAX_INSNS]; /* label, or 0: next instruction */
	uint8_t bb_jf[PKT_MAX_INSNS];
	int bb_at[PKT_MAX_LABELS];
	int bb_n;
	int bb_nlabels;
	bool bb_full;
} bpf_buf_t;

static int
bb_label(bpf_buf_t *b)
{
	if (b->bb_nlabels + 1 >= PKT_MAX_LABELS) {
		b->bb_full = true;
		return 0;
	}
	b->bb_at[++b->bb_nlabels] = -1;
	return b->bb_nlabels;
}

static void
bb_place(bpf_buf_t *b, int label)
{
	b->bb_at[label] = b->bb_n;
}

static void
bb_jump(bpf_buf_t *b, uint16_t code, uint32_t k, int jt, int jf)
{
	struct sock_filter ins = { code, 0, 0, k };

	if (b->bb_n == PKT_MAX_INSNS) {
		b->bb_full = true;
		return;
	}
	b->bb_ins[b->bb_n] = ins;
	b->bb_jt[b->bb_n] = static_cast<uint8_t>(jt);
	b->bb_jf[b->bb_n] = static_cast<uint8_t>(jf);
	b->bb_n++;
}

static void
bb_emit(bpf_buf_t *b, uint16_t code, uint32_t k)
{
	bb_jump(b, code, k, 0, 0);
}

static bool
bb_resolve(bpf_buf_t *b)
{
	if (b->bb_full)
		return false;
	for (int i = 0; i < b->bb_n; i++) {
		int labels[2] = { b->bb_jt[i], b->bb_jf[i] };
		uint8_t *offs[2] = { &b->bb_ins[i].jt, &b->bb_ins[i].jf };

		for (int j = 0; j < 2; j++) {
			int off;

			if (labels[j] == 0)
				continue;
			off = b->bb_at[labels[j]] - (i + 1);
			if (b->bb_at[labels[j]] < 0 || off < 0 || off > 255)
				return false;
			*offs[j] = static_cast<uint8_t>(off);
		}
	}
	return true;
}

static uint32_t
be32_at(const uint8_t *p)
{
	return static_cast<uint32_t>(p[0]) << 24 | p[1] << 16 | p[2] << 8 |
	    p[3];
}

/* Compares the alen-byte field at off with val, else jumps to fail. */
static void
bb_match(bpf_buf_t *b, uint32_t off, const uint8_t *val, size_t alen, int fail)
{
	for (size_t i = 0; i + 4 <= alen; i += 4) {
		bb_emit(b, BPF_LD | BPF_W | BPF_ABS, off + i);
		bb_jump(b, BPF_JMP | BPF_JEQ | BPF_K, be32_at(val + i), 0,
		    fail);
	}
	if (alen % 4 == 2) {
		bb_emit(b, BPF_LD | BPF_H | BPF_ABS, off + alen - 2);
		bb_jump(b, BPF_JMP | BPF_JEQ | BPF_K,
		    static_cast<uint32_t>(val[alen - 2] << 8 | val[alen - 1]),
		    0, fail);
	}
}

/*
 * One family's part of the program: its header checks, then one block per
 * filter of that family, each falling through to the next on a mismatch.
 * The reject sits right after the header checks so that none of their
 * jumps has to reach past the blocks.
 */
static void
bb_family(bpf_buf_t *b, const frio_filter_set_t *set, bool v6)
{
	size_t alen = v6 ? 16 : 4;
	uint32_t src = v6 ? 22 : 26, dst = v6 ? 38 : 30;
	uint32_t ports = v6 ? 54 : 34;
	int reject = bb_label(b), blocks = bb_label(b);

	/* The IP length at iplen_off counts from udp_off - ip_hlen; the UDP
	 * length must be it less the IP header, and all must fit. */
	uint32_t iplen_off = v6 ? 18 : 16, ip_hlen = v6 ? 0 : 20;
	uint32_t udp_off = v6 ? 54 : 34, min_len = v6 ? 8 : 28;

	if (v6) {
		bb_emit(b, BPF_LD | BPF_B | BPF_ABS, 14);
		bb_emit(b, BPF_ALU | BPF_AND | BPF_K, 0xf0);
		bb_jump(b, BPF_JMP | BPF_JEQ | BPF_K, 0x60, 0, reject);
		bb_emit(b, BPF_LD | BPF_B | BPF_ABS, 20);
		bb_jump(b, BPF_JMP | BPF_JEQ | BPF_K, 17, 0, reject);
	} else {
		/* No options, not a fragment, UDP. */
		bb_emit(b, BPF_LD | BPF_B | BPF_ABS, 14);
		bb_jump(b, BPF_JMP | BPF_JEQ | BPF_K, 0x45, 0, reject);
		bb_emit(b, BPF_LD | BPF_H | BPF_ABS, 20);
		bb_jump(b, BPF_JMP | BPF_JSET | BPF_K, 0x3fff, reject, 0);
		bb_emit(b, BPF_LD | BPF_B | BPF_ABS, 23);
		bb_jump(b, BPF_JMP | BPF_JEQ | BPF_K, 17, 0, reject);
	}
	bb_emit(b, BPF_LD | BPF_H | BPF_ABS, iplen_off);
	bb_jump(b, BPF_JMP | BPF_JGE | BPF_K, min_len, 0, reject);
	bb_emit(b, BPF_ST, 0);
	bb_emit(b, BPF_ALU | BPF_ADD | BPF_K, udp_off - ip_hlen);
	bb_emit(b, BPF_LDX | BPF_W | BPF_LEN, 0);
	bb_jump(b, BPF_JMP | BPF_JGT | BPF_X, 0, reject, 0);
	bb_emit(b, BPF_LD | BPF_MEM, 0);
	if (ip_hlen != 0)
		bb_emit(b, BPF_ALU | BPF_SUB | BPF_K, ip_hlen);
	bb_emit(b, BPF_MISC | BPF_TAX, 0);
	bb_emit(b, BPF_LD | BPF_H | BPF_ABS, udp_off + 4);
	bb_jump(b, BPF_JMP | BPF_JEQ | BPF_X, 0, blocks, reject);
	bb_place(b, reject);
	bb_emit(b, BPF_RET | BPF_K, 0);
	bb_place(b, blocks);
	for (int i = 0; i < set->fs_count; i++) {
		const frio_filter_args_t *f = &set->fs_filter[i];
		const uint8_t *fsrc = f->uf_src_ip.s6_addr + 16 - alen;
		static const uint8_t zero[16] = { 0 };
		int next;

		if (IN6_IS_ADDR_V4MAPPED(&f->uf_dst_ip) == v6)
			continue;
		next = bb_label(b);
		bb_match(b, 0, f->uf_macaddr, 6, next);
		bb_match(b, dst, f->uf_dst_ip.s6_addr + 16 - alen, alen, next);
		bb_match(b, ports + 2,
		    reinterpret_cast<const uint8_t *>(&f->uf_dst_port), 2,
		    next);
		if (memcmp(f->uf_src_ip.s6_addr, zero, 16) != 0)
			bb_match(b, src, fsrc, alen, next);
		if (f->uf_src_port != 0)
			bb_match(b, ports,
			    reinterpret_cast<const uint8_t *>(&f->uf_src_port),
			    2, next);
		bb_emit(b, BPF_RET | BPF_K, 0x40000);
		bb_place(b, next);
	}
	bb_emit(b, BPF_RET | BPF_K, 0);
}

/*
 * The rule of frio_filter_match, in classic BPF.  Frames the kernel sends
 * and frames whose VLAN tag the driver took off are never the handle's.
 */
static bool
bb_compile(bpf_buf_t *b, const frio_filter_set_t *set)
{
	int reject = bb_label(b), v4 = bb_label(b), v6 = bb_label(b);

	/* Until the first filter, the handle takes nothing. */
	if (set->fs_count == 0) {
		bb_emit(b, BPF_RET | BPF_K, 0);
		return bb_resolve(b);
	}
	bb_emit(b, BPF_LD | BPF_W | BPF_ABS, SKF_AD_OFF + SKF_AD_PKTTYPE);
	bb_jump(b, BPF_JMP | BPF_JEQ | BPF_K, PACKET_OUTGOING, reject, 0);
	bb_emit(b, BPF_LD | BPF_W | BPF_ABS,
	    SKF_AD_OFF + SKF_AD_VLAN_TAG_PRESENT);
	bb_jump(b, BPF_JMP | BPF_JEQ | BPF_K, 0, 0, reject);
	bb_emit(b, BPF_LD | BPF_W | BPF_LEN, 0);
	bb_jump(b, BPF_JMP | BPF_JGT | BPF_K, FRIO_MAX_FRAME, reject, 0);
	bb_emit(b, BPF_LD | BPF_H | BPF_ABS, 12);
	bb_jump(b, BPF_JMP | BPF_JEQ | BPF_K, ETH_P_IP, v4, 0);
	bb_jump(b, BPF_JMP | BPF_JEQ | BPF_K, ETH_P_IPV6, v6, reject);
	bb_place(b, reject);
	bb_emit(b, BPF_RET | BPF_K, 0);
	bb_place(b, v4);
	bb_family(b, set, false);
	bb_place(b, v6);
	bb_family(b, set, true);
	return bb_resolve(b);
}

int
frio_packet_filter(const frio_filter_set_t *set, struct sock_filter *prog,
    int max)
{
	/* Too big for the stack of an application's thread. */
	bpf_buf_t *b = static_cast<bpf_buf_t *>(calloc(1, sizeof(*b)));
	int n = -1;

	if (b == NULL)
		return -1;
	if (bb_compile(b, set) && b->bb_n <= max) {
		memcpy(prog, b->bb_ins, sizeof(prog[0]) * b->bb_n);
		n = b->bb_n;
	}
	free(b);
	return n;
}

static frio_status_t
pkt_attach(pkt_handle_t *p, const frio_filter_set_t *set)
{
	struct sock_fprog prog;
	int n, err;

	prog.filter = static_cast<struct sock_filter *>(
	    calloc(PKT_MAX_INSNS, sizeof(struct sock_filter)));
	if (prog.filter == NULL)
		return frio_fail(FRIO_STATUS_FAILED,
		    "no memory for the socket filter");
	if ((n = frio_packet_filter(set, prog.filter, PKT_MAX_INSNS)) < 0) {
		free(prog.filter);
		return frio_fail(FRIO_STATUS_FAILED,
		    "cannot compile the socket filter");
	}
	prog.len = static_cast<unsigned short>(n);
	err = setsockopt(p->ph_fd, SOL_SOCKET, SO_ATTACH_FILTER, &prog,
	    sizeof(prog));
	if (err != 0)
		frio_debug("%s: SO_ATTACH_FILTER (%d instructions): %s",
		    p->ph_base.fh_ifname, n, strerror(errno));
	free(prog.filter);
	return err == 0 ? FRIO_STATUS_OK :
			  frio_fail(FRIO_STATUS_FAILED,
			      "the kernel refused the AF_PACKET socket filter");
}

static void
pkt_free(pkt_handle_t *p)
{
	if (p->ph_ring != NULL)
		(void)munmap(p->ph_ring, PKT_BLOCK_SIZE * PKT_BLOCK_NR);
	if (p->ph_fd >= 0)
		(void)close(p->ph_fd);
	free(p);
}

static frio_status_t
pkt_open(const char *ifname, int ifindex, struct frio_handle **hdlp)
{
	static const frio_filter_set_t none = { 0, {} };
	struct tpacket_req req;
	struct sockaddr_ll sll;
	pkt_handle_t *p;
	frio_status_t st;
	int one = 1, ver = TPACKET_V2;
	void *ring;

	p = static_cast<pkt_handle_t *>(calloc(1, sizeof(*p)));
	if (p == NULL)
		return frio_fail(FRIO_STATUS_FAILED, "out of memory");
	/* Protocol 0 receives nothing until bind, by which time the filter
	 * is in place: no stray frame reaches the ring. */
	p->ph_fd =
	    socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
	if (p->ph_fd < 0) {
		st = errno == EPERM || errno == EACCES ?
		    frio_fail(FRIO_STATUS_DENIED,
			"permission denied: "
			"the packet backend needs root or CAP_NET_RAW") :
		    errno == EAFNOSUPPORT ?
		    frio_fail(FRIO_STATUS_NOTSUP,
			"this kernel has no AF_PACKET sockets") :
		    frio_fail(FRIO_STATUS_FAILED,
			"cannot open an AF_PACKET "
			"socket");
		pkt_free(p);
		return st;
	}
	p->ph_base.fh_ifindex = ifindex;
	(void)snprintf(p->ph_base.fh_ifname, sizeof(p->ph_base.fh_ifname), "%s",
	    ifname);
	if ((st = pkt_attach(p, &none)) != FRIO_STATUS_OK)
		goto fail;
	if (setsockopt(p->ph_fd, SOL_PACKET, PACKET_VERSION, &ver,
		sizeof(ver)) != 0) {
		st = frio_fail(FRIO_STATUS_NOTSUP,
		    "this kernel lacks "
		    "TPACKET_V2 rings");
		goto fail;
	}
	req.tp_block_size = PKT_BLOCK_SIZE;
	req.tp_block_nr = PKT_BLOCK_NR;
	req.tp_frame_size = PKT_FRAME_SIZE;
	req.tp_frame_nr = PKT_FRAME_NR;
	if (setsockopt(p->ph_fd, SOL_PACKET, PACKET_RX_RING, &req,
		sizeof(req)) != 0) {
		frio_debug("%s: PACKET_RX_RING: %s", ifname, strerror(errno));
		st = frio_fail(FRIO_STATUS_FAILED,
		    "cannot set up the "
		    "AF_PACKET receive ring");
		goto fail;
	}
	ring = mmap(NULL, PKT_BLOCK_SIZE * PKT_BLOCK_NR, PROT_READ | PROT_WRITE,
	    MAP_SHARED, p->ph_fd, 0);
	if (ring == MAP_FAILED) {
		frio_debug("%s: mmap of the receive ring: %s", ifname,
		    strerror(errno));
		st = frio_fail(FRIO_STATUS_FAILED,
		    "cannot map the AF_PACKET "
		    "receive ring");
		goto fail;
	}
	p->ph_ring = static_cast<uint8_t *>(ring);
	/* Before 4.20 there is no such option; the filter and the ring
	 * check drop outgoing frames anyway. */
	if (setsockopt(p->ph_fd, SOL_PACKET, PACKET_IGNORE_OUTGOING, &one,
		sizeof(one)) != 0)
		frio_debug("%s: PACKET_IGNORE_OUTGOING: %s", ifname,
		    strerror(errno));
	if (setsockopt(p->ph_fd, SOL_PACKET, PACKET_QDISC_BYPASS, &one,
		sizeof(one)) != 0)
		frio_debug("%s: PACKET_QDISC_BYPASS: %s", ifname,
		    strerror(errno));
	memset(&sll, 0, sizeof(sll));
	sll.sll_family = AF_PACKET;
	sll.sll_protocol = htons(ETH_P_ALL);
	sll.sll_ifindex = ifindex;
	if (bind(p->ph_fd, reinterpret_cast<struct sockaddr *>(&sll),
		sizeof(sll)) != 0) {
		frio_debug("%s: bind: %s", ifname, strerror(errno));
		st = errno == ENODEV ?
		    frio_fail(FRIO_STATUS_NOTFOUND, "interface not found") :
		    frio_fail(FRIO_STATUS_FAILED,
			"cannot bind the AF_PACKET socket to the interface");
		goto fail;
	}
	p->ph_dst.sll_family = AF_PACKET;
	p->ph_dst.sll_ifindex = ifindex;
	p->ph_dst.sll_halen = ETH_ALEN;
	*hdlp = &p->ph_base;
	return FRIO_STATUS_OK;
fail:
	pkt_free(p);
	return st;
}

static pkt_handle_t *
pkt_of(struct frio_handle *hdl)
{
	return reinterpret_cast<pkt_handle_t *>(hdl);
}

static void
pkt_close(struct frio_handle *hdl)
{
	pkt_free(pkt_of(hdl));
}

static frio_status_t
pkt_setup_rx(struct frio_handle *hdl, const frio_filter_args_t *filter,
    const frio_filter_set_t *next)
{
	(void)filter;
	return pkt_attach(pkt_of(hdl), next);
}

/* One buffer is enough: the transmit side is used by one thread, and
 * sendto() has copied the frame by the time it returns. */
static frio_status_t
pkt_tx_alloc(struct frio_handle *hdl, void **bufp)
{
	*bufp = pkt_of(hdl)->ph_tx_buf;
	return FRIO_STATUS_OK;
}

static frio_status_t
pkt_tx_commit(struct frio_handle *hdl, void *buf, size_t len)
{
	pkt_handle_t *p = pkt_of(hdl);
	const uint8_t *f = static_cast<const uint8_t *>(buf);

	/* The frame's own EtherType: the kernel takes the protocol from the
	 * address, not from the bytes. */
	memcpy(&p->ph_dst.sll_protocol, f + 12, 2);
	memcpy(p->ph_dst.sll_addr, f, ETH_ALEN);
	if (sendto(p->ph_fd, buf, len, MSG_DONTWAIT,
		reinterpret_cast<struct sockaddr *>(&p->ph_dst),
		sizeof(p->ph_dst)) >= 0)
		return FRIO_STATUS_OK;
	switch (errno) {
	case EAGAIN:
	case ENOBUFS:
		return FRIO_STATUS_NOMEM;
	case EMSGSIZE:
		return FRIO_STATUS_TOOBIG;
	default:
		frio_debug("%s: sendto: %s", hdl->fh_ifname, strerror(errno));
		return FRIO_STATUS_FAILED;
	}
}

static struct tpacket2_hdr *
pkt_slot(pkt_handle_t *p, unsigned i)
{
	return reinterpret_cast<struct tpacket2_hdr *>(
	    p->ph_ring + static_cast<size_t>(i) * PKT_FRAME_SIZE);
}

static void
pkt_release(struct tpacket2_hdr *h)
{
	__atomic_store_n(&h->tp_status, TP_STATUS_KERNEL, __ATOMIC_RELEASE);
}

static frio_status_t
pkt_rx_get(struct frio_handle *hdl, void **framep, uint32_t *lenp)
{
	pkt_handle_t *p = pkt_of(hdl);

	/* Bounded: each turn hands a slot back or returns. */
	for (;;) {
		unsigned i = p->ph_rx_next;
		struct tpacket2_hdr *h = pkt_slot(p, i);
		uint32_t status =
		    __atomic_load_n(&h->tp_status, __ATOMIC_ACQUIRE);
		const struct sockaddr_ll *sll;

		/* A lent slot still reads as the user's: the ring has gone
		 * all the way round to frames not yet put back. */
		if ((status & TP_STATUS_USER) == 0 || p->ph_lent[i])
			return FRIO_STATUS_NOMEM;
		p->ph_rx_next = (i + 1) % PKT_FRAME_NR;
		sll = reinterpret_cast<const struct sockaddr_ll *>(
		    reinterpret_cast<uint8_t *>(h) +
		    TPACKET_ALIGN(sizeof(struct tpacket2_hdr)));
		if (sll->sll_pkttype == PACKET_OUTGOING ||
		    (status & TP_STATUS_VLAN_VALID) != 0 ||
		    h->tp_snaplen != h->tp_len) {
			pkt_release(h);
			continue;
		}
		p->ph_lent[i] = 1;
		p->ph_lent_count++;
		*framep = reinterpret_cast<uint8_t *>(h) + h->tp_mac;
		*lenp = h->tp_snaplen;
		return FRIO_STATUS_OK;
	}
}

static frio_status_t
pkt_rx_put(struct frio_handle *hdl, void *frame)
{
	pkt_handle_t *p = pkt_of(hdl);
	uint8_t *f = static_cast<uint8_t *>(frame);
	size_t i;

	/* Slots may come back in any order: the kernel fills them in ring
	 * order and stops at one that is still the user's. */
	if (f < p->ph_ring ||
	    (i = static_cast<size_t>(f - p->ph_ring) / PKT_FRAME_SIZE) >=
		PKT_FRAME_NR ||
	    !p->ph_lent[i] ||
	    f !=
		reinterpret_cast<uint8_t *>(pkt_slot(p, i)) +
		    pkt_slot(p, i)->tp_mac) {
		frio_debug("%s: frio_rx_put of a frame that is not lent (%p)",
		    hdl->fh_ifname, frame);
		return FRIO_STATUS_BADARG;
	}
	p->ph_lent[i] = 0;
	p->ph_lent_count--;
	pkt_release(pkt_slot(p, i));
	return FRIO_STATUS_OK;
}

static int
pkt_get_fd(struct frio_handle *hdl)
{
	return pkt_of(hdl)->ph_fd;
}

/* An AF_PACKET socket taps a copy; the kernel's stack gets the frame. */
static int
pkt_rx_copies(struct frio_handle *hdl)
{
	(void)hdl;
	return 1;
}

const frio_backend_ops_t frio_packet_ops = {
	.fb_name = "packet",
	.fb_open = pkt_open,
	.fb_close = pkt_close,
	.fb_setup_rx = pkt_setup_rx,
	.fb_tx_alloc = pkt_tx_alloc,
	.fb_tx_commit = pkt_tx_commit,
	.fb_rx_get = pkt_rx_get,
	.fb_rx_put = pkt_rx_put,
	.fb_get_fd = pkt_get_fd,
	.fb_rx_copies = pkt_rx_copies,
	.fb_identify = NULL,
};
