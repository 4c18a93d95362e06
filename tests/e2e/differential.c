/*
 * The differential table: one scenario, as an application sees it.
 *
 *   differential list                      rows, with "ring" or "kernel"
 *   differential peer SELF PEER CTL SELF6 PEER6   the plain peer
 *   differential ROW SELF PEER CTL SELF6 PEER6    one row
 *
 * A row prints one normalised line per step: return value, errno (set to
 * a sentinel before every call, so a successful call that touches it
 * shows), bytes, sender address and its length, revents, the elapsed time
 * as a bucket and, for waits, whether the process used more than a fifth
 * of the wall time in CPU.  No descriptor numbers, pids or varying ports:
 * differential.sh runs each row on kernel sockets and under the preload
 * and compares the two outputs line by line.
 *
 * The row's socket is bound to SELF:5000.  The peer is a plain process
 * in the other namespace with a socket on PEER:6000, driven over the UNIX
 * stream socket CTL one command a line ("send N LEN DELAY_MS", "recv MS",
 * ...), so that under the preload only the row's side is preloaded.  The
 * k-th datagram the peer sends in a row is filled with 'A' + k.  With
 * SELF6 and PEER6 after CTL, the same over IPv6 ("send6", "recv6").
 */
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#define SELF_PORT       5000
#define PEER_PORT       6000
#define SENTINEL        7777 /* no errno of Linux */
#define ACT_MS          150  /* another thread or a signal acts */
#define TMO_MS          250  /* time-outs */
#define PEER_MS         600  /* the peer's delayed datagram */
#define SO_OSTREL_STATS 0x101b

extern char **environ;

static struct sockaddr_in self_sa, peer_sa;
static struct sockaddr_in6 self6_sa, peer6_sa;
static int ctl = -1;
static char ifname[IF_NAMESIZE];
static pthread_t main_thread;

/* The result of the last TRY in this thread. */
static __thread long t_ret;
static __thread int t_err;
#define TRY(expr) (errno = SENTINEL, t_ret = (long)(expr), t_err = errno)

static const char *
ename(int e)
{
	static char b[16];
	const char *n;

	if (e == SENTINEL)
		return "-";
	if ((n = strerrorname_np(e)) != NULL)
		return n;
	snprintf(b, sizeof(b), "%d", e);
	return b;
}

/* step ret=R errno=E, then what the step adds. */
static void
say(const char *step, const char *fmt, ...)
{
	va_list ap;

	printf("%-20s ret=%ld errno=%s", step, t_ret, ename(t_err));
	if (fmt != NULL) {
		putchar(' ');
		va_start(ap, fmt);
		vprintf(fmt, ap);
		va_end(ap);
	}
	putchar('\n');
	fflush(stdout);
}

/* For calls that return a descriptor. */
static void
say_fd(const char *step)
{
	if (t_ret >= 0)
		t_ret = 0;
	say(step, "(descriptor)");
}

typedef struct {
	double wall, cpu;
} clk_t;

static double
ms_of(clockid_t id)
{
	struct timespec ts;

	clock_gettime(id, &ts);
	return ts.tv_sec * 1e3 + ts.tv_nsec / 1e6;
}

static clk_t
clk(void)
{
	clk_t c = { ms_of(CLOCK_MONOTONIC), ms_of(CLOCK_PROCESS_CPUTIME_ID) };
	return c;
}

/*
 * " time=B" and, with CPU, " cpu=<20%" or " cpu>=20%".  The buckets are
 * wide enough for a loaded machine: immediate, about when another thread
 * or a signal acts, about a time-out, about the peer's delayed datagram.
 */
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

/* The address as "peer", "self", "self:other-port" or its family. */
static const char *
who(const struct sockaddr_in *sa, socklen_t len)
{
	static char b[32];

	if (len < sizeof(*sa))
		snprintf(b, sizeof(b), "(len %u)", (unsigned)len);
	else if (sa->sin_family != AF_INET)
		snprintf(b, sizeof(b), "family=%d", sa->sin_family);
	else if (sa->sin_addr.s_addr == peer_sa.sin_addr.s_addr)
		return sa->sin_port == peer_sa.sin_port ? "peer" :
							  "peer:other-port";
	else if (sa->sin_addr.s_addr == self_sa.sin_addr.s_addr)
		return sa->sin_port == self_sa.sin_port ? "self" :
							  "self:other-port";
	else
		return "elsewhere";
	return b;
}

static const char *
who6(const struct sockaddr_in6 *sa, socklen_t len)
{
	if (len < sizeof(*sa) || sa->sin6_family != AF_INET6)
		return "(not inet6)";
	if (IN6_ARE_ADDR_EQUAL(&sa->sin6_addr, &peer6_sa.sin6_addr))
		return sa->sin6_port == peer6_sa.sin6_port ? "peer6" :
							     "peer6:other-port";
	if (IN6_ARE_ADDR_EQUAL(&sa->sin6_addr, &self6_sa.sin6_addr))
		return sa->sin6_port == self6_sa.sin6_port ? "self6" :
							     "self6:other-port";
	return "elsewhere";
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

static const char *
revents(int ev)
{
	static char b[96];
	static const struct {
		int bit;
		const char *name;
	} names[] = { { POLLIN, "IN" }, { POLLPRI, "PRI" }, { POLLOUT, "OUT" },
		{ POLLERR, "ERR" }, { POLLHUP, "HUP" }, { POLLNVAL, "NVAL" },
		{ POLLRDNORM, "RDNORM" }, { POLLWRNORM, "WRNORM" },
		{ POLLRDHUP, "RDHUP" } };

	b[0] = '\0';
	for (size_t i = 0; i < sizeof(names) / sizeof(names[0]); i++)
		if (ev & names[i].bit) {
			strcat(b, b[0] ? "|" : "");
			strcat(b, names[i].name);
		}
	return b[0] ? b : "0";
}

/* ---------------------------------------------------------------- peer */

/* A command to the peer; its one-line answer. */
static const char *
peer(const char *fmt, ...)
{
	static char line[128];
	va_list ap;
	size_t n = 0;
	int len;

	va_start(ap, fmt);
	len = vsnprintf(line, sizeof(line) - 1, fmt, ap);
	va_end(ap);
	line[len++] = '\n';
	if (write(ctl, line, len) != len)
		return "peer gone";
	while (n < sizeof(line) - 1 && read(ctl, line + n, 1) == 1 &&
	    line[n] != '\n')
		n++;
	line[n] = '\0';
	return line;
}

/* "send N LEN DELAY": N datagrams of LEN bytes, DELAY ms from now. */
static void
peer_send(int n, int len, int delay_ms)
{
	peer("send %d %d %d", n, len, delay_ms);
}

static int
peer_socket(int fam)
{
	int one = 1, big = 4 << 20;
	int s = socket(fam, SOCK_DGRAM, 0);

	setsockopt(s, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
	setsockopt(s, SOL_SOCKET, SO_RCVBUFFORCE, &big, sizeof(big));
	setsockopt(s, IPPROTO_IP, IP_RECVTTL, &one, sizeof(one));
	setsockopt(s, IPPROTO_IP, IP_RECVTOS, &one, sizeof(one));
	if (fam == AF_INET6 ?
		bind(s, (struct sockaddr *)&peer6_sa, sizeof(peer6_sa)) :
		bind(s, (struct sockaddr *)&peer_sa, sizeof(peer_sa))) {
		perror("peer bind");
		exit(1);
	}
	return s;
}

/* One datagram within MS: "got LEN FILL from WHO ttl=T tos=T" or "none". */
static void
peer_recv(int u, int ms, FILE *out, int echo)
{
	static char buf[65536];
	char cbuf[256];
	struct sockaddr_in6 from; /* room for either family */
	struct iovec iov = { buf, sizeof(buf) };
	struct msghdr mh = { &from, sizeof(from), &iov, 1, cbuf, sizeof(cbuf),
		0 };
	struct pollfd p = { u, POLLIN, 0 };
	int ttl = -1, tos = -1;
	long n;

	if (u < 0 || poll(&p, 1, ms) != 1 || (n = recvmsg(u, &mh, 0)) < 0) {
		fprintf(out, "none\n");
		return;
	}
	for (struct cmsghdr *c = CMSG_FIRSTHDR(&mh); c; c = CMSG_NXTHDR(&mh, c))
		if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_TTL)
			ttl = *(int *)CMSG_DATA(c);
		else if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_TOS)
			tos = *(unsigned char *)CMSG_DATA(c);
	if (echo)
		sendto(u, buf, n, 0, (struct sockaddr *)&from, sizeof(from));
	else
		fprintf(out, "got %s from %s ttl=%d tos=%d\n", bytes(buf, n),
		    from.sin6_family == AF_INET6 ?
			who6(&from, mh.msg_namelen) :
			who((struct sockaddr_in *)&from, mh.msg_namelen),
		    ttl, tos);
}

