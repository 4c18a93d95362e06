/*
 * The differential table: each row run on kernel sockets and under the
 * preload, printing one normalised line per step (ret, errno against a
 * sentinel, bytes, sender, revents, time bucket, CPU share of waits; no
 * descriptors, pids or ports) for differential.sh to compare.
 *   differential list                            rows, "ring" or "kernel"
 *   differential ROW SELF PEER CTL SELF6 PEER6   one row
 * The row binds SELF:5000; the plain peer on PEER:6000 / PEER6:6000 takes
 * commands on the UNIX socket CTL ("send N LEN DELAY_MS", "recv MS", "echo
 * MS", "drain MS", "close"; "send6", "recv6"); its k-th datagram is 'A'+k.
 */
#define _GNU_SOURCE
#pragma GCC diagnostic ignored "-Wdeprecated-declarations" /* siginterrupt */
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <setjmp.h>
#include <signal.h>
#include <spawn.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#define SELF_PORT       5000
#define PEER_PORT       6000
#define SENTINEL        7777 /* no errno of Linux */
#define BAD_FD          987
#define ACT_MS          150 /* another thread or a signal acts */
#define TMO_MS          250 /* time-outs */
#define PEER_MS         600 /* the peer's delayed datagram */
#define BIG_FD          2000
#define BIG_NFDS        3000
#define SO_OSTREL_STATS 0x101b

#define udp() socket(AF_INET, SOCK_DGRAM, 0)
#define PEER  (struct sockaddr *)&peer_sa, sizeof(peer_sa)
#define SELF  (struct sockaddr *)&self_sa, sizeof(self_sa)
/* N datagrams of LEN bytes from the peer, DELAY ms from now. */
#define peer_send(n, len, ms) peer("send %d %d %d", n, len, ms)
/* And 100 ms for them to be queued. */
#define peer_queued(n, len) (peer_send(n, len, 0), usleep(100000))

extern char **environ;

static struct sockaddr_in self_sa, peer_sa;
static struct sockaddr_in6 self6_sa, peer6_sa;
static FILE *ctl;
static char ifname[IF_NAMESIZE];
static pthread_t main_thread;
static char rbuf[70000];

static __thread long t_ret;
static __thread int t_err;
#define TRY(expr) (errno = SENTINEL, t_ret = (long)(expr), t_err = errno)

/* Steps: ret and errno; a descriptor (not its number); a value read into
 * V; a send and what the peer got; a receive into rbuf and its time. */
#define DO(step, expr) (TRY(expr), say(step, ""))
#define DO_FD(step, expr) \
	(TRY(expr), t_ret = t_ret < 0 ? t_ret : 0, say(step, "fd"))
#define VAL(step, expr, v) (TRY(expr), say(step, "value=%d", v))
#define SENT(step, expr) \
	(TRY(expr),      \
	    say(step, "peer: %s", peer(t_ret < 0 ? "recv 100" : "recv 1000")))
#define GOT(step, expr)                                                     \
	do {                                                                \
		clk_t t0_ = clk();                                          \
		TRY(expr);                                                  \
		say(step, "bytes=%s %s", bytes(rbuf, t_ret), took(t0_, 0)); \
	} while (0)

#define ENAME(e) ((e) == SENTINEL ? "-" : strerrorname_np(e))
/* "step ret=R errno=E", then what the step adds. */
#define say(step, ...)                                                 \
	(printf("%-20s ret=%ld errno=%s ", step, t_ret, ENAME(t_err)), \
	    printf(__VA_ARGS__), putchar('\n'))

typedef struct {
	double wall, cpu;
} clk_t;

static clk_t
clk(void)
{
	struct timespec w, c;

	clock_gettime(CLOCK_MONOTONIC, &w);
	clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &c);
	return (clk_t){ w.tv_sec * 1e3 + w.tv_nsec / 1e6,
		c.tv_sec * 1e3 + c.tv_nsec / 1e6 };
}

/* "time=B" in buckets wide enough for a loaded machine; with CPU, whether
 * it took a fifth of the wall time. */
static const char *
took(clk_t t0, int cpu)
{
	static char b[64];
	clk_t t1 = clk();
	double ms = t1.wall - t0.wall;
	const char *w = ms < 60 ? "immediate" :
	    ms < 200            ? "~act" :
	    ms < 420            ? "~timeout" :
	    ms < 1500           ? "~peer" :
				  "late";

	snprintf(b, sizeof(b), "time=%s%s", w,
	    !cpu                             ? "" :
		(t1.cpu - t0.cpu) < 0.2 * ms ? " cpu<20%" :
					       " cpu>=20%");
	return b;
}

/* An address: peer, self or elsewhere, and whether its port is ours. */
static const char *
who(const struct sockaddr_in *s, socklen_t len)
{
	static char b[32];
	in_addr_t a = s->sin_addr.s_addr;

	if (len < sizeof(*s) || s->sin_family != AF_INET)
		snprintf(b, sizeof(b), "(len %u)", (unsigned)len);
	else
		snprintf(b, sizeof(b), "%s:%s",
		    a == peer_sa.sin_addr.s_addr     ? "peer" :
			a == self_sa.sin_addr.s_addr ? "self" :
						       "elsewhere",
		    s->sin_port == peer_sa.sin_port ? "fixed" : "other");
	return b;
}

/* The bytes of a sockaddr of LEN (16 or 28), the peer's address as P. */
static const char *
raw(const unsigned char *b, int len)
{
	static char s[128];
	const unsigned char *pa = len > 16 ? peer6_sa.sin6_addr.s6_addr :
					     (unsigned char *)&peer_sa.sin_addr;
	int at = len > 16 ? 8 : 4, alen = len > 16 ? 16 : 4;
	char *o = s;

	for (int i = 0; i < len; i++)
		o += (i >= at && i < at + alen && b[i] == pa[i - at]) ?
		    sprintf(o, "P.") :
		    sprintf(o, "%02x.", b[i]);
	o[-1] = '\0';
	return s;
}

/* A received payload: its length and fill, "A*20", or "mixed". */
static const char *
bytes(const char *buf, long n)
{
	static char b[32];

	if (n <= 0)
		return "-";
	for (long i = 1; i < n; i++)
		if (buf[i] != buf[0])
			return "mixed";
	snprintf(b, sizeof(b), "%c*%ld", buf[0], n);
	return b;
}

/* poll's and epoll's bits (the same), by name. */
static const char *
revents(int ev)
{
	static const char *const names[] = { "IN", "PRI", "OUT", "ERR", "HUP",
		"NVAL", "RDNORM", "RDBAND", "WRNORM", "WRBAND", "MSG", "11",
		"12", "RDHUP" };
	static char b[96];

	b[0] = '\0';
	for (int i = 0; i < 14; i++)
		if (ev & 1 << i) {
			strcat(b, b[0] ? "|" : "");
			strcat(b, names[i]);
		}
	return b[0] ? b : "0";
}

/* A command to the peer; its one-line answer. */
static const char *
peer(const char *fmt, ...)
{
	static char line[128];
	va_list ap;

	va_start(ap, fmt);
	vdprintf(fileno(ctl), fmt, ap);
	va_end(ap);
	if (write(fileno(ctl), "\n", 1) != 1 ||
	    fgets(line, sizeof(line), ctl) == NULL)
		return "peer gone";
	line[strcspn(line, "\n")] = '\0';
	return line;
}

/* Preloaded: wait (2 s at most) until the library's own option answers,
 * i.e. the socket is on the bypass; stderr says which. */
