/*
 * The kernel socket's side of bypass mode, and a small table that remembers
 * which sockets are tied to a handle.
 *
 * A handle that takes its frames away from the kernel (AF_XDP steering)
 * needs nothing on the kernel socket.  A handle that sees copies (AF_PACKET)
 * gets a classic BPF socket filter on the kernel socket that drops exactly
 * the datagrams the handle serves and accepts everything else: the
 * arriving interface tells loopback and other interfaces apart, the IP
 * header tells a whole datagram that fits the link from a reassembled one
 * and a plain IPv6 header from one with extension headers.  Switching off
 * removes the filter only from a socket we gave one, so a filter that the
 * application attached itself is never touched, and a descriptor number
 * reused by another socket is recognised by its inode.
 */
#include <errno.h>
#include <linux/filter.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include "os/kernel_bypass.h"
#include "os/libc.h"

typedef struct ost_tie {
	struct ost_tie *ot_next;
	int ot_sd;
	ino_t ot_ino;
	bool ot_filtered; /* we attached a socket filter */
	so_ost_opt_t ot_opt;
} ost_tie_t;

/* Room for the longest program: IPv6, every address. */
#define OST_KB_MAX_INSNS (16 + 8 * OST_KB_MAX_ADDRS)

typedef struct ost_kb_prog {
	struct sock_filter kp_insn[OST_KB_MAX_INSNS];
	unsigned kp_len;
	unsigned kp_accept[OST_KB_MAX_INSNS]; /* jumps to patch: to accept */
	unsigned kp_naccept;
	unsigned kp_drop[OST_KB_MAX_INSNS]; /* jumps to patch: to drop */
	unsigned kp_ndrop;
} ost_kb_prog_t;

static void
kb_emit(ost_kb_prog_t *p, uint16_t code, uint32_t k)
{
	p->kp_insn[p->kp_len++] = (struct sock_filter)BPF_STMT(code, k);
}

/* A load of the network header at off. */
static void
kb_load(ost_kb_prog_t *p, uint16_t size, uint32_t off)
{
	kb_emit(p, BPF_LD | size | BPF_ABS, (uint32_t)SKF_NET_OFF + off);
}

/* if (A != k) accept: the datagram is not one the handle serves. */
static void
kb_accept_unless(ost_kb_prog_t *p, uint32_t k)
{
	p->kp_accept[p->kp_naccept++] = p->kp_len;
	p->kp_insn[p->kp_len++] =
	    (struct sock_filter)BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, k, 0, 0);
}

/* if (A > k) accept. */
static void
kb_accept_above(ost_kb_prog_t *p, uint32_t k)
{
	p->kp_accept[p->kp_naccept++] = p->kp_len;
	p->kp_insn[p->kp_len++] =
	    (struct sock_filter)BPF_JUMP(BPF_JMP | BPF_JGT | BPF_K, k, 0, 0);
}

/* Compares the four bytes at off with word; on a mismatch goes to next. */
static void
kb_word_or_next(ost_kb_prog_t *p, uint32_t off, uint32_t word,
    unsigned *next_fix, unsigned *nfix)
{
	kb_load(p, BPF_W, off);
	next_fix[(*nfix)++] = p->kp_len;
	p->kp_insn[p->kp_len++] =
	    (struct sock_filter)BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, word, 0, 0);
}

static uint32_t
kb_word(const uint8_t *b)
{
	return (uint32_t)b[0] << 24 | (uint32_t)b[1] << 16 |
	    (uint32_t)b[2] << 8 | b[3];
}

/*
 * The program: accept unless the datagram arrived whole on the handle's
 * interface for one of the handle's addresses and its port, then drop.
 */