static int
peer_main(const char *path)
{
	struct sockaddr_un un = { .sun_family = AF_UNIX };
	int l = socket(AF_UNIX, SOCK_STREAM, 0), u = peer_socket(AF_INET);
	int u6 = peer_socket(AF_INET6);
	static char buf[65536];
	char line[128];

	snprintf(un.sun_path, sizeof(un.sun_path), "%s", path);
	unlink(path);
	if (bind(l, (struct sockaddr *)&un, sizeof(un)) != 0 ||
	    listen(l, 4) != 0) {
		perror("peer control");
		return 1;
	}
	for (;;) {
		int c = accept(l, NULL, NULL), seq = 0, n, len, ms;
		FILE *in = fdopen(c, "r+");

		setvbuf(in, NULL, _IONBF, 0);
		while (fgets(line, sizeof(line), in) != NULL) {
			/* "send6" before "send": %d would take its 6. */
			if (sscanf(line, "send6 %d %d %d", &n, &len, &ms) ==
			    3) {
				fprintf(in, "ok\n");
				usleep(ms * 1000);
				for (int i = 0; i < n; i++, seq++) {
					memset(buf, 'A' + seq % 26, len);
					sendto(u6, buf, len, 0,
					    (struct sockaddr *)&self6_sa,
					    sizeof(self6_sa));
				}
			} else if (sscanf(line, "send %d %d %d", &n, &len,
				       &ms) == 3) {
				fprintf(in, "ok\n");
				usleep(ms * 1000);
				for (int i = 0; i < n; i++, seq++) {
					memset(buf, 'A' + seq % 26, len);
					sendto(u, buf, len, 0,
					    (struct sockaddr *)&self_sa,
					    sizeof(self_sa));
				}
			} else if (sscanf(line, "recv6 %d", &ms) == 1) {
				peer_recv(u6, ms, in, 0);
			} else if (sscanf(line, "recv %d", &ms) == 1) {
				peer_recv(u, ms, in, 0);
			} else if (sscanf(line, "echo %d", &ms) == 1) {
				fprintf(in, "ok\n");
				peer_recv(u, ms, in, 1);
			} else if (sscanf(line, "drain %d", &ms) == 1) {
				struct pollfd p = { u, POLLIN, 0 };

				for (n = 0; poll(&p, 1, ms) == 1; n++)
					recv(u, buf, sizeof(buf), 0);
				fprintf(in, "got %s\n", n ? "some" : "none");
			} else if (strcmp(line, "close\n") == 0) {
				close(u);
				u = -1;
				fprintf(in, "ok\n");
			} else {
				fprintf(in, "what?\n");
			}
		}
		fclose(in);
		/* The next row starts clean: port open, nothing queued. */
		if (u < 0)
			u = peer_socket(AF_INET);
		while (recv(u, buf, sizeof(buf), MSG_DONTWAIT) >= 0 ||
		    recv(u6, buf, sizeof(buf), MSG_DONTWAIT) >= 0)
			;
	}
}

/* ---------------------------------------------------------- scenarios */

/*
 * Under the preload, until the socket answers the library's own option
 * (it is on the bypass), or 2 s; stderr says which.  Datagrams the peer
 * sends after this come through the ring.
 */
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

static int
udp(void)
{
	return socket(AF_INET, SOCK_DGRAM, 0);
}

/* A socket on SELF:5000, settled. */
static int
bound(void)
{
	int fd = udp();

	if (fd < 0 || bind(fd, (struct sockaddr *)&self_sa, sizeof(self_sa))) {
		perror("bind");
		exit(1);
	}
	settle(fd);
	return fd;
}

static int
connected(void)
{
	int fd = bound();

	if (connect(fd, (struct sockaddr *)&peer_sa, sizeof(peer_sa)) != 0) {
		perror("connect");
		exit(1);
	}
	return fd;
}

static void
rcvtimeo(int fd, int ms)
{
	struct timeval tv = { ms / 1000, ms % 1000 * 1000 };

	setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
}

static char rbuf[70000];

/* A receive step: bytes and, where there is one, the sender. */
static void
say_recv(const char *step, clk_t t0, int cpu)
{
	say(step, "bytes=%s %s", bytes(rbuf, t_ret), took(t0, cpu));
}

static void
do_recv(const char *step, int fd, size_t len, int flags)
{
	clk_t t0 = clk();

	TRY(recv(fd, rbuf, len, flags));
	say_recv(step, t0, 0);
}

/* ------------------------------------------- errno on success, failure */