static void
settle(int fd)
{
	char st[64];
	socklen_t len;
	int e = errno, on = 0;

	if (getenv("LD_PRELOAD") == NULL)
		return;
	for (int i = 0; i < 200 && !on; i++) {
		len = sizeof(st);
		on = getsockopt(fd, SOL_SOCKET, SO_OSTREL_STATS, st, &len) == 0;
		if (!on)
			usleep(10000);
	}
	fprintf(stderr, "path: %s\n", on ? "bypass" : "kernel");
	errno = e;
}

/* A socket on SELF:5000, settled, and with CONN connected to the peer. */
static int
bound(int conn)
{
	int fd = udp();

	if (fd < 0 || bind(fd, SELF) || (conn && connect(fd, PEER))) {
		perror("set-up");
		exit(1);
	}
	settle(fd);
	return fd;
}

#define rcvtimeo(fd, ms)                                          \
	setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO,                   \
	    &(struct timeval){ (ms) / 1000, (ms) % 1000 * 1000 }, \
	    sizeof(struct timeval))

#define do_recv(step, fd, len, flags) GOT(step, recv(fd, rbuf, len, flags))

/* What poll, epoll and select say of fd at once. */
static void
poll_all(int fd, const char *when)
{
	struct pollfd p = { fd, POLLIN | POLLOUT | POLLRDHUP, 0 };
	struct epoll_event ev = { EPOLLIN | EPOLLOUT | EPOLLRDHUP, { 0 } };
	struct timeval tv = { 0, 0 };
	int ep = epoll_create1(0);
	fd_set r, w;

	printf("%s:\n", when);
	TRY(poll(&p, 1, 0));
	say("  poll", "revents=%s", revents(p.revents));
	epoll_ctl(ep, EPOLL_CTL_ADD, fd, &ev);
	ev.events = 0;
	TRY(epoll_wait(ep, &ev, 1, 0));
	say("  epoll", "events=%s", revents(ev.events));
	close(ep);
	FD_ZERO(&r);
	FD_ZERO(&w);
	FD_SET(fd, &r);
	FD_SET(fd, &w);
	TRY(select(fd + 1, &r, &w, NULL, &tv));
	say("  select", "read=%d write=%d", FD_ISSET(fd, &r), FD_ISSET(fd, &w));
}

enum {
	A_SIG,
	A_SEND,
	A_SHUT,
	A_FORK,
	A_SPAWN,
	A_IPOPTS,
	A_BINDDEV,
	A_DUP,
	A_UNSPEC,
	A_WRITE
};

typedef struct {
	int kind, fd, arg; /* arg: A_SIG's delay, A_SHUT's how */
	long ret;
	int err;
	pthread_t t;
} act_t;

/* ACT_MS (A_SIG: arg ms) in, one action on fd. */
static void *
actor(void *arg)
{
	static const unsigned char nops[4] = { 1, 1, 1, 0 };
	struct sockaddr un = { .sa_family = AF_UNSPEC };
	char *argv[] = { "/bin/true", NULL };
	act_t *a = arg;
	pid_t pid;

	usleep((a->kind == A_SIG ? a->arg : ACT_MS) * 1000);
	if (a->kind == A_SIG)
		TRY(pthread_kill(main_thread, SIGUSR1));
	else if (a->kind == A_SEND)
		TRY(send(a->fd, "xxxx", 4, 0));
	else if (a->kind == A_SHUT)
		TRY(shutdown(a->fd, a->arg));
	else if (a->kind == A_FORK) {
		TRY(pid = fork());
		if (pid == 0)
			_exit(0);
		if (pid > 0)
			waitpid(pid, NULL, 0);
	} else if (a->kind == A_SPAWN) {
		TRY(posix_spawn(&pid, argv[0], NULL, NULL, argv, environ));
		if (t_ret == 0)
			waitpid(pid, NULL, 0);
	} else if (a->kind == A_IPOPTS)
		TRY(setsockopt(a->fd, IPPROTO_IP, IP_OPTIONS, nops,
		    sizeof(nops)));
	else if (a->kind == A_BINDDEV)
		TRY(setsockopt(a->fd, SOL_SOCKET, SO_BINDTODEVICE, ifname,
		    strlen(ifname)));
	else if (a->kind == A_DUP)
		TRY(dup(a->fd));
	else if (a->kind == A_UNSPEC)
		TRY(connect(a->fd, &un, sizeof(un)));
	else if (a->kind == A_WRITE)
		TRY(write(a->fd, "p", 1));
	a->ret = t_ret < 0 ? t_ret : 0; /* no pids or descriptors */
	a->err = t_err;
	return NULL;
}

static void
act_start(act_t *a, int kind, int fd, int arg)
{
	*a = (act_t){ .kind = kind, .fd = fd, .arg = arg };
	pthread_create(&a->t, NULL, actor, a);
}

static void
act_say(act_t *a, const char *step)
{
	pthread_join(a->t, NULL);
	t_ret = a->ret;
	t_err = a->err;
	say(step, "");
}

typedef struct row row_t;
struct row {
	const char *name;
	void (*fn)(const row_t *);
	int ring;       /* under the preload, every datagram off the ring */
	int a, b, c, d; /* the scenario's parameters */
};