static void
kb_build(ost_kb_prog_t *p, const so_ost_opt_t *opt)
{
	uint32_t hdr = opt->ost_v6 ? 40 : 20;
	uint32_t port = ntohs(opt->ost_port);

	memset(p, 0, sizeof(*p));
	kb_emit(p, BPF_LD | BPF_W | BPF_ABS,
	    (uint32_t)SKF_AD_OFF + SKF_AD_IFINDEX);
	kb_accept_unless(p, (uint32_t)opt->ost_if_id);
	kb_load(p, BPF_B, 0);
	if (opt->ost_v6) {
		kb_emit(p, BPF_ALU | BPF_AND | BPF_K, 0xf0);
		kb_accept_unless(p, 0x60);
		kb_load(p, BPF_B, 6); /* next header: UDP, nothing between */
		kb_accept_unless(p, IPPROTO_UDP);
		kb_load(p, BPF_H, 4); /* payload length */
		kb_accept_above(p, opt->ost_mtu - hdr);
	} else {
		kb_accept_unless(p, 0x45); /* no options */
		kb_load(p, BPF_B, 9);
		kb_accept_unless(p, IPPROTO_UDP);
		kb_load(p, BPF_H, 6); /* a fragment, or a reassembled one */
		p->kp_accept[p->kp_naccept++] = p->kp_len;
		p->kp_insn[p->kp_len++] =
		    (struct sock_filter)BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K,
			0x3fff, 0, 0);
		kb_load(p, BPF_H, 2); /* total length */
		kb_accept_above(p, opt->ost_mtu);
	}
	kb_load(p, BPF_H, hdr + 2); /* destination port */
	kb_accept_unless(p, port);
	for (uint32_t i = 0; i < opt->ost_naddrs; i++) {
		const uint8_t *a = opt->ost_addrs[i].s6_addr;
		unsigned next[4], nnext = 0;

		if (opt->ost_v6) {
			for (uint32_t w = 0; w < 4; w++)
				kb_word_or_next(p, 24 + 4 * w,
				    kb_word(a + 4 * w), next, &nnext);
		} else {
			kb_word_or_next(p, 16, kb_word(a + 12), next, &nnext);
		}
		/* All words matched: drop. */
		p->kp_drop[p->kp_ndrop++] = p->kp_len;
		p->kp_insn[p->kp_len++] =
		    (struct sock_filter)BPF_JUMP(BPF_JMP | BPF_JA, 0, 0, 0);
		for (unsigned j = 0; j < nnext; j++)
			p->kp_insn[next[j]].jf =
			    (uint8_t)(p->kp_len - next[j] - 1);
	}
	/* accept, then drop; the jumps above land on them. */
	unsigned accept = p->kp_len;
	kb_emit(p, BPF_RET | BPF_K, 0xffffffffU);
	unsigned drop = p->kp_len;
	kb_emit(p, BPF_RET | BPF_K, 0);
	for (unsigned j = 0; j < p->kp_naccept; j++) {
		struct sock_filter *f = &p->kp_insn[p->kp_accept[j]];
		uint8_t off = (uint8_t)(accept - p->kp_accept[j] - 1);

		/* JEQ accepts on false, JGT and JSET on true. */
		if (BPF_OP(f->code) == BPF_JEQ)
			f->jf = off;
		else
			f->jt = off;
	}
	for (unsigned j = 0; j < p->kp_ndrop; j++)
		p->kp_insn[p->kp_drop[j]].k = drop - p->kp_drop[j] - 1;
}

static pthread_mutex_t ost_tie_lock = PTHREAD_MUTEX_INITIALIZER;
static ost_tie_t *ost_ties; /* protected by ost_tie_lock */

static ost_tie_t **
ost_tie_find(int sd)
{
	ost_tie_t **tpp;

	for (tpp = &ost_ties; *tpp != NULL; tpp = &(*tpp)->ot_next) {
		if ((*tpp)->ot_sd == sd)
			return tpp;
	}
	return NULL;
}

static int
sockopt_int(int sd, int name, int *val)
{
	socklen_t len = sizeof(*val);

	return real_getsockopt(sd, SOL_SOCKET, name, val, &len);
}

/* The errors a kernel would give for the option on an unsuitable socket. */
static int
ost_check_bound_udp(int sd)
{
	struct sockaddr_storage ss;
	socklen_t len = sizeof(ss);
	int type, proto, domain;

	if (sockopt_int(sd, SO_TYPE, &type) != 0 ||
	    sockopt_int(sd, SO_PROTOCOL, &proto) != 0 ||
	    sockopt_int(sd, SO_DOMAIN, &domain) != 0)
		return -1; /* EBADF, ENOTSOCK */
	if (type != SOCK_DGRAM || proto != IPPROTO_UDP ||
	    (domain != AF_INET && domain != AF_INET6)) {
		errno = ENOPROTOOPT;
		return -1;
	}
	if (getsockname(sd, (struct sockaddr *)&ss, &len) != 0)
		return -1;
	if ((ss.ss_family == AF_INET &&
		((struct sockaddr_in *)&ss)->sin_port == 0) ||
	    (ss.ss_family == AF_INET6 &&
		((struct sockaddr_in6 *)&ss)->sin6_port == 0)) {
		errno = EINVAL;
		return -1;
	}
	return 0;
}