static void
row_errno_ok(void)
{
	struct sockaddr_in from;
	socklen_t flen = sizeof(from);
	struct iovec iov = { rbuf, 100 };
	struct msghdr mh = { &from, sizeof(from), &iov, 1, NULL, 0, 0 };
	int fd, v = 65536;
	socklen_t vlen = sizeof(v);

	TRY(fd = udp());
	say_fd("socket");
	TRY(bind(fd, (struct sockaddr *)&self_sa, sizeof(self_sa)));
	say("bind", NULL);
	settle(fd);
	TRY(setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &v, sizeof(v)));
	say("setsockopt", NULL);
	TRY(getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &v, &vlen));
	say("getsockopt", "value=%d len=%u", v, (unsigned)vlen);
	TRY(connect(fd, (struct sockaddr *)&peer_sa, sizeof(peer_sa)));
	say("connect", NULL);
	memset(rbuf, 'x', 100);
	TRY(send(fd, rbuf, 10, 0));
	say("send", "peer: %s", peer("recv 1000"));
	TRY(sendto(fd, rbuf, 11, 0, (struct sockaddr *)&peer_sa,
	    sizeof(peer_sa)));
	say("sendto", "peer: %s", peer("recv 1000"));
	iov.iov_len = 12;
	mh.msg_name = NULL;
	mh.msg_namelen = 0;
	TRY(sendmsg(fd, &mh, 0));
	say("sendmsg", "peer: %s", peer("recv 1000"));
	TRY(write(fd, rbuf, 13));
	say("write", "peer: %s", peer("recv 1000"));

	peer_send(4, 20, 0);
	do_recv("recv", fd, 100, 0);
	TRY(recvfrom(fd, rbuf, 100, 0, (struct sockaddr *)&from, &flen));
	say("recvfrom", "bytes=%s from=%s len=%u", bytes(rbuf, t_ret),
	    who(&from, flen), (unsigned)flen);
	iov.iov_len = 100;
	mh.msg_name = &from;
	mh.msg_namelen = sizeof(from);
	TRY(recvmsg(fd, &mh, 0));
	say("recvmsg", "bytes=%s from=%s namelen=%u flags=%#x",
	    bytes(rbuf, t_ret), who(&from, mh.msg_namelen),
	    (unsigned)mh.msg_namelen, mh.msg_flags);
	TRY(read(fd, rbuf, 100));
	say("read", "bytes=%s", bytes(rbuf, t_ret));
	TRY(shutdown(fd, SHUT_WR));
	say("shutdown SHUT_WR", NULL);
	TRY(close(fd));
	say("close", NULL);
}

static void
row_errno_fail(void)
{
	struct sockaddr_in6 six = { .sin6_family = AF_INET6 };
	struct mmsghdr mm = { { NULL, 0, NULL, 0, NULL, 0, 0 }, 0 };
	struct iovec iov = { rbuf, 10 };
	struct msghdr mh = { NULL, 0, &iov, 1, NULL, 0, 0 };
	int u = udp(), fd, p[2], v = 1;
	socklen_t vlen = 1;

	TRY(recv(999, rbuf, 10, 0));
	say("recv bad fd", NULL);
	TRY(sendto(999, rbuf, 10, 0, (struct sockaddr *)&peer_sa,
	    sizeof(peer_sa)));
	say("sendto bad fd", NULL);
	TRY(bind(u, (struct sockaddr *)&self_sa, 8));
	say("bind short addr", NULL);
	TRY(connect(u, (struct sockaddr *)&peer_sa, 4));
	say("connect short addr", NULL);
	TRY(sendto(u, rbuf, 10, 0, (struct sockaddr *)&peer_sa, 8));
	say("sendto short addr", NULL);
	TRY(sendto(u, rbuf, 10, 0, (struct sockaddr *)&six, sizeof(six)));
	say("sendto inet6 addr", NULL);
	/* The failed connect and sendto bound it, as they do. */
	TRY(bind(u, (struct sockaddr *)&self_sa, sizeof(self_sa)));
	say("bind after them", NULL);
	close(u);
	/* The rest on a socket that the failures above did not touch. */
	fd = bound();
	do_recv("recv DONTWAIT", fd, 10, MSG_DONTWAIT);
	fcntl(fd, F_SETFL, O_NONBLOCK);
	do_recv("recv nonblocking", fd, 10, 0);
	TRY(read(fd, rbuf, 10));
	say("read nonblocking", NULL);
	TRY(recvmsg(fd, &mh, 0));
	say("recvmsg nonblocking", NULL);
	mm.msg_hdr = mh;
	TRY(recvmmsg(fd, &mm, 1, 0, NULL));
	say("recvmmsg nonblocking", NULL);
	fcntl(fd, F_SETFL, 0);
	TRY(send(fd, rbuf, 10, 0));
	say("send unconnected", NULL);
	TRY(write(fd, rbuf, 10));
	say("write unconnected", NULL);
	TRY(sendmsg(fd, &mh, 0));
	say("sendmsg unconnected", NULL);
	TRY(sendto(fd, rbuf, 65508, 0, (struct sockaddr *)&peer_sa,
	    sizeof(peer_sa)));
	say("sendto 65508", NULL);
	connect(fd, (struct sockaddr *)&peer_sa, sizeof(peer_sa));
	TRY(send(fd, rbuf, 65508, 0));
	say("send 65508", NULL);
	memset(rbuf, 'y', 65507);
	TRY(send(fd, rbuf, 65507, 0));
	say("send 65507", "peer: %s", peer("recv 1000"));
	if (pipe(p) != 0)
		return;
	TRY(recv(p[0], rbuf, 10, MSG_DONTWAIT));
	say("recv on a pipe", NULL);
	TRY(setsockopt(fd, SOL_SOCKET, 12345, &v, sizeof(v)));
	say("setsockopt unknown", NULL);
	TRY(setsockopt(fd, IPPROTO_IP, IP_TTL, &v, 0));
	say("setsockopt short", NULL);
	TRY(getsockopt(fd, SOL_SOCKET, SO_ERROR, &v, &vlen));
	say("getsockopt short", "len=%u", (unsigned)vlen);
	TRY(close(fd));
	say("close", NULL);
	TRY(close(fd));
	say("close again", NULL);
	TRY(recv(fd, rbuf, 10, MSG_DONTWAIT));
	say("recv closed", NULL);
}

/* ------------------------------------------------------ refused, errors */

static void
row_refused(void)
{
	int fd = connected(), v = -1;
	socklen_t vlen = sizeof(v);

	peer("close");
	memset(rbuf, 'x', 10);
	TRY(send(fd, rbuf, 10, 0));
	say("send", NULL);
	usleep(200000);
	do_recv("recv DONTWAIT", fd, 10, MSG_DONTWAIT);
	do_recv("recv DONTWAIT again", fd, 10, MSG_DONTWAIT);
	TRY(send(fd, rbuf, 10, 0));
	say("send", NULL);
	usleep(200000);
	TRY(send(fd, rbuf, 10, 0));
	say("send error pending", NULL);
	TRY(send(fd, rbuf, 10, 0));
	say("send after", NULL);
	usleep(200000);
	TRY(getsockopt(fd, SOL_SOCKET, SO_ERROR, &v, &vlen));
	say("SO_ERROR", "value=%s", v ? strerrorname_np(v) : "0");
	TRY(getsockopt(fd, SOL_SOCKET, SO_ERROR, &v, &vlen));
	say("SO_ERROR again", "value=%s", v ? strerrorname_np(v) : "0");
	TRY(send(fd, rbuf, 10, 0));
	usleep(200000);
	rcvtimeo(fd, 1000);
	do_recv("recv blocking", fd, 10, 0);
}

