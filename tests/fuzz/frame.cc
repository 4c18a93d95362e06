/*
 * Frames from the wire against everything the receive path runs on them:
 * the verdict, the parse and the copy-out, the control data, and (engine
 * mode) the receive calls on a socket attached to an in-memory handle,
 * which queues whatever bytes it is given.  Besides the sanitizers'
 * findings, each accepted frame must be a well-formed, unfragmented UDP
 * datagram for the socket whose lengths agree, and each such datagram must
 * be accepted; every dropped one is counted.
 *
 * Input: eight control bytes, then the frame.
 *   c0: bit 0 IPv6, 1 engine mode, 2 connected, 3 wildcard address,
 *       4 packet information, 5-6 receive time kind, 7 aim the frame at
 *       the engine's socket (its address and port written in)
 *   c1: control buffer length; c2: iovec count (0-3), bit 2: the
 *       receive time from the clock (direct mode);
 *   c3-c5: iovec lengths / 8; c6: sender buffer length, 255 for none;
 *   c7 (engine): bit 0 peek, 1 MSG_TRUNC, 2 FIONREAD first, 3 poll
 *       first.
 */
#include <arpa/inet.h>
#include <errno.h>
#include <string.h>

#include <algorithm>
#include <vector>

#include "core/receive.h"
#include "frio_mem.h"
#include "fuzz.h"
#include "os/frio_loader.h"

namespace
{

/* What the frame is, decided from its bytes alone. */
struct wire {
	bool formed; /* Ethernet + IP without options/fragments + UDP, lengths
			agreeing and inside the frame */
	size_t off;  /* payload */
	size_t plen; /* payload bytes */
	const uint8_t *src, *dst;
	in_port_t sport, dport; /* network order */
	size_t alen;
};

wire
read_wire(bool v6, const uint8_t *f, size_t n)
{
	wire w = {};

	w.alen = v6 ? 16 : 4;
	w.off = v6 ? 62 : 42;
	if (n < w.off)
		return w;
	w.src = f + (v6 ? 22 : 26);
	w.dst = f + (v6 ? 38 : 30);
	memcpy(&w.sport, f + w.off - 8, 2);
	memcpy(&w.dport, f + w.off - 6, 2);
	if (v6) {
		size_t pl = be16(f + 18);

		w.formed = be16(f + 12) == 0x86dd && f[14] >> 4 == 6 &&
		    f[20] == IPPROTO_UDP && pl >= 8 && pl <= n - 54 &&
		    be16(f + 58) == pl;
		w.plen = pl - 8;
	} else {
		size_t tl = be16(f + 16);

		w.formed = be16(f + 12) == 0x0800 && f[14] == 0x45 &&
		    (be16(f + 20) & 0x3fff) == 0 && f[23] == IPPROTO_UDP &&
		    tl >= 28 && tl <= n - 14 && be16(f + 38) == tl - 20;
		w.plen = tl - 28;
	}
	return w;
}

const uint8_t *
bytes_of(const uost_t *up, const struct in6_addr *a)
{
	return up->uost_is_v6 ? a->s6_addr : a->s6_addr + 12;
}

/* Sources the kernel drops a datagram for. */
bool
martian(bool v6, const uint8_t *s)
{
	static const uint8_t loop6[16] = { 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
		0, 0, 0, 1 };
	static const uint8_t mapped[12] = { 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff,
		0xff };

	if (v6)
		return s[0] == 0xff || memcmp(s, loop6, 16) == 0 ||
		    memcmp(s, mapped, 12) == 0;
	return s[0] == 0 || s[0] == 127 || (s[0] & 0xf0) == 0xe0 ||
	    (s[0] == 255 && s[1] == 255 && s[2] == 255 && s[3] == 255);
}

enum expect {
	E_DROP,
	E_FOREIGN,
	E_ACCEPT
};

expect
expected(const uost_t *up, const wire &w)
{
	static const uint8_t zero[16] = {};
	const uint8_t *la = bytes_of(up, &up->uost_laddr_v6);
	if (!w.formed)
		return E_DROP;
	bool group =
	    up->uost_is_v6 ? w.dst[0] == 0xff : (w.dst[0] & 0xf0) == 0xe0;
	if (martian(up->uost_is_v6, w.src) || w.dport != up->uost_lport ||
	    (memcmp(la, zero, w.alen) != 0 && memcmp(la, w.dst, w.alen) != 0 &&
		!group))
		return E_DROP;
	if (up->uost_connected &&
	    (w.sport != up->uost_fport ||
		memcmp(w.src, bytes_of(up, &up->uost_faddr_v6), w.alen) != 0))
		return E_FOREIGN;
	return E_ACCEPT;
}

/*
 * The sender: the frame parser writes it whole or not at all; a receive
 * call cuts it to the caller's length, which then says the whole length,
 * as the kernel does.  Nothing past what was written is touched.
 */
void
check_from(const uost_t *up, const wire &w, const uint8_t *from,
    socklen_t given, socklen_t got, bool call)
{
	socklen_t need = up->uost_is_v6 ? sizeof(struct sockaddr_in6) :
					  sizeof(struct sockaddr_in);
	size_t wrote = given >= need ? need : call ? given : 0;
	struct sockaddr_in6 want = {};
	auto *w4 = (struct sockaddr_in *)&want;

	if (up->uost_is_v6) {
		want.sin6_family = AF_INET6, want.sin6_port = w.sport;
		memcpy(&want.sin6_addr, w.src, 16);
		if (IN6_IS_ADDR_LINKLOCAL(&want.sin6_addr))
			want.sin6_scope_id = up->uost_if_index;
	} else {
		w4->sin_family = AF_INET, w4->sin_port = w.sport;
		memcpy(&w4->sin_addr, w.src, 4);
	}
	FUZZ_CHECK(got == (given >= need || call ? need : given));
	/* Family, port, address; for IPv6 flow label and scope too. */
	FUZZ_CHECK(
	    memcmp(from, &want,
		std::min(wrote, up->uost_is_v6 ? sizeof(want) : 8)) == 0);
	for (size_t i = wrote; i < 40; i++)
		FUZZ_CHECK(from[i] == 0xa5);
}

/* The receiving buffers, each its own allocation so that a write past
 * one is caught. */
struct bufs {
	struct iovec iov[3];
	size_t niov = 0, room = 0;
	uint8_t *name = nullptr, *control = nullptr;
	socklen_t namelen = 0;
	size_t controllen = 0;