/* Every call once on a socket on the bypass: errno left alone. */
static void
row_calls(const row_t *r)
{
	struct sockaddr_in from, unspec = { .sin_family = AF_UNSPEC };
	struct timeval tv = { 2, 0 };
	struct timespec ts = { 2, 0 };
	struct iovec iov[2] = { { rbuf, 7 }, { rbuf + 7, 100 } };
	struct msghdr mh = { NULL, 0, iov, 1, NULL, 0, 0 };
	struct mmsghdr mm[2];
	struct epoll_event ev = { EPOLLIN, { 0 } };
	struct pollfd p;
	socklen_t flen = sizeof(from), vlen = sizeof(tv);
	int fd, fd2, v = 65536, ep = epoll_create1(0), zero = 0, one = 1;
	sigset_t none;
	fd_set rs;

	sigemptyset(&none);
	DO_FD("socket", fd = udp());
	DO("SO_RCVBUF", setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &v, sizeof(v)));
	DO("SO_RCVTIMEO",
	    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv)));
	DO("SO_REUSEADDR",
	    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one)));
	TRY(getsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, &vlen));
	say("get SO_RCVTIMEO", "value=%ld len=%u", (long)tv.tv_sec, vlen);
	DO("bind", bind(fd, SELF));
	settle(fd);
	DO("F_GETFL", v = fcntl(fd, F_GETFL));
	DO("F_SETFL", fcntl(fd, F_SETFL, v));
	DO("FIONBIO", ioctl(fd, FIONBIO, &zero));
	DO("connect", connect(fd, PEER));
	memset(rbuf, 'x', 200);
	SENT("send", send(fd, rbuf, 10, 0));
	SENT("write", write(fd, rbuf, 11));
	SENT("writev", writev(fd, iov, 2));
	SENT("sendmsg", sendmsg(fd, &mh, 0));
	SENT("sendto NULL", sendto(fd, rbuf, 12, 0, NULL, 0));
	SENT("sendto", sendto(fd, rbuf, 13, 0, PEER));
	memset(mm, 0, sizeof(mm));
	mm[0].msg_hdr = mm[1].msg_hdr = mh;
	SENT("sendmmsg", sendmmsg(fd, mm, 2, 0));
	printf("%-20s peer: %s\n", "sendmmsg 2nd", peer("recv 1000"));

	peer_send(9, 20, 0);
	p = (struct pollfd){ fd, POLLIN, 0 };
	TRY(poll(&p, 1, 1000));
	say("poll", "revents=%s", revents(p.revents));
	VAL("FIONREAD", ioctl(fd, FIONREAD, &v), v);
	GOT("recv", recv(fd, rbuf, 100, 0));
	FD_ZERO(&rs);
	FD_SET(fd, &rs);
	TRY(select(fd + 1, &rs, NULL, NULL, &tv));
	say("select", "read=%d", FD_ISSET(fd, &rs));
	GOT("read", read(fd, rbuf, 100));
	TRY(ppoll(&p, 1, &ts, &none));
	say("ppoll", "revents=%s", revents(p.revents));
	GOT("readv", readv(fd, iov, 2));
	TRY(pselect(fd + 1, &rs, NULL, NULL, &ts, &none));
	say("pselect", "read=%d", FD_ISSET(fd, &rs));
	mh.msg_name = &from;
	mh.msg_namelen = sizeof(from);
	iov[0].iov_len = 100;
	TRY(recvmsg(fd, &mh, 0));
	say("recvmsg", "bytes=%s from=%s flags=%#x", bytes(rbuf, t_ret),
	    who(&from, mh.msg_namelen), mh.msg_flags);
	DO("epoll_ctl ADD", epoll_ctl(ep, EPOLL_CTL_ADD, fd, &ev));
	TRY(epoll_wait(ep, &ev, 1, 1000));
	say("epoll_wait", "events=%s", revents(ev.events));
	DO("epoll_pwait", epoll_pwait(ep, &ev, 1, 1000, &none));
	DO("epoll_pwait2", epoll_pwait2(ep, &ev, 1, &ts, &none));
	mm[0].msg_hdr = mm[1].msg_hdr = mh;
	mm[1].msg_hdr.msg_iov = &iov[1];
	TRY(recvmmsg(fd, mm, 2, 0, NULL));
	say("recvmmsg", "lens=%u,%u", mm[0].msg_len, mm[1].msg_len);
	TRY(recvfrom(fd, rbuf, 100, 0, (struct sockaddr *)&from, &flen));
	say("recvfrom", "bytes=%s from=%s", bytes(rbuf, t_ret),
	    who(&from, flen));
	DO("epoll_ctl DEL", epoll_ctl(ep, EPOLL_CTL_DEL, fd, NULL));
	GOT("recvfrom NULL", recvfrom(fd, rbuf, 100, 0, NULL, NULL));
	GOT("recv", recv(fd, rbuf, 100, MSG_DONTWAIT));

	/* Copies and disconnection take the socket off the bypass. */
	DO("connect AF_UNSPEC", connect(fd, (struct sockaddr *)&unspec, 16));
	DO_FD("dup", v = dup(fd));
	DO("close dup", close(v));
	fd2 = udp();
	DO_FD("dup2 onto a socket", dup2(fd, fd2));
	DO_FD("dup3", dup3(fd, fd2, O_CLOEXEC));
	DO_FD("F_DUPFD_CLOEXEC", v = fcntl(fd, F_DUPFD_CLOEXEC, 100));
	DO("close", close(v));
	DO("close", close(fd2));
	DO("shutdown SHUT_WR", shutdown(fd, SHUT_WR));
	DO("close", close(fd));
	DO("close epoll", close(ep));
}

/* Calls that fail: the kernel's errno, whatever came before. */
static void
row_fails(const row_t *r)
{
	struct sockaddr_in6 six = { .sin6_family = AF_INET6 };
	struct mmsghdr mm = { { NULL, 0, NULL, 0, NULL, 0, 0 }, 0 };
	struct iovec iov = { rbuf, 10 };
	struct msghdr mh = { NULL, 0, &iov, 1, NULL, 0, 0 };
	struct epoll_event ev = { EPOLLIN, { 0 } };
	struct timespec bad = { 0, -1 };
	struct pollfd p;
	int u = udp(), fd, pp[2], v = 1, ep = epoll_create1(0);
	socklen_t vlen = 1;

	DO("recv bad fd", recv(BAD_FD, rbuf, 10, 0));
	DO("sendto bad fd", sendto(BAD_FD, rbuf, 10, 0, PEER));
	DO("getsockopt bad fd",
	    getsockopt(BAD_FD, SOL_SOCKET, SO_TYPE, &v, &vlen));
	DO("FIONREAD bad fd", ioctl(BAD_FD, FIONREAD, &v));
	DO("fcntl bad fd", fcntl(BAD_FD, F_GETFL));
	DO("dup bad fd", dup(BAD_FD));
	DO("close bad fd", close(BAD_FD));
	DO("epoll_ctl bad fd", epoll_ctl(ep, EPOLL_CTL_ADD, BAD_FD, &ev));
	DO("bind short addr", bind(u, (struct sockaddr *)&self_sa, 8));
	DO("connect short addr", connect(u, (struct sockaddr *)&peer_sa, 4));
	DO("sendto short addr",
	    sendto(u, rbuf, 10, 0, (struct sockaddr *)&peer_sa, 8));
	DO("sendto inet6 addr",
	    sendto(u, rbuf, 10, 0, (struct sockaddr *)&six, sizeof(six)));
	/* The failed connect and sendto bound it, as they do. */
	DO("bind after them", bind(u, SELF));
	close(u);
	/* The rest on a socket that the failures above did not touch. */
	fd = bound(0);
	u = udp();
	DO("bind in use", bind(u, SELF));
	p = (struct pollfd){ fd, POLLIN, 0 };
	DO("ppoll bad time", ppoll(&p, 1, &bad, NULL));
	DO("recv DONTWAIT", recv(fd, rbuf, 10, MSG_DONTWAIT));
	DO("recvfrom DONTWAIT", recvfrom(fd, rbuf, 10, MSG_DONTWAIT, NULL, 0));
	fcntl(fd, F_SETFL, O_NONBLOCK);
	DO("recv nonblocking", recv(fd, rbuf, 10, 0));
	DO("read nonblocking", read(fd, rbuf, 10));
	DO("recvmsg nonblocking", recvmsg(fd, &mh, 0));
	mm.msg_hdr = mh;
	DO("recvmmsg nonblocking", recvmmsg(fd, &mm, 1, 0, NULL));
	fcntl(fd, F_SETFL, 0);
	DO("send unconnected", send(fd, rbuf, 10, 0));
	DO("write unconnected", write(fd, rbuf, 10));
	DO("sendmsg unconnected", sendmsg(fd, &mh, 0));
	DO("sendto 65508", sendto(fd, rbuf, 65508, 0, PEER));
	connect(fd, PEER);
	DO("send 65508", send(fd, rbuf, 65508, 0));
	memset(rbuf, 'y', 65507);
	SENT("send 65507", send(fd, rbuf, 65507, 0));
	if (pipe(pp) != 0)
		return;
	DO("recv on a pipe", recv(pp[0], rbuf, 10, MSG_DONTWAIT));
	DO("setsockopt unknown", setsockopt(fd, SOL_SOCKET, 12345, &v, 4));
	DO("setsockopt short", setsockopt(fd, IPPROTO_IP, IP_TTL, &v, 0));
	TRY(getsockopt(fd, SOL_SOCKET, SO_ERROR, &v, &vlen));
	say("getsockopt short", "len=%u", (unsigned)vlen);
	DO("close", close(fd));
	DO("close again", close(fd));
	DO("recv closed", recv(fd, rbuf, 10, MSG_DONTWAIT));
}