/* Another thread's action, ACT_MS into the main thread's wait. */
enum {
	A_NONE,
	A_SEND,
	A_SHUT,
	A_FORK,
	A_SPAWN,
	A_IPOPTS,
	A_BINDDEV,
	A_SIG
};

typedef struct {
	int kind, fd;
	long ret;
	int err;
	pthread_t t;
} act_t;

static void *
actor(void *arg)
{
	static const unsigned char nops[4] = { 1, 1, 1, 0 };
	act_t *a = arg;
	char *argv[] = { "/bin/true", NULL };
	pid_t pid;

	usleep(ACT_MS * 1000);
	switch (a->kind) {
	case A_SEND:
		TRY(send(a->fd, "xxxx", 4, 0));
		break;
	case A_SHUT:
		TRY(shutdown(a->fd, SHUT_RDWR));
		break;
	case A_FORK:
		TRY(pid = fork());
		if (pid == 0)
			_exit(0);
		if (pid > 0) {
			waitpid(pid, NULL, 0);
			t_ret = 0;
		}
		break;
	case A_SPAWN:
		TRY(posix_spawn(&pid, argv[0], NULL, NULL, argv, environ));
		if (t_ret == 0)
			waitpid(pid, NULL, 0);
		break;
	case A_IPOPTS:
		TRY(setsockopt(a->fd, IPPROTO_IP, IP_OPTIONS, nops,
		    sizeof(nops)));
		break;
	case A_BINDDEV:
		TRY(setsockopt(a->fd, SOL_SOCKET, SO_BINDTODEVICE, ifname,
		    strlen(ifname)));
		break;
	case A_SIG:
		TRY(pthread_kill(main_thread, SIGUSR1));
		break;
	}
	a->ret = t_ret;
	a->err = t_err;
	return NULL;
}

static void
act_start(act_t *a, int kind, int fd)
{
	a->kind = kind;
	a->fd = fd;
	pthread_create(&a->t, NULL, actor, a);
}

static void
act_say(act_t *a, const char *step)
{
	pthread_join(a->t, NULL);
	t_ret = a->ret;
	t_err = a->err;
	say(step, NULL);
}

/* The error arrives while the receive waits: it ends the wait. */
static void
row_refused_wait(void)
{
	int fd = connected();
	act_t a;

	peer("close");
	rcvtimeo(fd, 1000);
	act_start(&a, A_SEND, fd);
	do_recv("recv waiting", fd, 10, 0);
	act_say(&a, "send (thread)");
}

static void
poll_all(int fd, const char *when)
{
	struct pollfd p = { fd, POLLIN | POLLOUT | POLLRDHUP, 0 };
	struct epoll_event ev = { EPOLLIN | EPOLLOUT | EPOLLRDHUP, { 0 } };
	char step[64];
	fd_set r, w;
	struct timeval tv = { 0, 0 };
	int ep = epoll_create1(0);

	snprintf(step, sizeof(step), "poll %s", when);
	TRY(poll(&p, 1, 0));
	say(step, "revents=%s", revents(p.revents));
	epoll_ctl(ep, EPOLL_CTL_ADD, fd, &ev);
	ev.events = 0;
	snprintf(step, sizeof(step), "epoll %s", when);
	TRY(epoll_wait(ep, &ev, 1, 0));
	say(step, "events=%s", revents(ev.events));
	close(ep);
	FD_ZERO(&r);
	FD_ZERO(&w);
	FD_SET(fd, &r);
	FD_SET(fd, &w);
	snprintf(step, sizeof(step), "select %s", when);
	TRY(select(fd + 1, &r, &w, NULL, &tv));
	say(step, "read=%d write=%d", FD_ISSET(fd, &r), FD_ISSET(fd, &w));
}

static void
row_refused_poll(void)
{
	int fd = connected(), v;
	socklen_t vlen = sizeof(v);

	poll_all(fd, "idle");
	peer("close");
	TRY(send(fd, "xxxx", 4, 0));
	usleep(200000);
	poll_all(fd, "error pending");
	TRY(getsockopt(fd, SOL_SOCKET, SO_ERROR, &v, &vlen));
	say("SO_ERROR", "value=%s", v ? strerrorname_np(v) : "0");
	poll_all(fd, "error read");
}

/* shutdown from another thread ends a waiting receive with 0. */
static void
shutdown_row(int fd)
{
	act_t a;

	act_start(&a, A_SHUT, fd);
	do_recv("recv waiting", fd, 100, 0);
	act_say(&a, "shutdown (thread)");
	do_recv("recv after", fd, 100, 0);
	poll_all(fd, "after shutdown");
	TRY(send(fd, "xxxx", 4, MSG_NOSIGNAL));
	say("send after", NULL);
	peer_send(1, 20, 0);
	usleep(100000);
	do_recv("recv datagram", fd, 100, MSG_DONTWAIT);
}

static void
row_shutdown_connected(void)
{
	shutdown_row(connected());
}

static void
row_shutdown_unconnected(void)
{
	shutdown_row(bound());
}

/* --------------------------------- what another thread does mid-wait */

/* A receive waits through KIND and then gets the peer's datagram. */
static void
wait_through(int kind)
{
	int fd = bound();
	act_t a;

	peer_send(1, 20, PEER_MS);
	act_start(&a, kind, fd);
	do_recv("recv waiting", fd, 100, 0);
	act_say(&a, "action (thread)");
	peer_send(1, 30, 0);
	do_recv("recv next", fd, 100, 0);
	TRY(send(fd, "zz", 2, 0));
	say("send unconnected", NULL);
	TRY(sendto(fd, "zz", 2, 0, (struct sockaddr *)&peer_sa,
	    sizeof(peer_sa)));
	say("sendto", "peer: %s", peer("recv 1000"));
}

static void
row_fork_wait(void)
{
	wait_through(A_FORK);
}

static void
row_spawn_wait(void)
{
	wait_through(A_SPAWN);
}

static void
row_ipopts_wait(void)
{
	wait_through(A_IPOPTS);
}

static void
row_bindtodevice_wait(void)
{
	wait_through(A_BINDDEV);
}

/* ------------------------------------------------------------ signals */

static volatile sig_atomic_t handled;

static void
on_usr1(int sig)
{
	(void)sig;
	handled++;
}

enum {
	W_RECV,
	W_POLL,
	W_SELECT,
	W_EPOLL
};

/*
 * SIGUSR1 arrives ACT_MS into a wait of kind W with the peer's datagram
 * due at PEER_MS; the handler is installed by sigaction with FLAGS, or by
 * signal() when FLAGS is -1.
 */
