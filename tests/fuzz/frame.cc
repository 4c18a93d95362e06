/*
 * Frames from the wire against the receive path: verdict, parse, copy-out
 * and control data (direct mode), and the receive calls on a socket
 * attached to an in-memory handle (engine mode).  Exactly the well-formed,
 * unfragmented UDP datagrams for the socket are accepted, every drop is
 * counted, payload, sender and lengths stay in bounds, and ASan sees every
 * buffer as its own allocation.
 *
 * Input: c0: bit 0 IPv6, 1 engine mode, 2 connected, 3 wildcard address,
 * 4 packet information, 5-6 receive time kind, 7 (engine) aim the frame at
 * the socket; c1 control length; c2 iovec count (0-3), bit 2 the time
 * from the clock; c3-c5 iovec lengths
 * / 8; c6 sender length, 255 for none; c7 (engine) bit 0 peek, 1 MSG_TRUNC,
 * 2 FIONREAD first; then the frame.
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

struct wire {
	bool formed; /* lengths agree and lie inside the frame */
	size_t off, plen, alen;
	const uint8_t *src, *dst;
	in_port_t sport, dport; /* network order */
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
	w.dst = w.src + w.alen;
	memcpy(&w.sport, f + w.off - 8, 2);
	memcpy(&w.dport, f + w.off - 6, 2);
	size_t l = be16(f + (v6 ? 18 : 16)); /* UDP or IP total length */
	if (v6)
		w.formed = be16(f + 12) == 0x86dd && f[14] >> 4 == 6 &&
		    f[20] == IPPROTO_UDP && l >= 8 && l <= n - 54 &&
		    be16(f + 58) == l;
	else
		w.formed = be16(f + 12) == 0x0800 && f[14] == 0x45 &&
		    (be16(f + 20) & 0x3fff) == 0 && f[23] == IPPROTO_UDP &&
		    l >= 28 && l <= n - 14 && be16(f + 38) == l - 20;
	w.plen = l - (v6 ? 8 : 28);
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
	    memcmp(s, "\xff\xff\xff\xff", 4) == 0;
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
	bool v6 = up->uost_is_v6;

	if (!w.formed || martian(v6, w.src) || w.dport != up->uost_lport ||
	    (memcmp(la, zero, w.alen) != 0 && memcmp(la, w.dst, w.alen) != 0 &&
		!(v6 ? w.dst[0] == 0xff : (w.dst[0] & 0xf0) == 0xe0)))
		return E_DROP;
	if (up->uost_connected &&
	    (w.sport != up->uost_fport ||
		memcmp(w.src, bytes_of(up, &up->uost_faddr_v6), w.alen) != 0))
		return E_FOREIGN;
	return E_ACCEPT;
}

/* The sender: the parser writes it whole or not at all, a receive call cuts
 * it to the caller's length and says the whole; nothing past is touched. */
void
check_from(bool v6, const wire &w, const uint8_t *from, socklen_t given,
    socklen_t got, bool call)
{
	socklen_t need = v6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
	size_t wrote = given >= need ? need : call ? given : 0;
	sa_family_t fam = v6 ? AF_INET6 : AF_INET;
	uint8_t want[24] = {};

	FUZZ_CHECK(got == (given >= need || call ? need : given));
	memcpy(want, &fam, 2);
	memcpy(want + 2, &w.sport, 2);
	memcpy(want + (v6 ? 8 : 4), w.src, w.alen);
	FUZZ_CHECK(memcmp(from, want, std::min(wrote, v6 ? 24ul : 8ul)) == 0);
	for (size_t i = wrote; i < 40; i++)
		FUZZ_CHECK(from[i] == 0xa5);
}

/* The receiving buffers, each its own allocation. */
struct bufs {
	struct iovec iov[3];
	size_t niov = 0, room = 0, controllen = 0;
	uint8_t *name = nullptr, *control = nullptr;
	socklen_t namelen = 0;
	bool clock;

	bufs(fuzz_in &in)
	{
		uint8_t c1 = in.byte(), c2 = in.byte();

		niov = c2 & 3, clock = c2 & 4;
		for (size_t i = 0; i < 3; i++) {
			size_t len = (size_t)in.byte() * 8;

			if (i < niov)
				iov[i] = { malloc(len), len }, room += len;
		}
		uint8_t c6 = in.byte();
		control = (uint8_t *)malloc(controllen = c1);
		if (c6 != 255) {
			namelen = c6 % 40;
			name = (uint8_t *)malloc(40);
			memset(name, 0xa5, 40);
		}
	}