/* The peer's port closed: the ICMP error as poll, send, recv and SO_ERROR
 * see it, pending and read, and arriving while a receive waits. */
static void
row_refused(const row_t *r)
{
	int fd = bound(1), v = -1;
	socklen_t vlen = sizeof(v);
	act_t a;

	poll_all(fd, "idle");
	peer("close");
	memset(rbuf, 'x', 10);
	DO("send", send(fd, rbuf, 10, 0));
	usleep(200000);
	poll_all(fd, "error pending");
	DO("recv DONTWAIT", recv(fd, rbuf, 10, MSG_DONTWAIT));
	DO("recv DONTWAIT again", recv(fd, rbuf, 10, MSG_DONTWAIT));
	DO("send", send(fd, rbuf, 10, 0));
	usleep(200000);
	DO("send error pending", send(fd, rbuf, 10, 0));
	DO("send after", send(fd, rbuf, 10, 0));
	usleep(200000);
	for (int i = 0; i < 2; i++) {
		TRY(getsockopt(fd, SOL_SOCKET, SO_ERROR, &v, &vlen));
		say("SO_ERROR", "value=%s", v ? strerrorname_np(v) : "0");
	}
	poll_all(fd, "error read");
	TRY(send(fd, rbuf, 10, 0));
	usleep(200000);
	rcvtimeo(fd, 1000);
	do_recv("recv blocking", fd, 10, 0);
	act_start(&a, A_SEND, fd, 0);
	do_recv("recv waiting", fd, 10, 0);
	act_say(&a, "send (thread)");
}

/* shutdown(B) from another thread ends a waiting receive; A: connected. */
static void
row_shutdown(const row_t *r)
{
	int fd = r->a ? bound(1) : bound(0);
	act_t a;

	act_start(&a, A_SHUT, fd, r->b);
	do_recv("recv waiting", fd, 100, 0);
	act_say(&a, "shutdown (thread)");
	do_recv("recv after", fd, 100, 0);
	poll_all(fd, "after shutdown");
	DO("send after", send(fd, "xxxx", 4, MSG_NOSIGNAL));
	SENT("sendto after", sendto(fd, "xxxx", 4, MSG_NOSIGNAL, PEER));
	peer_queued(1, 20);
	do_recv("recv datagram", fd, 100, MSG_DONTWAIT);
}

/* A receive waits through another thread's action A, which takes the
 * socket off the bypass, until the peer's datagram or, with B, its
 * time-out; then the socket goes on working through the kernel. */
static void
row_handoff(const row_t *r)
{
	int fd = bound(0);
	sigset_t chld;
	act_t a;

	/* Blocked everywhere: the kernel ends a timed receive with EINTR for
	 * an ignored SIGCHLD that came while posix_spawn's thread held every
	 * signal. */
	sigemptyset(&chld);
	sigaddset(&chld, SIGCHLD);
	pthread_sigmask(SIG_BLOCK, &chld, NULL);
	if (r->b)
		rcvtimeo(fd, TMO_MS);
	else
		peer_send(1, 20, PEER_MS);
	act_start(&a, r->a, fd, 0);
	do_recv("recv waiting", fd, 100, 0);
	act_say(&a, "action (thread)");
	peer_send(1, 30, 0);
	do_recv("recv next", fd, 100, 0);
	DO("send unconnected", send(fd, "zz", 2, 0));
	SENT("sendto", sendto(fd, "zz", 2, 0, PEER));
}

enum {
	W_RECV,
	W_TIMED, /* recv with SO_RCVTIMEO */
	W_POLL,
	W_SELECT,
	W_EPOLL
};
enum {
	H_COUNT,
	H_SEND, /* sends on the socket the wait is on */
	H_CLOSE,
	H_JUMP /* siglongjmp out of the wait */
};
#define HOW_BSD  -1 /* signal() */
#define HOW_INTR -2 /* signal(), then siginterrupt */
#define SHOWN    (SA_RESTART | SA_RESETHAND | SA_NODEFER | SA_SIGINFO)

static volatile sig_atomic_t handled;
static int h_kind, h_fd, h_err;
static sigjmp_buf h_jump;

static void
on_sig(int sig)
{
	int e = errno;

	handled++;
	if (sig == SIGALRM || h_kind == H_SEND)
		h_err = sendto(h_fd, "sig", 3, MSG_DONTWAIT, PEER) < 0 ? errno :
									 h_err;
	else if (h_kind == H_CLOSE)
		h_err = close(h_fd) != 0 ? errno : h_err;
	else if (h_kind == H_JUMP)
		siglongjmp(h_jump, 1);
	errno = e;
}

/* One wait of kind W on fd for MS (-1: no limit; recv: its SO_RCVTIMEO),
 * ep an epoll set that holds fd; with CPU, whether it spun. */
static void
wait_one(int w, int fd, int ep, int ms, int cpu, const char *step)
{
	struct pollfd p = { fd, POLLIN, 0 };
	struct epoll_event ev = { 0, { 0 } };
	struct timeval tv = { ms / 1000, ms % 1000 * 1000 };
	clk_t t0 = clk();
	fd_set rs;

	FD_ZERO(&rs);
	FD_SET(fd, &rs);
	if (w == W_POLL) {
		TRY(poll(&p, 1, ms));
		say(step, "revents=%s %s handled=%d", revents(p.revents),
		    took(t0, cpu), handled);
	} else if (w == W_SELECT) {
		TRY(select(fd + 1, &rs, NULL, NULL, ms < 0 ? NULL : &tv));
		say(step, "read=%d %s handled=%d", FD_ISSET(fd, &rs),
		    took(t0, cpu), handled);
	} else if (w == W_EPOLL) {
		TRY(epoll_wait(ep, &ev, 1, ms));
		say(step, "events=%s %s handled=%d", revents(ev.events),
		    took(t0, cpu), handled);
	} else {
		TRY(recv(fd, rbuf, 100, 0));
		say(step, "bytes=%s %s handled=%d", bytes(rbuf, t_ret),
		    took(t0, cpu), handled);
	}
}

/* SIGUSR1 D ms into a wait of kind A (5 ms: in the library's spin, five
 * times over), the handler installed as B says (sigaction's flags, or
 * HOW_*) and doing C; the peer's datagram is due at PEER_MS. */
static void
row_signal(const row_t *r)
{
	struct sigaction sa = { .sa_handler = on_sig, .sa_flags = r->b }, q;
	struct epoll_event ev = { EPOLLIN, { 0 } };
	int fd = bound(0), ep = epoll_create1(0), u;
	act_t a;

	if (r->b >= 0)
		sigaction(SIGUSR1, &sa, NULL);
	else
		signal(SIGUSR1, on_sig);
	if (r->b == HOW_INTR)
		siginterrupt(SIGUSR1, 1);
	sigaction(SIGUSR1, NULL, &q);
	printf("handler              own=%d flags=%#x\n",
	    q.sa_handler == on_sig, q.sa_flags & SHOWN);
	h_kind = r->c;
	h_fd = fd;
	h_err = SENTINEL;
	if (r->a == W_TIMED)
		rcvtimeo(fd, 5000);
	epoll_ctl(ep, EPOLL_CTL_ADD, fd, &ev);
	peer_send(1, 20, PEER_MS);
	t_ret = -1;
	for (int i = 0; i < (r->d < 20 ? 5 : 1) && t_ret <= 0; i++) {
		handled = 0;
		act_start(&a, A_SIG, fd, r->d);
		if (sigsetjmp(h_jump, 1) == 0)
			wait_one(r->a, fd, ep, -1, 0, "wait, signalled");
		else
			printf("%-20s jumped out\n", "wait, signalled");
		pthread_join(a.t, NULL);
	}
	handled = 0;
	if (r->a >= W_POLL || t_ret <= 0)
		wait_one(r->a, fd, ep, -1, 0, "wait again");
	if (r->a >= W_POLL)
		do_recv("recv", fd, 100, MSG_DONTWAIT);
	if (r->c == H_SEND)
		printf("%-20s errno=%s peer: %s\n", "handler's sendto",
		    ENAME(h_err), peer("recv 1000"));
	if (r->c == H_CLOSE) {
		printf("%-20s errno=%s\n", "handler's close", ENAME(h_err));
		DO("fcntl", fcntl(fd, F_GETFD));
		u = udp();
		DO("bind to its port", bind(u, SELF));
	}
	if (r->c == H_JUMP)
		SENT("sendto", sendto(fd, "ab", 2, 0, PEER));
	sigaction(SIGUSR1, NULL, &q);
	printf("handler after        own=%d\n", q.sa_handler == on_sig);
}