	void make(fuzz_in &in, uint8_t c1, uint8_t c2, uint8_t c6)
	{
		niov = c2 & 3;
		for (size_t i = 0; i < 3; i++) {
			size_t len = (size_t)in.byte() * 8;

			if (i >= niov)
				continue;
			iov[i].iov_base = malloc(len);
			iov[i].iov_len = len;
			room += len;
		}
		controllen = c1;
		control = (uint8_t *)malloc(controllen);
		namelen = c6 == 255 ? 0 : c6 % 40;
		name = c6 == 255 ? nullptr : (uint8_t *)malloc(40);
		if (name != nullptr)
			memset(name, 0xa5, 40);
	}

	void msg(struct msghdr *m)
	{
		memset(m, 0, sizeof(*m));
		m->msg_name = name;
		m->msg_namelen = namelen;
		m->msg_iov = niov != 0 ? iov : nullptr;
		m->msg_iovlen = niov;
		m->msg_control = control;
		m->msg_controllen = controllen;
	}

	/* The payload as scattered over the iovecs: n bytes of it. */
	void check_payload(const uint8_t *payload, size_t n)
	{
		for (size_t i = 0; i < niov && n != 0; i++) {
			size_t k = n < iov[i].iov_len ? n : iov[i].iov_len;

			FUZZ_CHECK(memcmp(iov[i].iov_base, payload, k) == 0);
			payload += k;
			n -= k;
		}
	}