static void
signal_row(int w, int flags, int timeo_ms)
{
	struct sigaction sa = { .sa_handler = on_usr1, .sa_flags = flags };
	struct pollfd p;
	struct epoll_event ev = { EPOLLIN, { 0 } };
	int fd = bound(), ep = epoll_create1(0);
	fd_set r;
	act_t a;
	clk_t t0;

	if (flags < 0)
		signal(SIGUSR1, on_usr1);
	else
		sigaction(SIGUSR1, &sa, NULL);
	if (timeo_ms)
		rcvtimeo(fd, timeo_ms);
	epoll_ctl(ep, EPOLL_CTL_ADD, fd, &ev);
	peer_send(1, 20, PEER_MS);
	for (int round = 0; round < 2; round++) {
		const char *step = round ? "wait again" : "wait, signalled";

		handled = 0;
		if (round == 0)
			act_start(&a, A_SIG, fd);
		t0 = clk();
		switch (w) {
		case W_RECV:
			TRY(recv(fd, rbuf, 100, 0));
			say(step, "bytes=%s %s handled=%d", bytes(rbuf, t_ret),
			    took(t0, 0), handled);
			break;
		case W_POLL:
			p.fd = fd;
			p.events = POLLIN;
			p.revents = 0;
			TRY(poll(&p, 1, -1));
			say(step, "revents=%s %s handled=%d",
			    revents(p.revents), took(t0, 0), handled);
			break;
		case W_SELECT:
			FD_ZERO(&r);
			FD_SET(fd, &r);
			TRY(select(fd + 1, &r, NULL, NULL, NULL));
			say(step, "read=%d %s handled=%d", FD_ISSET(fd, &r),
			    took(t0, 0), handled);
			break;
		case W_EPOLL:
			ev.events = 0;
			TRY(epoll_wait(ep, &ev, 1, -1));
			say(step, "events=%s %s handled=%d", revents(ev.events),
			    took(t0, 0), handled);
			break;
		}
		if (round == 0)
			pthread_join(a.t, NULL);
		if (t_ret > 0 && w == W_RECV)
			break;
	}
	if (w != W_RECV)
		do_recv("recv", fd, 100, MSG_DONTWAIT);
}

static void
row_signal_restart(void)
{
	signal_row(W_RECV, SA_RESTART, 0);
}

static void
row_signal_glibc(void)
{
	signal_row(W_RECV, -1, 0);
}

static void
row_signal_eintr(void)
{
	signal_row(W_RECV, 0, 0);
}

static void
row_signal_rcvtimeo(void)
{
	signal_row(W_RECV, SA_RESTART, 5000);
}

static void
row_signal_poll(void)
{
	signal_row(W_POLL, SA_RESTART, 0);
}

static void
row_signal_select(void)
{
	signal_row(W_SELECT, SA_RESTART, 0);
}

static void
row_signal_epoll(void)
{
	signal_row(W_EPOLL, SA_RESTART, 0);
}

/* ------------------------------------------------------------- select */

#define BIG_FD   2000
#define BIG_NFDS 3000

static void
row_select_big(void)
{
	struct rlimit rl = { 4096, 4096 };
	fd_mask set[BIG_NFDS / NFDBITS + 1];
	struct timeval tv = { 0, 0 };
	int fd = bound(), hi;

	setrlimit(RLIMIT_NOFILE, &rl);
	TRY(hi = dup2(fd, BIG_FD));
	say_fd("dup2 to 2000");
	memset(set, 0, sizeof(set));
	set[BIG_FD / NFDBITS] = (fd_mask)1 << (BIG_FD % NFDBITS);
	TRY(select(BIG_NFDS, (fd_set *)set, NULL, NULL, &tv));
	say("select empty", "bit=%d",
	    !!(set[BIG_FD / NFDBITS] & ((fd_mask)1 << (BIG_FD % NFDBITS))));
	peer_send(1, 20, 0);
	set[BIG_FD / NFDBITS] = (fd_mask)1 << (BIG_FD % NFDBITS);
	tv.tv_sec = 2;
	clk_t t0 = clk();
	TRY(select(BIG_NFDS, (fd_set *)set, NULL, NULL, &tv));
	say("select datagram", "bit=%d %s",
	    !!(set[BIG_FD / NFDBITS] & ((fd_mask)1 << (BIG_FD % NFDBITS))),
	    took(t0, 0));
	do_recv("recv on 2000", hi, 100, MSG_DONTWAIT);
	/* The low descriptor, in a set that runs far past it. */
	peer_send(1, 20, 0);
	memset(set, 0, sizeof(set));
	set[fd / NFDBITS] = (fd_mask)1 << (fd % NFDBITS);
	tv.tv_sec = 2;
	TRY(select(BIG_NFDS, (fd_set *)set, NULL, NULL, &tv));
	say("select low fd", "bit=%d",
	    !!(set[fd / NFDBITS] & ((fd_mask)1 << (fd % NFDBITS))));
	do_recv("recv", fd, 100, MSG_DONTWAIT);
}

static void
row_select_closed(void)
{
	int fd = bound(), gone = dup(fd);
	struct pollfd p[2] = { { fd, POLLIN, 0 }, { gone, POLLIN, 0 } };
	struct timeval tv = { 1, 0 };
	fd_set r;
	clk_t t0;

	close(gone);
	peer_send(1, 20, 0);
	usleep(100000);
	FD_ZERO(&r);
	FD_SET(fd, &r);
	FD_SET(gone, &r);
	t0 = clk();
	TRY(select((fd > gone ? fd : gone) + 1, &r, NULL, NULL, &tv));
	say("select closed fd", "%s", took(t0, 0));
	TRY(poll(p, 2, 1000));
	say("poll closed fd", "revents=%s,%s", revents(p[0].revents),
	    revents(p[1].revents));
	do_recv("recv", fd, 100, MSG_DONTWAIT);
}

/* ------------------------------------------------ receive call corners */

static void
row_recvmmsg_rcvtimeo(void)
{
	struct mmsghdr mm[4];
	struct iovec iov[4];
	struct timespec ts = { 0, 10000000 };
	int fd = bound();
	clk_t t0;

	memset(mm, 0, sizeof(mm));
	for (int i = 0; i < 4; i++) {
		iov[i].iov_base = rbuf + i * 100;
		iov[i].iov_len = 100;
		mm[i].msg_hdr.msg_iov = &iov[i];
		mm[i].msg_hdr.msg_iovlen = 1;
	}
	rcvtimeo(fd, TMO_MS);
	t0 = clk();
	TRY(recvmmsg(fd, mm, 4, 0, NULL));
	say("recvmmsg empty", "%s", took(t0, 1));
	peer_send(2, 20, 0);
	usleep(100000);
	t0 = clk();
	TRY(recvmmsg(fd, mm, 4, 0, NULL));
	say("recvmmsg 2 queued", "lens=%u,%u %s", mm[0].msg_len, mm[1].msg_len,
	    took(t0, 0));
	peer_send(2, 20, 0);
	usleep(100000);
	t0 = clk();
	TRY(recvmmsg(fd, mm, 4, MSG_WAITFORONE, NULL));
	say("recvmmsg WAITFORONE", "%s", took(t0, 0));
	peer_send(1, 20, 0);
	usleep(100000);
	t0 = clk();
	TRY(recvmmsg(fd, mm, 4, 0, &ts));
	say("recvmmsg 10ms arg", "%s", took(t0, 0));
}