/* ppoll and pselect: SIGUSR1 blocked in the thread and let in by the
 * call's mask, open in the thread and kept out by it, then a datagram. */
static void
row_wait_mask(const row_t *r)
{
	static const char *const steps[] = { "ppoll let in", "ppoll kept out",
		"ppoll datagram", "pselect let in", "pselect kept out",
		"pselect datagram" };
	struct sigaction sa = { .sa_handler = on_sig };
	struct timespec ts = { 0, TMO_MS * 1000000 };
	sigset_t usr1, none;
	int fd = bound(0);
	act_t a;

	h_kind = H_COUNT;
	sigaction(SIGUSR1, &sa, NULL);
	sigemptyset(&none);
	sigemptyset(&usr1);
	sigaddset(&usr1, SIGUSR1);
	for (int i = 0; i < 6; i++) {
		struct pollfd p = { fd, POLLIN, 0 };
		clk_t t0;
		fd_set rs;

		FD_ZERO(&rs);
		FD_SET(fd, &rs);
		pthread_sigmask(i % 3 ? SIG_UNBLOCK : SIG_BLOCK, &usr1, NULL);
		handled = 0;
		if (i % 3 < 2)
			act_start(&a, A_SIG, fd, ACT_MS);
		else
			peer_send(1, 20, 0);
		t0 = clk();
		TRY(i < 3 ? ppoll(&p, 1, &ts, i % 3 == 1 ? &usr1 : &none) :
			    pselect(fd + 1, &rs, NULL, NULL, &ts,
				i % 3 == 1 ? &usr1 : &none));
		if (i % 3 < 2)
			pthread_join(a.t, NULL);
		say(steps[i], "%s handled=%d", took(t0, 0), handled);
	}
	do_recv("recv", fd, 100, MSG_DONTWAIT);
}

/* A non-blocking burst (EAGAIN at worst) while a storm of SIGALRM
 * handlers sends on the same socket. */
static void
row_tx_burst(const row_t *r)
{
	struct sigaction sa = { .sa_handler = on_sig };
	struct itimerval it = { { 0, 300 }, { 0, 1000 } }, off = { { 0, 0 } };
	int fd = bound(1), sent = 0, other = 0;

	h_fd = fd;
	handled = 0;
	sigaction(SIGALRM, &sa, NULL);
	setitimer(ITIMER_REAL, &it, NULL);
	fcntl(fd, F_SETFL, O_NONBLOCK);
	memset(rbuf, 'q', 1200);
	for (int i = 0; i < 3000 || handled < 500; i++) {
		TRY(send(fd, rbuf, 1200, 0));
		if (t_ret == 1200 && t_err == SENTINEL)
			sent++;
		else if ((t_ret != -1 || t_err != EAGAIN) && !other++)
			say("send failed", "");
	}
	setitimer(ITIMER_REAL, &off, NULL);
	printf("burst                sent=%s other-failures=%d\n",
	    sent ? "some" : "none", other);
	printf("peer                 %s\n", peer("drain 300"));
}

/* Child processes while a socket is in use: errno kept around each call,
 * and the children of system and popen run without the library. */
static void
row_process(const row_t *r)
{
	char *argv[] = { "true", NULL }, *nope[] = { "nope", NULL };
	const char *pre = getenv("LD_PRELOAD");
	char line[64] = "";
	int fd = bound(1), st = -1;
	pid_t pid;
	FILE *f;

	pre = pre ? strdup(pre) : NULL;
	peer_send(1, 20, 0);
	do_recv("recv", fd, 100, 0);
	fflush(stdout);
	TRY(system("grep -c ostrel /proc/self/maps"));
	say("system", "status=%d", WEXITSTATUS(t_ret));
	/* The hand-off took the library out of the environment. */
	if (pre != NULL)
		setenv("LD_PRELOAD", pre, 1);
	TRY((f = popen("grep -c ostrel /proc/self/maps", "r")) ? 0 : -1);
	if (f != NULL && fgets(line, sizeof(line), f) != NULL)
		line[strcspn(line, "\n")] = '\0';
	say("popen", "child maps it: %s", line);
	if (f != NULL)
		pclose(f);
	for (int v = 0; v < 2; v++) {
		fflush(stdout);
		errno = SENTINEL;
		pid = v ? vfork() : fork();
		if (pid == 0)
			_exit(errno == SENTINEL ? 0 : 1);
		t_err = errno;
		waitpid(pid, &st, 0);
		t_ret = pid < 0 ? -1 : 0;
		say(v ? "vfork" : "fork", "child kept errno=%d",
		    WEXITSTATUS(st) == 0);
	}
	DO("posix_spawn",
	    posix_spawn(&pid, "/bin/true", NULL, NULL, argv, environ));
	if (t_ret == 0)
		waitpid(pid, NULL, 0);
	DO("posix_spawnp missing",
	    posix_spawnp(&pid, "/nonexistent/nope", NULL, NULL, nope, environ));
	if (t_ret == 0)
		waitpid(pid, NULL, 0);
	DO("execv missing", execv("/nonexistent/nope", nope));
	DO("close", close(fd));
}

#define bit(set, fd) !!((set)[(fd) / NFDBITS] & (fd_mask)1 << (fd) % NFDBITS)

/* select and poll past FD_SETSIZE: the socket, and a pipe at BIG_FD. */
static void
row_select_wide(const row_t *r)
{
	struct rlimit rl = { 4096, 4096 };
	fd_mask set[BIG_NFDS / NFDBITS + 1];
	struct pollfd p[2];
	struct timeval tv;
	int fd = bound(0), pp[2];
	act_t a;
	clk_t t0;

	setrlimit(RLIMIT_NOFILE, &rl);
	if (pipe(pp) != 0 || dup2(pp[0], BIG_FD) != BIG_FD)
		exit(1);
	for (int i = 0; i < 4; i++) {
		static const char *const steps[] = { "select empty",
			"select pipe", "select datagram", "select closed" };

		memset(set, 0, sizeof(set));
		set[fd / NFDBITS] |= (fd_mask)1 << (fd % NFDBITS);
		set[BIG_FD / NFDBITS] |= (fd_mask)1 << (BIG_FD % NFDBITS);
		tv = (struct timeval){ i ? 2 : 0, 0 };
		if (i == 1)
			act_start(&a, A_WRITE, pp[1], 0);
		if (i == 2)
			peer_send(1, 20, 0);
		if (i == 3)
			close(BIG_FD);
		t0 = clk();
		TRY(select(BIG_NFDS, (fd_set *)set, NULL, NULL, &tv));
		say(steps[i], "socket=%d pipe=%d %s", bit(set, fd),
		    bit(set, BIG_FD), took(t0, 0));
		if (i == 1) {
			pthread_join(a.t, NULL);
			(void)!read(BIG_FD, rbuf, 1);
		}
	}
	p[0] = (struct pollfd){ fd, POLLIN, 0 };
	p[1] = (struct pollfd){ BIG_FD, POLLIN, 0 };
	TRY(poll(p, 2, 1000));
	say("poll closed", "revents=%s", revents(p[0].revents));
	printf("%-20s revents=%s\n", "  the closed one", revents(p[1].revents));
	do_recv("recv", fd, 100, MSG_DONTWAIT);
}