	void msg(struct msghdr *m)
	{
		*m = { name, namelen, niov != 0 ? iov : nullptr, niov, control,
			controllen, 0 };
	}

	/* n bytes of payload, as scattered over the iovecs. */
	void check_payload(const uint8_t *p, size_t n)
	{
		for (size_t i = 0; i < niov && n != 0; i++) {
			size_t k = std::min(n, iov[i].iov_len);

			FUZZ_CHECK(memcmp(iov[i].iov_base, p, k) == 0);
			p += k, n -= k;
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

void
set_options(uost_t *up, uint8_t c0)
{
	static const int kinds[4] = { 0, SO_TIMESTAMP_OLD, SO_TIMESTAMPNS_OLD,
		SO_TIMESTAMP_NEW };
	uint32_t want =
	    (uint32_t)kinds[(c0 >> 5) & 3] | ((c0 & 0x10) ? OST_RX_PKTINFO : 0);

	__atomic_store_n(&up->uost_rx_cmsgs, want, __ATOMIC_RELAXED);
}

void
run_direct(uint8_t c0, const uint8_t *f, size_t n, bufs &b)
{
	static uost_t recs[2];
	bool v6 = c0 & 1;
	uost_t *up = &recs[v6];

	/* A record as bind and connect leave one, without a handle. */
	memset(up, 0, sizeof(*up));
	up->uost_sd = -1;
	up->uost_is_v6 = v6;
	up->uost_if_index = 3;
	if (!(c0 & 8))
		inet_pton(AF_INET6, v6 ? "2001:db8::1" : "::ffff:192.0.2.1",
		    &up->uost_laddr_v6);
	up->uost_lport = htons(7000);
	if (c0 & 4) {
		inet_pton(AF_INET6, v6 ? "2001:db8::2" : "::ffff:192.0.2.2",
		    &up->uost_faddr_v6);
		up->uost_fport = htons(5000);
		up->uost_connected = true;
	}
	set_options(up, c0);

	wire w = read_wire(v6, f, n);
	expect e = expected(up, w);
	ost_pkt_info_t pi;
	ost_pkt_verdict_t v = ost_check_pkt(up, f, n, &pi);
	FUZZ_CHECK((v == OST_PKT_ACCEPT) == (e == E_ACCEPT));
	FUZZ_CHECK((v == OST_PKT_FOREIGN) == (e == E_FOREIGN));
	FUZZ_CHECK(e != E_ACCEPT || pi.pi_len == w.plen);

	uint8_t *payload = nullptr;
	size_t len = n, whole = 0;
	socklen_t fromlen = b.namelen;
	bool ok = ost_parse_pkt(up, f, &payload, &len, b.name,
	    b.name != nullptr ? &fromlen : nullptr);
	FUZZ_CHECK(ok == (e == E_ACCEPT));
	FUZZ_CHECK(up->uost_rx_dropped == (e == E_DROP ? 1u : 0u));
	if (!ok)
		return;
	FUZZ_CHECK(len == w.plen && payload == f + w.off);
	if (b.name != nullptr)
		check_from(v6, w, b.name, b.namelen, fromlen, false);

	struct msghdr m;
	struct timespec ts = { 1700000000, 123456789 };
	b.msg(&m);
	ssize_t got = ost_copy_pkt_cut(up, &m, f, n, &whole);
	FUZZ_CHECK(whole == w.plen && (size_t)got == std::min(w.plen, b.room));
	b.check_payload(f + w.off, (size_t)got);
	ost_pkt_cmsgs(up, &m, f, b.clock ? nullptr : &ts);
	FUZZ_CHECK(m.msg_controllen <= b.controllen);
}

/* The engine's sockets: bound to loopback, attached to a mem handle. */
int fds[2];

void
engine_open(bool v6)
{
	struct sockaddr_in6 ss = {};
	socklen_t sl = sizeof(ss);
	struct in6_addr la;
	int family = v6 ? AF_INET6 : AF_INET, fd;

	fd = fds[v6] = ost_socket(family, SOCK_DGRAM, 0);
	ss.sin6_family = (sa_family_t)family;
	if (v6)
		ss.sin6_addr = in6addr_loopback;
	else
		((struct sockaddr_in *)&ss)->sin_addr.s_addr =
		    htonl(INADDR_LOOPBACK);
	FUZZ_CHECK(fd >= 0 && real_bind(fd, (struct sockaddr *)&ss, sl) == 0 &&
	    getsockname(fd, (struct sockaddr *)&ss, &sl) == 0);
	uost_t *up = ost_find_sd(fd);
	ost_release(up);
	inet_pton(AF_INET6, v6 ? "::1" : "::ffff:127.0.0.1", &la);
	pthread_mutex_lock(&up->uost_lock);
	snprintf(up->uost_if_name, sizeof(up->uost_if_name), "mem0");
	up->uost_if_index = 1;
	ost_tpl_set_saddr(up, &la);
	ost_tpl_set_sport(up, ((struct sockaddr_in *)&ss)->sin_port);
	bool ok = ost_attach_locked(up);
	pthread_mutex_unlock(&up->uost_lock);
	FUZZ_CHECK(ok && ost_rx_served(up));
}

uint64_t
idrops(uost_t *up)
{
	pthread_mutex_lock(&up->uost_lock);
	uint64_t d = up->uost_stats.osts_idrops + up->uost_rx_dropped;
	pthread_mutex_unlock(&up->uost_lock);
	return d;
}

/* One receive, checked against the frame; deliver: whether one is due. */
void
engine_recv(int fd, uost_t *up, bufs &b, int flags, const uint8_t *f,
    const wire &w, bool deliver)
{
	struct msghdr m;

	b.msg(&m);
	errno = 12345;
	ssize_t n = ost_recvmsg_call(fd, &m, flags | MSG_DONTWAIT);
	if (!deliver) {
		FUZZ_CHECK(n == -1 && errno == EAGAIN);
		return;
	}
	size_t copied = std::min(w.plen, b.room);
	FUZZ_CHECK(n >= 0 && errno == 12345);
	FUZZ_CHECK((size_t)n == ((flags & MSG_TRUNC) ? w.plen : copied));
	FUZZ_CHECK(((m.msg_flags & MSG_TRUNC) != 0) == (w.plen > b.room));
	FUZZ_CHECK(m.msg_controllen <= b.controllen);
	b.check_payload(f + w.off, copied);
	if (b.name != nullptr)
		check_from(up->uost_is_v6, w, b.name, b.namelen, m.msg_namelen,
		    true);
}

void
run_engine(uint8_t c0, uint8_t c7, std::vector<uint8_t> &f, bufs &b)
{
	bool v6 = c0 & 1;
	int fd = fds[v6];
	uost_t *up = ost_find_sd(fd);
	size_t n = f.size(), off = v6 ? 62 : 42;

	ost_release(up);
	if ((c0 & 0x80) && n >= off) {
		memcpy(&f[v6 ? 38 : 30], bytes_of(up, &up->uost_laddr_v6),
		    v6 ? 16 : 4);
		memcpy(&f[off - 6], &up->uost_lport, 2);
	}
	wire w = read_wire(v6, f.data(), n);
	bool accept = expected(up, w) == E_ACCEPT;
	uint64_t drops = idrops(up);
	int flags = ((c7 & 1) ? MSG_PEEK : 0) | ((c7 & 2) ? MSG_TRUNC : 0);

	set_options(up, c0);
	if (frio_mem_inject(up->uost_frio_hdl, f.data(), n) != FRIO_STATUS_OK)
		return;
	if (c7 & 4) {
		/* A readiness test keeps only what fits its stash. */
		int len = -1;

		accept = accept && n <= OST_RECV_BUF_SIZE;
		bool ours = ost_next_len(fd, &len);
		FUZZ_CHECK(ours == accept && (!ours || (size_t)len == w.plen));
	}
	engine_recv(fd, up, b, flags, f.data(), w, accept);
	/* A peek leaves the datagram, unless it could not be kept. */
	if ((flags & MSG_PEEK) && accept && n <= OST_RECV_BUF_SIZE)
		engine_recv(fd, up, b, 0, f.data(), w, true);
	engine_recv(fd, up, b, 0, f.data(), w, false);
	FUZZ_CHECK(frio_mem_rx_pending(up->uost_frio_hdl) == 0 &&
	    frio_mem_lent(up->uost_frio_hdl) == 0);
	FUZZ_CHECK(idrops(up) == drops + (accept ? 0 : 1));
}

} // namespace

extern "C" int
LLVMFuzzerInitialize(int *, char ***)
{
	/* The test build of libfrio is linked in: its mem backend and the
	 * core's handles are one copy. */
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
	uint8_t c0 = in.byte();
	bufs b(in);
	uint8_t c7 = in.byte();

	if (c0 & 2) {
		std::vector<uint8_t> f(in.p, in.p + in.left);
		run_engine(c0, c7, f, b);
	} else {
		run_direct(c0, in.p, in.left, b);
	}
	return 0;
}