/* The filter of a handle that sees copies; 0 or -1 with errno. */
static int
ost_attach_drop_filter(int sd, const so_ost_opt_t *opt)
{
	ost_kb_prog_t *p;
	struct sock_fprog prog;
	int ret;

	if (opt->ost_naddrs > OST_KB_MAX_ADDRS || opt->ost_mtu < 68) {
		errno = EINVAL;
		return -1;
	}
	p = (ost_kb_prog_t *)malloc(sizeof(*p));
	if (p == NULL) {
		errno = ENOMEM;
		return -1;
	}
	kb_build(p, opt);
	prog.len = (unsigned short)p->kp_len;
	prog.filter = p->kp_insn;
	ret = real_setsockopt(sd, SOL_SOCKET, SO_ATTACH_FILTER, &prog,
	    sizeof(prog));
	free(p);
	return ret;
}

static int
ost_bypass_on(int sd, const so_ost_opt_t *opt)
{
	struct stat st;
	ost_tie_t *tie, **tpp;

	if (ost_check_bound_udp(sd) != 0 || fstat(sd, &st) != 0)
		return -1;
	tie = (ost_tie_t *)malloc(sizeof(*tie));
	if (tie == NULL) {
		errno = ENOMEM;
		return -1;
	}
	tie->ot_filtered = false;
	if (opt->ost_copies) {
		if (ost_attach_drop_filter(sd, opt) != 0) {
			free(tie);
			return -1;
		}
		tie->ot_filtered = true;
	}
	tie->ot_sd = sd;
	tie->ot_ino = st.st_ino;
	tie->ot_opt = *opt;
	(void)pthread_mutex_lock(&ost_tie_lock);
	if ((tpp = ost_tie_find(sd)) != NULL) { /* re-armed: replace */
		ost_tie_t *old = *tpp;

		*tpp = old->ot_next;
		free(old);
	}
	tie->ot_next = ost_ties;
	ost_ties = tie;
	(void)pthread_mutex_unlock(&ost_tie_lock);
	return 0;
}

static ost_tie_t *
ost_tie_take(int sd)
{
	ost_tie_t **tpp, *tie = NULL;

	(void)pthread_mutex_lock(&ost_tie_lock);
	if ((tpp = ost_tie_find(sd)) != NULL) {
		tie = *tpp;
		*tpp = tie->ot_next;
	}
	(void)pthread_mutex_unlock(&ost_tie_lock);
	return tie;
}

static int
ost_bypass_off(int sd)
{
	ost_tie_t *tie = ost_tie_take(sd);
	struct stat st;
	int ret = 0;

	/* Never armed (or already off): a kernel would accept this too. */
	if (tie == NULL)
		return 0;
	if (!tie->ot_filtered) {
		ret = 0;
	} else if (fstat(sd, &st) != 0) {
		ret = -1;
	} else if (st.st_ino == tie->ot_ino) {
		int unused = 0; /* the kernel wants an int, and ignores it */

		ret = real_setsockopt(sd, SOL_SOCKET, SO_DETACH_FILTER, &unused,
		    sizeof(unused));
		if (ret != 0 && errno == ENOENT)
			ret = 0; /* the application removed it already */
	}
	free(tie);
	return ret;
}

int
ost_kernel_bypass_set(int sd, const so_ost_opt_t *opt)
{
	return opt->ost_onoff ? ost_bypass_on(sd, opt) : ost_bypass_off(sd);
}

/* The socket is closed: forget it without touching the descriptor. */
void
ost_kernel_bypass_forget(int sd)
{
	free(ost_tie_take(sd));
}

bool
ost_kernel_bypass_get(int sd, so_ost_opt_t *opt)
{
	ost_tie_t **tpp;
	bool found = false;

	(void)pthread_mutex_lock(&ost_tie_lock);
	if ((tpp = ost_tie_find(sd)) != NULL) {
		*opt = (*tpp)->ot_opt;
		found = true;
	}
	(void)pthread_mutex_unlock(&ost_tie_lock);
	return found;
}