/* recvmmsg: SO_RCVTIMEO, MSG_WAITFORONE and its own time-out; vlen past
 * the kernel's 1024 with the vector's 1024 entries right before an
 * inaccessible page. */
static void
row_recvmmsg(const row_t *r)
{
	long pg = sysconf(_SC_PAGESIZE);
	size_t sz = 1024 * sizeof(struct mmsghdr);
	size_t map = (sz + pg - 1) / pg * pg + pg;
	char *m = mmap(NULL, map, PROT_READ | PROT_WRITE,
	    MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
	struct mmsghdr *mm = (struct mmsghdr *)(m + map - pg - sz);
	struct iovec iov[4];
	struct timespec ts = { 0, 10000000 };
	static const struct {
		const char *step;
		int queue, vlen, flags;
	} steps[] = { { "recvmmsg empty", 0, 4, 0 }, { "recvmmsg 2", 2, 4, 0 },
		{ "recvmmsg WAITFORONE", 2, 4, MSG_WAITFORONE },
		{ "recvmmsg 10ms arg", 1, 4, -1 },
		{ "recvmmsg 5000 empty", 0, 5000, MSG_DONTWAIT },
		{ "recvmmsg 5000", 3, 5000, MSG_DONTWAIT },
		{ "recvmmsg 0", 0, 0, MSG_DONTWAIT } };
	int fd = bound(0);
	clk_t t0;

	mprotect(m + map - pg, pg, PROT_NONE);
	memset(mm, 0, sz);
	for (int i = 0; i < 1024; i++) {
		iov[i % 4] = (struct iovec){ rbuf + i % 4 * 100, 100 };
		mm[i].msg_hdr.msg_iov = &iov[i % 4];
		mm[i].msg_hdr.msg_iovlen = 1;
	}
	rcvtimeo(fd, TMO_MS);
	for (size_t i = 0; i < sizeof(steps) / sizeof(steps[0]); i++) {
		if (steps[i].queue) {
			peer_send(steps[i].queue, 20, 0);
			usleep(100000);
		}
		mm[0].msg_len = mm[1].msg_len = mm[2].msg_len = 0;
		t0 = clk();
		TRY(recvmmsg(fd, mm, steps[i].vlen,
		    steps[i].flags < 0 ? 0 : steps[i].flags,
		    steps[i].flags < 0 ? &ts : NULL));
		say(steps[i].step, "lens=%u,%u,%u %s", mm[0].msg_len,
		    mm[1].msg_len, mm[2].msg_len, took(t0, i == 0));
	}
}

/* Reads of nothing take nothing; receives of nothing take a datagram. */
static void
row_zero_length(const row_t *r)
{
	int fd = bound(0);
	clk_t t0;

	rcvtimeo(fd, TMO_MS);
	t0 = clk();
	TRY(read(fd, rbuf, 0));
	say("read 0 empty", "%s", took(t0, 0));
	peer_queued(1, 10);
	GOT("read 0 queued", read(fd, rbuf, 0));
	GOT("readv 0 queued", readv(fd, NULL, 0));
	GOT("recv (still there)", recv(fd, rbuf, 100, MSG_DONTWAIT));
	peer_queued(1, 10);
	GOT("recv 0 queued", recv(fd, rbuf, 0, 0));
	GOT("recv (consumed)", recv(fd, rbuf, 100, MSG_DONTWAIT));
	do_recv("recv 0 empty", fd, 0, 0);
	peer_queued(1, 10);
	GOT("recv 0 TRUNC", recv(fd, NULL, 0, MSG_TRUNC | MSG_DONTWAIT));
}

/* recvfrom with the sender's address cut to each of N LENS, its SZ bytes
 * shown. */
static void
addr_lens(int fd, const unsigned *lens, int n, int sz)
{
	unsigned char a[40];
	char step[32];
	socklen_t len;

	for (int i = 0; i < n; i++) {
		memset(a, 0xff, sizeof(a));
		len = lens[i];
		TRY(recvfrom(fd, rbuf, 100, 0, (struct sockaddr *)a, &len));
		snprintf(step, sizeof(step), "recvfrom len %u", lens[i]);
		say(step, "bytes=%s len=%u addr=%s", bytes(rbuf, t_ret),
		    (unsigned)len, raw(a, sz));
	}
}

/* The sender's address cut to short lengths, every byte shown. */
static void
row_recvfrom_addr(const row_t *r)
{
	static const unsigned lens[] = { 16, 4, 0, 32 };
	unsigned char a[32];
	struct iovec iov = { rbuf, 100 };
	struct msghdr mh = { a, 4, &iov, 1, NULL, 0, 0 };
	socklen_t len = 16;
	int fd = bound(0);

	peer_send(6, 20, 0);
	addr_lens(fd, lens, 4, 16);
	memset(a, 0xff, sizeof(a));
	TRY(recvmsg(fd, &mh, 0));
	say("recvmsg namelen 4", "bytes=%s namelen=%u addr=%s",
	    bytes(rbuf, t_ret), (unsigned)mh.msg_namelen, raw(a, 16));
	TRY(recvfrom(fd, rbuf, 100, 0, NULL, &len));
	say("recvfrom NULL addr", "bytes=%s len=%u", bytes(rbuf, t_ret),
	    (unsigned)len);
}

/* IPv6: the sender's address (flow label and scope are the kernel's). */
static void
row_ipv6(const row_t *r)
{
	static const unsigned lens[] = { 28, 24, 8 };
	struct sockaddr_in6 mapped = { AF_INET6, htons(PEER_PORT), 0,
		IN6ADDR_ANY_INIT, 0 };
	struct sockaddr *p6 = (struct sockaddr *)&peer6_sa;
	int fd = socket(AF_INET6, SOCK_DGRAM, 0);

	DO("bind", bind(fd, (struct sockaddr *)&self6_sa, sizeof(self6_sa)));
	settle(fd);
	peer("send6 3 20 0");
	addr_lens(fd, lens, 3, 28);
	TRY(sendto(fd, "abc", 3, 0, p6, sizeof(peer6_sa)));
	say("sendto", "peer: %s", peer("recv6 1000"));
	memcpy(&mapped.sin6_addr.s6_addr[12], &peer_sa.sin_addr, 4);
	mapped.sin6_addr.s6_addr[10] = mapped.sin6_addr.s6_addr[11] = 0xff;
	DO("sendto v4-mapped",
	    sendto(fd, "abc", 3, 0, (struct sockaddr *)&mapped,
		sizeof(mapped)));
	TRY(sendto(fd, "abc", 3, 0, p6, 24));
	say("sendto len 24", "peer: %s", peer("recv6 300"));
	DO("connect", connect(fd, p6, sizeof(peer6_sa)));
	TRY(send(fd, "abcd", 4, 0));
	say("send", "peer: %s", peer("recv6 1000"));
}

/* TTL, TOS and multicast options, and what the peer sees of them. */
static void
row_ttl_options(const row_t *r)
{
	struct sockaddr_in group = { AF_INET, htons(PEER_PORT),
		{ htonl(0xef010203) }, { 0 } };
	struct sockaddr *g = (struct sockaddr *)&group;
	struct in_addr ifa = self_sa.sin_addr;
	static const struct {
		const char *step;
		int get, opt, v, len; /* len 1: the value as a char */
	} ops[] = { { "MULTICAST_TTL -1", 0, IP_MULTICAST_TTL, -1, 4 },
		{ "get MULTICAST_TTL", 1, IP_MULTICAST_TTL, 0, 4 },
		{ "MULTICAST_TTL 256", 0, IP_MULTICAST_TTL, 256, 4 },
		{ "MULTICAST_TTL char 5", 0, IP_MULTICAST_TTL, 5, 1 },
		{ "get MULTICAST_TTL 1", 1, IP_MULTICAST_TTL, 0, 1 },
		{ "IP_TTL -1", 0, IP_TTL, -1, 4 },
		{ "get IP_TTL", 1, IP_TTL, 0, 4 } };
	int fd = bound(0), v, t = 7;
	socklen_t len;

	for (size_t i = 0; i < sizeof(ops) / sizeof(ops[0]); i++) {
		v = ops[i].v;
		len = ops[i].len;
		TRY(ops[i].get ?
			getsockopt(fd, IPPROTO_IP, ops[i].opt, &v, &len) :
			setsockopt(fd, IPPROTO_IP, ops[i].opt, &v, len));
		say(ops[i].step, "value=%d len=%u", v, (unsigned)len);
	}
	SENT("sendto peer", sendto(fd, "abc", 3, 0, PEER));
	setsockopt(fd, IPPROTO_IP, IP_TTL, &t, sizeof(t));
	t = 0x10;
	setsockopt(fd, IPPROTO_IP, IP_TOS, &t, sizeof(t));
	SENT("sendto ttl 7 tos 16", sendto(fd, "abc", 3, 0, PEER));
	DO("sendto group", sendto(fd, "abc", 3, 0, g, sizeof(group)));
	DO("MULTICAST_IF",
	    setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &ifa, sizeof(ifa)));
	DO("sendto group", sendto(fd, "abc", 3, 0, g, sizeof(group)));
	DO("send unconnected", send(fd, "abc", 3, 0));
}