/*
 * vlen beyond the kernel's 1024: the vector holds exactly 1024 entries,
 * with an inaccessible page right after it.
 */
static void
row_recvmmsg_vlen(void)
{
	long pg = sysconf(_SC_PAGESIZE);
	size_t sz = 1024 * sizeof(struct mmsghdr);
	size_t map = (sz + pg - 1) / pg * pg + pg;
	char *m = mmap(NULL, map, PROT_READ | PROT_WRITE,
	    MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
	struct mmsghdr *mm;
	struct iovec iov = { rbuf, 100 };
	int fd = bound();

	mprotect(m + map - pg, pg, PROT_NONE);
	mm = (struct mmsghdr *)(m + map - pg - sz);
	memset(mm, 0, sz);
	for (int i = 0; i < 1024; i++) {
		mm[i].msg_hdr.msg_iov = &iov;
		mm[i].msg_hdr.msg_iovlen = 1;
	}
	TRY(recvmmsg(fd, mm, 5000, MSG_DONTWAIT, NULL));
	say("recvmmsg 5000 empty", NULL);
	peer_send(3, 20, 0);
	usleep(100000);
	TRY(recvmmsg(fd, mm, 5000, MSG_DONTWAIT, NULL));
	say("recvmmsg 5000", "lens=%u,%u,%u", mm[0].msg_len, mm[1].msg_len,
	    mm[2].msg_len);
	TRY(recvmmsg(fd, mm, 0, MSG_DONTWAIT, NULL));
	say("recvmmsg 0", NULL);
}

static void
row_zero_length(void)
{
	int fd = bound();
	clk_t t0;

	rcvtimeo(fd, TMO_MS);
	t0 = clk();
	TRY(read(fd, rbuf, 0));
	say("read 0 empty", "%s", took(t0, 0));
	peer_send(1, 10, 0);
	usleep(100000);
	t0 = clk();
	TRY(read(fd, rbuf, 0));
	say("read 0 queued", "%s", took(t0, 0));
	do_recv("recv (still there)", fd, 100, MSG_DONTWAIT);
	peer_send(1, 10, 0);
	usleep(100000);
	do_recv("recv 0 queued", fd, 0, 0);
	do_recv("recv (consumed)", fd, 100, MSG_DONTWAIT);
	do_recv("recv 0 empty", fd, 0, 0);
	peer_send(1, 10, 0);
	usleep(100000);
	t0 = clk();
	TRY(recv(fd, NULL, 0, MSG_TRUNC | MSG_DONTWAIT));
	say("recv 0 TRUNC", "%s", took(t0, 0));
}

/* The 16 bytes of a sockaddr_in, the peer's address bytes shown as P. */
static const char *
raw_sin(const unsigned char *b)
{
	static char s[64];
	const unsigned char *pa = (const unsigned char *)&peer_sa.sin_addr;
	char *o = s;

	for (int i = 0; i < 16; i++)
		o += (i >= 4 && i < 8 && b[i] == pa[i - 4]) ?
		    sprintf(o, "P.") :
		    sprintf(o, "%02x.", b[i]);
	o[-1] = '\0';
	return s;
}

static void
row_recvfrom_addr(void)
{
	static const unsigned lens[] = { 16, 4, 0, 32 };
	unsigned char a[32];
	struct iovec iov = { rbuf, 100 };
	struct msghdr mh = { a, 4, &iov, 1, NULL, 0, 0 };
	socklen_t len;
	char step[32];
	int fd = bound();

	peer_send(6, 20, 0);
	for (int i = 0; i < 4; i++) {
		memset(a, 0xff, sizeof(a));
		len = lens[i];
		TRY(recvfrom(fd, rbuf, 100, 0, (struct sockaddr *)a, &len));
		snprintf(step, sizeof(step), "recvfrom len %u", lens[i]);
		say(step, "bytes=%s len=%u addr=%s", bytes(rbuf, t_ret),
		    (unsigned)len, raw_sin(a));
	}
	memset(a, 0xff, sizeof(a));
	TRY(recvmsg(fd, &mh, 0));
	say("recvmsg namelen 4", "bytes=%s namelen=%u addr=%s",
	    bytes(rbuf, t_ret), (unsigned)mh.msg_namelen, raw_sin(a));
	len = 16;
	TRY(recvfrom(fd, rbuf, 100, 0, NULL, &len));
	say("recvfrom NULL addr", "bytes=%s len=%u", bytes(rbuf, t_ret),
	    (unsigned)len);
}

/* The 28 bytes of a sockaddr_in6, the peer's address bytes shown as P. */
static const char *
raw_sin6(const unsigned char *b)
{
	static char s[128];
	const unsigned char *pa = (const unsigned char *)&peer6_sa.sin6_addr;
	char *o = s;

	for (int i = 0; i < 28; i++)
		o += (i >= 8 && i < 24 && b[i] == pa[i - 8]) ?
		    sprintf(o, "P.") :
		    sprintf(o, "%02x.", b[i]);
	o[-1] = '\0';
	return s;
}

/* The sender's IPv6 address: flow label and scope are the kernel's. */
static void
row_ipv6(void)
{
	static const unsigned lens[] = { 28, 24, 8 };
	struct sockaddr_in6 mapped = { AF_INET6, htons(PEER_PORT), 0,
		IN6ADDR_ANY_INIT, 0 };
	unsigned char a[40];
	socklen_t len;
	char step[32];
	int fd = socket(AF_INET6, SOCK_DGRAM, 0);

	TRY(bind(fd, (struct sockaddr *)&self6_sa, sizeof(self6_sa)));
	say("bind", NULL);
	settle(fd);
	peer("send6 3 20 0");
	for (int i = 0; i < 3; i++) {
		memset(a, 0xff, sizeof(a));
		len = lens[i];
		TRY(recvfrom(fd, rbuf, 100, 0, (struct sockaddr *)a, &len));
		snprintf(step, sizeof(step), "recvfrom len %u", lens[i]);
		say(step, "bytes=%s len=%u addr=%s", bytes(rbuf, t_ret),
		    (unsigned)len, raw_sin6(a));
	}
	TRY(sendto(fd, "abc", 3, 0, (struct sockaddr *)&peer6_sa,
	    sizeof(peer6_sa)));
	say("sendto", "peer: %s", peer("recv6 1000"));
	memcpy(&mapped.sin6_addr.s6_addr[12], &peer_sa.sin_addr, 4);
	mapped.sin6_addr.s6_addr[10] = mapped.sin6_addr.s6_addr[11] = 0xff;
	TRY(sendto(fd, "abc", 3, 0, (struct sockaddr *)&mapped,
	    sizeof(mapped)));
	say("sendto v4-mapped", NULL);
	TRY(sendto(fd, "abc", 3, 0, (struct sockaddr *)&peer6_sa, 24));
	say("sendto len 24", "peer: %s", peer("recv6 300"));
	TRY(connect(fd, (struct sockaddr *)&peer6_sa, sizeof(peer6_sa)));
	say("connect", NULL);
	TRY(send(fd, "abcd", 4, 0));
	say("send", "peer: %s", peer("recv6 1000"));
}

/* ------------------------------------------------------ socket options */

static void
row_ttl_options(void)
{
	struct sockaddr_in group = { AF_INET, htons(PEER_PORT),
		{ htonl(0xef010203) }, { 0 } };
	struct in_addr ifa = self_sa.sin_addr;
	int fd = bound(), v = -1, t = 7;
	unsigned char c = 5;
	socklen_t vlen = sizeof(v);

	TRY(setsockopt(fd, IPPROTO_IP, IP_MULTICAST_TTL, &v, sizeof(v)));
	say("MULTICAST_TTL -1", NULL);
	TRY(getsockopt(fd, IPPROTO_IP, IP_MULTICAST_TTL, &v, &vlen));
	say("get MULTICAST_TTL", "value=%d len=%u", v, (unsigned)vlen);
	v = 256;
	TRY(setsockopt(fd, IPPROTO_IP, IP_MULTICAST_TTL, &v, sizeof(v)));
	say("MULTICAST_TTL 256", NULL);
	TRY(setsockopt(fd, IPPROTO_IP, IP_MULTICAST_TTL, &c, 1));
	say("MULTICAST_TTL char 5", NULL);
	c = 0;
	vlen = 1;
	TRY(getsockopt(fd, IPPROTO_IP, IP_MULTICAST_TTL, &c, &vlen));
	say("get MULTICAST_TTL 1", "value=%d len=%u", c, (unsigned)vlen);
	v = -1;
	TRY(setsockopt(fd, IPPROTO_IP, IP_TTL, &v, sizeof(v)));
	say("IP_TTL -1", NULL);
	vlen = sizeof(v);
	TRY(getsockopt(fd, IPPROTO_IP, IP_TTL, &v, &vlen));
	say("get IP_TTL", "value=%d", v);
	TRY(sendto(fd, "abc", 3, 0, (struct sockaddr *)&peer_sa,
	    sizeof(peer_sa)));
	say("sendto peer", "peer: %s", peer("recv 1000"));
	TRY(setsockopt(fd, IPPROTO_IP, IP_TTL, &t, sizeof(t)));
	t = 0x10;
	TRY(setsockopt(fd, IPPROTO_IP, IP_TOS, &t, sizeof(t)));
	TRY(sendto(fd, "abc", 3, 0, (struct sockaddr *)&peer_sa,
	    sizeof(peer_sa)));
	say("sendto ttl 7 tos 16", "peer: %s", peer("recv 1000"));
	TRY(sendto(fd, "abc", 3, 0, (struct sockaddr *)&group, sizeof(group)));
	say("sendto group", NULL);
	TRY(setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &ifa, sizeof(ifa)));
	say("MULTICAST_IF", NULL);
	TRY(sendto(fd, "abc", 3, 0, (struct sockaddr *)&group, sizeof(group)));
	say("sendto group", NULL);
	TRY(send(fd, "abc", 3, 0));
	say("send unconnected", NULL);
}