	~bufs()
	{
		for (size_t i = 0; i < niov; i++)
			free(iov[i].iov_base);
		free(control);
		free(name);
	}
};

/*
 * The control data, as the kernel's put_cmsg lays it out: each message
 * cut to the room left, none once not even a header fits.  Data are
 * checked where they can be known.
 */
void
check_cmsgs(const uost_t *up, const struct msghdr *m, size_t given,
    const wire &w, const struct timespec *ts)
{
	struct want {
		int level, type;
		uint8_t data[32];
		size_t len, known; /* bytes of data that can be checked */
	} wants[2];
	int nw = 0, stamp = (int)(up->uost_rx_cmsgs & OST_RX_STAMP_MASK);
	size_t left = given, at = 0;
	int flags = 0;

	if (stamp != 0) {
		want &x = wants[nw++];
		int64_t t[2] = {};

		if (ts != nullptr) {
			t[0] = ts->tv_sec;
			t[1] = stamp == SO_TIMESTAMP_OLD ||
				stamp == SO_TIMESTAMP_NEW ?
			    ts->tv_nsec / 1000 :
			    ts->tv_nsec;
		}
		x = { SOL_SOCKET, stamp, {}, sizeof(t),
			ts != nullptr ? sizeof(t) : 0 };
		memcpy(x.data, t, sizeof(t));
	}
	if (up->uost_rx_cmsgs & OST_RX_PKTINFO) {
		want &x = wants[nw++];

		if (up->uost_is_v6) {
			struct in6_pktinfo pi = {};

			memcpy(&pi.ipi6_addr, w.dst, 16);
			pi.ipi6_ifindex = up->uost_if_index;
			x = { SOL_IPV6, IPV6_PKTINFO, {}, sizeof(pi),
				sizeof(pi) };
			memcpy(x.data, &pi, sizeof(pi));
		} else {
			struct in_pktinfo pi = {};

			pi.ipi_ifindex = (int)up->uost_if_index;
			memcpy(&pi.ipi_addr, w.dst, 4);
			/* ipi_spec_dst is the socket's choice for a group. */
			x = { SOL_IP, IP_PKTINFO, {}, sizeof(pi),
				offsetof(struct in_pktinfo, ipi_spec_dst) };
			memcpy(x.data, &pi, sizeof(pi));
		}
	}
	for (int i = 0; i < nw; i++) {
		const want &x = wants[i];
		struct cmsghdr h;
		size_t cl = CMSG_LEN(x.len), adv;

		if (m->msg_control == nullptr || left < sizeof(h)) {
			flags |= MSG_CTRUNC;
			continue;
		}
		if (left < cl) {
			flags |= MSG_CTRUNC;
			cl = left;
		}
		memcpy(&h, (const uint8_t *)m->msg_control + at, sizeof(h));
		FUZZ_CHECK(h.cmsg_len == cl && h.cmsg_level == x.level &&
		    h.cmsg_type == x.type);
		size_t dl = cl - CMSG_LEN(0);
		size_t k = dl < x.known ? dl : x.known;
		FUZZ_CHECK(
		    memcmp((const uint8_t *)m->msg_control + at + CMSG_LEN(0),
			x.data, k) == 0);
		adv = CMSG_SPACE(x.len) < left ? CMSG_SPACE(x.len) : left;
		at += adv;
		left -= adv;
	}
	FUZZ_CHECK(m->msg_controllen == (m->msg_control == nullptr ? 0 : at));
	FUZZ_CHECK((m->msg_flags & MSG_CTRUNC) == flags);
}

/* Sets the socket's receive options from c0. */
void
set_options(uost_t *up, uint8_t c0)
{
	static const int kinds[4] = { 0, SO_TIMESTAMP_OLD, SO_TIMESTAMPNS_OLD,
		SO_TIMESTAMP_NEW };
	uint32_t want = (uint32_t)kinds[(c0 >> 5) & 3];

	if (c0 & 0x10)
		want |= OST_RX_PKTINFO;
	__atomic_store_n(&up->uost_rx_cmsgs, want, __ATOMIC_RELAXED);
}

/* A record as bind and connect leave one, without a handle. */
uost_t *
bare_record(bool v6, bool connected, bool wildcard)
{
	static uost_t recs[2];
	uost_t *up = &recs[v6];

	memset(up, 0, sizeof(*up));
	up->uost_sd = -1;
	up->uost_is_v6 = v6;
	up->uost_if_index = 3;
	if (!wildcard)
		inet_pton(AF_INET6, v6 ? "2001:db8::1" : "::ffff:192.0.2.1",
		    &up->uost_laddr_v6);
	up->uost_lport = htons(7000);
	if (connected) {
		inet_pton(AF_INET6, v6 ? "2001:db8::2" : "::ffff:192.0.2.2",
		    &up->uost_faddr_v6);
		up->uost_fport = htons(5000);
		up->uost_connected = true;
	}
	return up;
}

void
run_direct(uint8_t c0, uint8_t c2, const uint8_t *f, size_t n, bufs &b)
{
	uost_t *up = bare_record(c0 & 1, c0 & 4, c0 & 8);
	wire w = read_wire(c0 & 1, f, n);
	expect e = expected(up, w);
	ost_pkt_info_t pi;
	struct timespec ts = { 1700000000, 123456789 };
	struct msghdr m;
	size_t len = n, whole = 0;
	uint8_t *payload = nullptr;
	ssize_t got;

	set_options(up, c0);
	ost_pkt_verdict_t v = ost_check_pkt(up, f, n, &pi);
	FUZZ_CHECK((v == OST_PKT_ACCEPT) == (e == E_ACCEPT));
	FUZZ_CHECK((v == OST_PKT_FOREIGN) == (e == E_FOREIGN));
	if (e == E_ACCEPT)
		FUZZ_CHECK(pi.pi_len == w.plen);

	socklen_t fromlen = b.namelen;
	bool ok = ost_parse_pkt(up, f, &payload, &len, b.name,
	    b.name != nullptr ? &fromlen : nullptr);
	FUZZ_CHECK(ok == (e == E_ACCEPT));
	FUZZ_CHECK(up->uost_rx_dropped == (e == E_DROP ? 1u : 0u));
	if (!ok)
		return;
	FUZZ_CHECK(len == w.plen && payload == f + w.off);
	if (b.name != nullptr)
		check_from(up, w, b.name, b.namelen, fromlen, false);

	b.msg(&m);
	got = ost_copy_pkt_cut(up, &m, f, n, &whole);
	FUZZ_CHECK(whole == w.plen);
	FUZZ_CHECK((size_t)got == (w.plen < b.room ? w.plen : b.room));
	b.check_payload(f + w.off, (size_t)got);
	bool clock = (c2 & 4) != 0;
	ost_pkt_cmsgs(up, &m, f, clock ? nullptr : &ts);
	check_cmsgs(up, &m, b.controllen, w, clock ? nullptr : &ts);
}

/* The engine's sockets: bound to loopback, attached to a mem handle. */
struct engine_sock {
	int fd = -1;
	uost_t *up = nullptr;
} socks[2];

void
engine_open(bool v6)
{
	struct sockaddr_in6 ss = {};
	socklen_t sl = sizeof(ss);
	struct in6_addr la;
	engine_sock &s = socks[v6];
	int family = v6 ? AF_INET6 : AF_INET;

	s.fd = ost_socket(family, SOCK_DGRAM, 0);
	ss.sin6_family = (sa_family_t)family;
	if (v6)
		ss.sin6_addr = in6addr_loopback;
	else
		((struct sockaddr_in *)&ss)->sin_addr.s_addr =
		    htonl(INADDR_LOOPBACK);
	if (s.fd < 0 || real_bind(s.fd, (struct sockaddr *)&ss, sl) != 0 ||
	    getsockname(s.fd, (struct sockaddr *)&ss, &sl) != 0) {
		fprintf(stderr, "fuzz: cannot make the engine's socket\n");
		abort();
	}
	s.up = ost_find_sd(s.fd);
	ost_release(s.up);
	inet_pton(AF_INET6, v6 ? "::1" : "::ffff:127.0.0.1", &la);
	pthread_mutex_lock(&s.up->uost_lock);
	snprintf(s.up->uost_if_name, sizeof(s.up->uost_if_name), "mem0");
	s.up->uost_if_index = 1;
	ost_tpl_set_saddr(s.up, &la);
	ost_tpl_set_sport(s.up, ((struct sockaddr_in *)&ss)->sin_port);
	bool ok = ost_attach_locked(s.up);
	pthread_mutex_unlock(&s.up->uost_lock);
	if (!ok || !ost_rx_served(s.up)) {
		fprintf(stderr, "fuzz: cannot attach the engine's socket\n");
		abort();
	}
}

uint64_t
idrops(uost_t *up)
{
	pthread_mutex_lock(&up->uost_lock);
	uint64_t d = up->uost_stats.osts_idrops + up->uost_rx_dropped;
	pthread_mutex_unlock(&up->uost_lock);
	return d;
}

/* One receive; its result checked against the frame. */
ssize_t
engine_recv(engine_sock &s, bufs &b, int flags, const uint8_t *f, const wire &w,
    bool deliver)
{
	struct msghdr m;
	int saved = errno = 12345;

	b.msg(&m);
	ssize_t n = ost_recvmsg_call(s.fd, &m, flags | MSG_DONTWAIT);
	if (!deliver) {
		FUZZ_CHECK(n == -1 && errno == EAGAIN);
		return n;
	}
	FUZZ_CHECK(n >= 0 && errno == saved);
	size_t copied = w.plen < b.room ? w.plen : b.room;
	FUZZ_CHECK((size_t)n == ((flags & MSG_TRUNC) ? w.plen : copied));
	FUZZ_CHECK(((m.msg_flags & MSG_TRUNC) != 0) == (w.plen > b.room));
	b.check_payload(f + w.off, copied);
	if (b.name != nullptr)
		check_from(s.up, w, b.name, b.namelen, m.msg_namelen, true);
	check_cmsgs(s.up, &m, b.controllen, w, nullptr);
	return n;
}

void
run_engine(uint8_t c0, uint8_t c7, std::vector<uint8_t> &f, bufs &b)
{
	bool v6 = c0 & 1;
	engine_sock &s = socks[v6];
	uost_t *up = s.up;
	size_t n = f.size();

	if ((c0 & 0x80) && n >= (v6 ? 62u : 42u)) {
		memcpy(&f[v6 ? 38 : 30], bytes_of(up, &up->uost_laddr_v6),
		    v6 ? 16 : 4);
		memcpy(&f[(v6 ? 62 : 42) - 6], &up->uost_lport, 2);
	}
	wire w = read_wire(v6, f.data(), n);
	bool accept = expected(up, w) == E_ACCEPT;
	uint64_t drops = idrops(up);
	int flags = ((c7 & 1) ? MSG_PEEK : 0) | ((c7 & 2) ? MSG_TRUNC : 0);

	set_options(up, c0);
	if (frio_mem_inject(up->uost_frio_hdl, f.data(), n) != FRIO_STATUS_OK)
		return;
	/* A readiness test keeps only what fits its stash. */
	if ((c7 & 12) && n > OST_RECV_BUF_SIZE)
		accept = false;
	if (c7 & 4) {
		int len = -1;
		bool ours = ost_next_len(s.fd, &len);

		FUZZ_CHECK(ours == accept && (!ours || (size_t)len == w.plen));
	}
	if (c7 & 8) {
		struct pollfd pfd = { s.fd, POLLIN, 0 };

		FUZZ_CHECK(ost_poll(&pfd, 1, 0) == (accept ? 1 : 0) &&
		    pfd.revents == (accept ? POLLIN : 0));
	}
	engine_recv(s, b, flags, f.data(), w, accept);
	/* A peek leaves the datagram, unless it could not be kept. */
	if ((flags & MSG_PEEK) && accept && n <= OST_RECV_BUF_SIZE)
		engine_recv(s, b, 0, f.data(), w, true);
	engine_recv(s, b, 0, f.data(), w, false);
	FUZZ_CHECK(frio_mem_rx_pending(up->uost_frio_hdl) == 0 &&
	    frio_mem_lent(up->uost_frio_hdl) == 0);
	FUZZ_CHECK(idrops(up) == drops + (accept ? 0 : 1));
}

} // namespace

extern "C" int
LLVMFuzzerInitialize(int *, char ***)
{
	/* The test build of libfrio, linked in: its mem backend and the
	 * handles the core opens are one copy. */
	ost_frio_set_path("libfrio_testing.so");
	setenv("FRIO_BACKEND", "mem", 1);
	ost_init();
	engine_open(false);
	engine_open(true);
	return 0;
}

extern "C" int
LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	fuzz_in in = { data, size };
	uint8_t c0 = in.byte(), c1 = in.byte(), c2 = in.byte();
	bufs b;

	b.make(in, c1, c2, (uint8_t)(size > 6 ? data[6] : 0));
	(void)in.byte(); /* c6, read above */
	uint8_t c7 = in.byte();
	if (c0 & 2) {
		std::vector<uint8_t> f(in.p, in.p + in.left);

		run_engine(c0, c7, f, b);
	} else {
		run_direct(c0, c2, in.p, in.left, b);
	}
	return 0;
}