/* Datagrams the kernel queued before connect put the socket on the ring. */
static void
row_before_attach(const row_t *r)
{
	struct sockaddr_in any = self_sa;
	int fd = udp();

	any.sin_addr.s_addr = INADDR_ANY;
	DO("bind wildcard", bind(fd, (struct sockaddr *)&any, sizeof(any)));
	peer_queued(2, 20);
	DO("connect", connect(fd, PEER));
	settle(fd);
	peer_send(1, 20, 0);
	rcvtimeo(fd, 1000);
	for (int i = 0; i < 3; i++)
		do_recv("recv", fd, 100, 0);
	do_recv("recv", fd, 100, MSG_DONTWAIT);
}

/* Both copies read what the ring held; the copy after the first's close. */
static void
row_dup(const row_t *r)
{
	int fd = bound(0), fd2;

	DO_FD("dup", fd2 = dup(fd));
	peer_send(4, 20, 0);
	rcvtimeo(fd, 1000);
	for (int i = 0; i < 4; i++)
		do_recv(i % 2 ? "recv on dup" : "recv", i % 2 ? fd2 : fd, 100,
		    0);
	DO("close first", close(fd));
	peer_send(1, 20, 0);
	do_recv("recv on dup", fd2, 100, 0);
}

/* Peeks, truncation and what the queue tells of itself. */
static void
row_peek_trunc(const row_t *r)
{
	static char peeked[2000];
	struct iovec iov[2] = { { rbuf, 10 }, { rbuf + 100, 100 } };
	struct msghdr mh = { NULL, 0, iov, 1, NULL, 0, 0 };
	int fd = bound(0), v = -1;

	rcvtimeo(fd, 1000);
	VAL("FIONREAD empty", ioctl(fd, FIONREAD, &v), v);
	DO("recv ERRQUEUE", recv(fd, rbuf, 100, MSG_ERRQUEUE | MSG_DONTWAIT));
	peer_send(1, 100, 0);
	do_recv("recv PEEK", fd, 100, MSG_PEEK);
	memcpy(peeked, rbuf, 100);
	VAL("FIONREAD", ioctl(fd, FIONREAD, &v), v);
	do_recv("recv PEEK 10", fd, 10, MSG_PEEK);
	do_recv("recv PEEK|TRUNC 10", fd, 10, MSG_PEEK | MSG_TRUNC);
	TRY(recvmsg(fd, &mh, MSG_PEEK));
	say("recvmsg PEEK 10", "flags=%#x", mh.msg_flags);
	do_recv("recv", fd, 100, 0);
	printf("%-20s %s\n", "peek then recv",
	    memcmp(peeked, rbuf, 100) ? "different" : "same bytes");
	peer_send(1, 100, 0);
	do_recv("recv 10", fd, 10, 0);
	do_recv("recv rest", fd, 100, MSG_DONTWAIT);
	peer_send(1, 100, 0);
	mh.msg_flags = 0;
	TRY(recvmsg(fd, &mh, 0));
	say("recvmsg 10", "flags=%#x", mh.msg_flags);
	peer_send(1, 1472, 0);
	do_recv("recv TRUNC 1000", fd, 1000, MSG_TRUNC);
	peer_send(1, 1472, 0);
	do_recv("recv 2000", fd, 2000, 0);
	peer_send(1, 77, 0);
	iov[0].iov_len = 7;
	TRY(readv(fd, iov, 2));
	say("readv 7+100", "bytes=%s", bytes(rbuf, 7));
	say("", "bytes=%s", bytes(rbuf + 100, 70));
	VAL("FIONREAD after", ioctl(fd, FIONREAD, &v), v);
}

/* Fragmented datagrams: the kernel reassembles them. */
static void
row_fragmented(const row_t *r)
{
	int fd = bound(0);

	rcvtimeo(fd, 1000);
	peer_send(1, 3000, 0);
	do_recv("recv 3000", fd, sizeof(rbuf), 0);
	peer_send(1, 65507, 0);
	do_recv("recv 65507", fd, sizeof(rbuf), 0);
}

/* A send from an unbound socket binds it; the reply comes back to it.
 * Then one to a neighbour nobody answers for. */
static void
row_autobind(const row_t *r)
{
	struct sockaddr_in from, silent = peer_sa;
	socklen_t flen = sizeof(from);
	int fd = udp();

	peer("echo 1000");
	DO("sendto unbound", sendto(fd, "hello", 5, 0, PEER));
	rcvtimeo(fd, 1000);
	TRY(recvfrom(fd, rbuf, 100, 0, (struct sockaddr *)&from, &flen));
	say("recvfrom echo", "bytes=%ld from=%s", t_ret, who(&from, flen));
	/* .1 is the peer, .2 this side, .3 nobody */
	silent.sin_addr.s_addr = htonl(ntohl(peer_sa.sin_addr.s_addr) + 2);
	DO("sendto silent",
	    sendto(fd, "x", 1, 0, (struct sockaddr *)&silent, sizeof(silent)));
}