/* A burst on a non-blocking socket: EAGAIN at worst, nothing else. */
static void
row_tx_burst(void)
{
	int fd = connected(), sent = 0, other = 0, eagain = 0;

	fcntl(fd, F_SETFL, O_NONBLOCK);
	memset(rbuf, 'q', 1200);
	for (int i = 0; i < 3000; i++) {
		TRY(send(fd, rbuf, 1200, 0));
		if (t_ret == 1200 && t_err == SENTINEL)
			sent++;
		else if (t_ret == -1 && t_err == EAGAIN)
			eagain++;
		else if (!other++)
			say("send failed", NULL);
	}
	printf("burst                sent=%s other-failures=%d\n",
	    sent ? "some" : "none", other);
	printf("peer                 %s\n", peer("drain 300"));
}

/* ------------------------------------------------------- nothing lost */

/* Datagrams the kernel queued before connect put the socket on the ring. */
static void
row_before_attach(void)
{
	struct sockaddr_in any = self_sa;
	int fd = udp();

	any.sin_addr.s_addr = INADDR_ANY;
	TRY(bind(fd, (struct sockaddr *)&any, sizeof(any)));
	say("bind wildcard", NULL);
	peer_send(2, 20, 0);
	usleep(100000);
	TRY(connect(fd, (struct sockaddr *)&peer_sa, sizeof(peer_sa)));
	say("connect", NULL);
	settle(fd);
	peer_send(1, 20, 0);
	rcvtimeo(fd, 1000);
	for (int i = 0; i < 3; i++)
		do_recv("recv", fd, 100, 0);
	do_recv("recv", fd, 100, MSG_DONTWAIT);
}

static void
row_dup(void)
{
	int fd = bound(), fd2;

	TRY(fd2 = dup(fd));
	say_fd("dup");
	peer_send(4, 20, 0);
	rcvtimeo(fd, 1000);
	for (int i = 0; i < 4; i++)
		do_recv(i % 2 ? "recv on dup" : "recv", i % 2 ? fd2 : fd, 100,
		    0);
	TRY(close(fd));
	say("close first", NULL);
	peer_send(1, 20, 0);
	do_recv("recv on dup", fd2, 100, 0);
}

static void
row_peek_trunc(void)
{
	static char peeked[2000];
	struct iovec iov = { rbuf, 10 };
	struct msghdr mh = { NULL, 0, &iov, 1, NULL, 0, 0 };
	int fd = bound();

	rcvtimeo(fd, 1000);
	peer_send(1, 100, 0);
	do_recv("recv PEEK", fd, 100, MSG_PEEK);
	memcpy(peeked, rbuf, 100);
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
}

/* Fragmented datagrams: the kernel reassembles them. */
static void
row_fragmented(void)
{
	int fd = bound();

	rcvtimeo(fd, 1000);
	peer_send(1, 3000, 0);
	do_recv("recv 3000", fd, sizeof(rbuf), 0);
	peer_send(1, 65507, 0);
	do_recv("recv 65507", fd, sizeof(rbuf), 0);
}