/* Waits sleep: time-outs, and a wait for the peer, take little CPU. */
static void
row_cpu_wait(const row_t *r)
{
	static const char *const steps[] = { "poll time-out", "select time-out",
		"epoll time-out" };
	struct epoll_event ev = { EPOLLIN, { 0 } };
	int fd = bound(0), ep = epoll_create1(0), pp[2];

	epoll_ctl(ep, EPOLL_CTL_ADD, fd, &ev);
	rcvtimeo(fd, TMO_MS);
	wait_one(W_RECV, fd, ep, 0, 1, "recv time-out");
	rcvtimeo(fd, 0);
	peer_send(1, 20, PEER_MS);
	wait_one(W_RECV, fd, ep, 0, 1, "recv until peer");
	for (int w = W_POLL; w <= W_EPOLL; w++)
		wait_one(w, fd, ep, TMO_MS, 1, steps[w - W_POLL]);
	/* A select over no socket at all. */
	if (pipe(pp) == 0)
		wait_one(W_SELECT, pp[0], ep, TMO_MS, 1,
		    "select pipe time-out");
}

static const row_t rows[] = {
	{ "calls", row_calls, 1 },
	{ "fails", row_fails, 1 },
	{ "process", row_process, 1 },
	{ "refused", row_refused, 1 },
	{ "shutdown_connected", row_shutdown, 1, 1, SHUT_RDWR },
	{ "shutdown_unconnected", row_shutdown, 1, 0, SHUT_RDWR },
	{ "shutdown_read", row_shutdown, 1, 1, SHUT_RD },
	{ "fork_wait", row_handoff, 0, A_FORK },
	{ "spawn_wait", row_handoff, 0, A_SPAWN },
	{ "spawn_wait_timed", row_handoff, 0, A_SPAWN, 1 },
	{ "ipopts_wait", row_handoff, 0, A_IPOPTS },
	{ "bindtodevice_wait", row_handoff, 0, A_BINDDEV },
	{ "dup_wait", row_handoff, 0, A_DUP },
	{ "dup_wait_timed", row_handoff, 0, A_DUP, 1 },
	{ "unspec_wait", row_handoff, 0, A_UNSPEC },
	{ "sig_restart", row_signal, 1, W_RECV, SA_RESTART, H_COUNT, ACT_MS },
	{ "sig_restart_spin", row_signal, 1, W_RECV, SA_RESTART, H_COUNT, 5 },
	{ "sig_resethand", row_signal, 1, W_RECV, SA_RESTART | SA_RESETHAND,
	    H_COUNT, ACT_MS },
	{ "sig_bsd", row_signal, 1, W_RECV, HOW_BSD, H_COUNT, ACT_MS },
	{ "sig_siginterrupt", row_signal, 1, W_RECV, HOW_INTR, H_COUNT,
	    ACT_MS },
	{ "sig_eintr", row_signal, 1, W_RECV, 0, H_COUNT, ACT_MS },
	{ "sig_eintr_spin", row_signal, 1, W_RECV, 0, H_COUNT, 5 },
	{ "sig_rcvtimeo", row_signal, 1, W_TIMED, SA_RESTART, H_COUNT, ACT_MS },
	{ "sig_rcvtimeo_spin", row_signal, 1, W_TIMED, SA_RESTART, H_COUNT, 5 },
	{ "sig_poll", row_signal, 1, W_POLL, SA_RESTART, H_COUNT, ACT_MS },
	{ "sig_select", row_signal, 1, W_SELECT, SA_RESTART, H_COUNT, ACT_MS },
	{ "sig_select_spin", row_signal, 1, W_SELECT, SA_RESTART, H_COUNT, 5 },
	{ "sig_epoll", row_signal, 1, W_EPOLL, SA_RESTART, H_COUNT, ACT_MS },
	{ "sig_send", row_signal, 1, W_RECV, 0, H_SEND, ACT_MS },
	{ "sig_close", row_signal, 1, W_RECV, 0, H_CLOSE, ACT_MS },
	{ "sig_jump", row_signal, 1, W_RECV, 0, H_JUMP, ACT_MS },
	{ "wait_mask", row_wait_mask, 1 },
	{ "select_wide", row_select_wide, 1 },
	{ "recvmmsg", row_recvmmsg, 1 },
	{ "zero_length", row_zero_length, 1 },
	{ "recvfrom_addr", row_recvfrom_addr, 1 },
	{ "ipv6", row_ipv6, 1 },
	{ "ttl_options", row_ttl_options, 1 },
	{ "tx_burst", row_tx_burst, 1 },
	{ "before_attach", row_before_attach, 0 },
	{ "dup", row_dup, 0 },
	{ "peek_trunc", row_peek_trunc, 1 },
	{ "fragmented", row_fragmented, 0 }, /* fragments: the kernel's */
	{ "autobind", row_autobind, 0 },
	{ "cpu_wait", row_cpu_wait, 1 },
};

int
main(int argc, char **argv)
{
	struct sockaddr_un un = { .sun_family = AF_UNIX };
	struct if_nameindex *ni, *ix;
	size_t n = sizeof(rows) / sizeof(rows[0]);

	if (argc == 2 && strcmp(argv[1], "list") == 0) {
		for (size_t i = 0; i < n; i++)
			printf("%s %s\n", rows[i].name,
			    rows[i].ring ? "ring" : "kernel");
		return 0;
	}
	self_sa.sin_family = peer_sa.sin_family = AF_INET;
	self_sa.sin_port = htons(SELF_PORT);
	peer_sa.sin_port = htons(PEER_PORT);
	self6_sa.sin6_family = peer6_sa.sin6_family = AF_INET6;
	self6_sa.sin6_port = htons(SELF_PORT);
	peer6_sa.sin6_port = htons(PEER_PORT);
	if (argc != 7 || inet_pton(AF_INET, argv[2], &self_sa.sin_addr) != 1 ||
	    inet_pton(AF_INET, argv[3], &peer_sa.sin_addr) != 1 ||
	    inet_pton(AF_INET6, argv[5], &self6_sa.sin6_addr) != 1 ||
	    inet_pton(AF_INET6, argv[6], &peer6_sa.sin6_addr) != 1)
		return 2;
	setvbuf(stdout, NULL, _IOLBF, 0);
	signal(SIGPIPE, SIG_IGN);
	main_thread = pthread_self();
	/* The interface beside lo, for SO_BINDTODEVICE. */
	for (ix = ni = if_nameindex(); ix != NULL && ix->if_index != 0; ix++)
		if (strcmp(ix->if_name, "lo") != 0)
			snprintf(ifname, sizeof(ifname), "%s", ix->if_name);
	if_freenameindex(ni);
	for (size_t i = 0; i < n; i++)
		if (strcmp(argv[1], rows[i].name) == 0) {
			int c = socket(AF_UNIX, SOCK_STREAM, 0);

			snprintf(un.sun_path, sizeof(un.sun_path), "%s",
			    argv[4]);
			if (connect(c, (struct sockaddr *)&un, sizeof(un)) ||
			    (ctl = fdopen(c, "r")) == NULL) {
				perror("control");
				return 1;
			}
			rows[i].fn(&rows[i]);
			/* The peer's delayed sends are over before the next
			 * row binds the port. */
			peer("recv 0");
			return 0;
		}
	fprintf(stderr, "no row %s\n", argv[1]);
	return 2;
}