/* A send from an unbound socket binds it; the reply comes back to it. */
static void
row_autobind(void)
{
	struct sockaddr_in from;
	socklen_t flen = sizeof(from);
	int fd = udp();

	peer("echo 1000");
	TRY(sendto(fd, "hello", 5, 0, (struct sockaddr *)&peer_sa,
	    sizeof(peer_sa)));
	say("sendto unbound", NULL);
	rcvtimeo(fd, 1000);
	TRY(recvfrom(fd, rbuf, 100, 0, (struct sockaddr *)&from, &flen));
	say("recvfrom echo", "bytes=%ld from=%s", t_ret, who(&from, flen));
}

/* -------------------------------------------------------- CPU in waits */

static void
row_cpu_wait(void)
{
	struct pollfd p;
	struct epoll_event ev = { EPOLLIN, { 0 } };
	struct timeval tv = { 0, TMO_MS * 1000 };
	int fd = bound(), ep = epoll_create1(0);
	fd_set r;
	clk_t t0;

	epoll_ctl(ep, EPOLL_CTL_ADD, fd, &ev);
	rcvtimeo(fd, TMO_MS);
	t0 = clk();
	TRY(recv(fd, rbuf, 100, 0));
	say("recv time-out", "%s", took(t0, 1));
	rcvtimeo(fd, 0);
	peer_send(1, 20, PEER_MS);
	t0 = clk();
	TRY(recv(fd, rbuf, 100, 0));
	say("recv until peer", "bytes=%s %s", bytes(rbuf, t_ret), took(t0, 1));
	p.fd = fd;
	p.events = POLLIN;
	t0 = clk();
	TRY(poll(&p, 1, TMO_MS));
	say("poll time-out", "%s", took(t0, 1));
	FD_ZERO(&r);
	FD_SET(fd, &r);
	t0 = clk();
	TRY(select(fd + 1, &r, NULL, NULL, &tv));
	say("select time-out", "%s", took(t0, 1));
	t0 = clk();
	TRY(epoll_wait(ep, &ev, 1, TMO_MS));
	say("epoll time-out", "%s", took(t0, 1));
}

/* ---------------------------------------------------------------- main */

/* RING: under the preload, every datagram of the row comes off the ring
 * (the namespace's kernel counts none). */
static const struct {
	const char *name;
	void (*fn)(void);
	int ring;
} rows[] = {
	{ "errno_ok", row_errno_ok, 1 },
	{ "errno_fail", row_errno_fail, 1 },
	{ "refused", row_refused, 1 },
	{ "refused_wait", row_refused_wait, 1 },
	{ "refused_poll", row_refused_poll, 1 },
	{ "shutdown_connected", row_shutdown_connected, 1 },
	{ "shutdown_unconnected", row_shutdown_unconnected, 1 },
	{ "fork_wait", row_fork_wait, 0 },
	{ "spawn_wait", row_spawn_wait, 0 },
	{ "ipopts_wait", row_ipopts_wait, 0 },
	{ "bindtodevice_wait", row_bindtodevice_wait, 0 },
	{ "signal_restart", row_signal_restart, 1 },
	{ "signal_glibc", row_signal_glibc, 1 },
	{ "signal_eintr", row_signal_eintr, 1 },
	{ "signal_rcvtimeo", row_signal_rcvtimeo, 1 },
	{ "signal_poll", row_signal_poll, 1 },
	{ "signal_select", row_signal_select, 1 },
	{ "signal_epoll", row_signal_epoll, 1 },
	{ "select_big", row_select_big, 0 },       /* dup2 leaves the bypass */
	{ "select_closed", row_select_closed, 0 }, /* so does dup */
	{ "recvmmsg_rcvtimeo", row_recvmmsg_rcvtimeo, 1 },
	{ "recvmmsg_vlen", row_recvmmsg_vlen, 1 },
	{ "zero_length", row_zero_length, 1 },
	{ "recvfrom_addr", row_recvfrom_addr, 1 },
	{ "ttl_options", row_ttl_options, 1 },
	{ "tx_burst", row_tx_burst, 1 },
	{ "before_attach", row_before_attach, 0 },
	{ "dup", row_dup, 0 },
	{ "peek_trunc", row_peek_trunc, 1 },
	{ "fragmented", row_fragmented, 0 }, /* fragments: kernel's */
	{ "autobind", row_autobind, 0 },
	{ "ipv6", row_ipv6, 1 },
	{ "cpu_wait", row_cpu_wait, 1 },
};

/* The interface that holds SELF, for SO_BINDTODEVICE. */
static void
find_ifname(void)
{
	struct ifaddrs *ifs, *i;

	if (getifaddrs(&ifs) != 0)
		return;
	for (i = ifs; i != NULL; i = i->ifa_next)
		if (i->ifa_addr && i->ifa_addr->sa_family == AF_INET &&
		    ((struct sockaddr_in *)i->ifa_addr)->sin_addr.s_addr ==
			self_sa.sin_addr.s_addr)
			snprintf(ifname, sizeof(ifname), "%s", i->ifa_name);
	freeifaddrs(ifs);
}

static int
ctl_connect(const char *path)
{
	struct sockaddr_un un = { .sun_family = AF_UNIX };
	int s = socket(AF_UNIX, SOCK_STREAM, 0);

	snprintf(un.sun_path, sizeof(un.sun_path), "%s", path);
	if (connect(s, (struct sockaddr *)&un, sizeof(un)) != 0) {
		perror("control");
		exit(1);
	}
	return s;
}

int
main(int argc, char **argv)
{
	size_t n = sizeof(rows) / sizeof(rows[0]);

	if (argc == 2 && strcmp(argv[1], "list") == 0) {
		for (size_t i = 0; i < n; i++)
			printf("%s %s\n", rows[i].name,
			    rows[i].ring ? "ring" : "kernel");
		return 0;
	}
	if (argc != 7)
		return 2;
	self_sa.sin_family = peer_sa.sin_family = AF_INET;
	self_sa.sin_port = htons(SELF_PORT);
	peer_sa.sin_port = htons(PEER_PORT);
	if (inet_pton(AF_INET, argv[2], &self_sa.sin_addr) != 1 ||
	    inet_pton(AF_INET, argv[3], &peer_sa.sin_addr) != 1 ||
	    inet_pton(AF_INET6, argv[5], &self6_sa.sin6_addr) != 1 ||
	    inet_pton(AF_INET6, argv[6], &peer6_sa.sin6_addr) != 1)
		return 2;
	self6_sa.sin6_family = peer6_sa.sin6_family = AF_INET6;
	self6_sa.sin6_port = htons(SELF_PORT);
	peer6_sa.sin6_port = htons(PEER_PORT);
	if (strcmp(argv[1], "peer") == 0)
		return peer_main(argv[4]);
	signal(SIGPIPE, SIG_IGN);
	main_thread = pthread_self();
	find_ifname();
	for (size_t i = 0; i < n; i++)
		if (strcmp(argv[1], rows[i].name) == 0) {
			ctl = ctl_connect(argv[4]);
			rows[i].fn();
			return 0;
		}
	fprintf(stderr, "no row %s\n", argv[1]);
	return 2;
}
