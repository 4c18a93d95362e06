/*
 * Waits and receives whose answer comes from the kernel socket or from a
 * signal handler, as an application sees them:
 *
 *   wait_parity ring|handoff ADDR PORT
 *
 * ring: on a UDP socket bound to ADDR:PORT, fed by the harness ("one",
 * "pair" on stderr): signals during blocking receives and waits (SA_RESTART
 * or not, SO_RCVTIMEO), zero-length reads, the sender cut to a short
 * length, recvmmsg past UIO_MAXIOV and with SO_RCVTIMEO, select past
 * FD_SETSIZE and on a closed descriptor.
 * handoff: a refused peer (PEER in the environment), shutdown under a
 * waiting receive, and a receive waiting while the socket leaves the
 * bypass (dup, connect(AF_UNSPEC), posix_spawn) without being closed.
 * Prints one line per case; "bypass N" lines on stderr say how many of
 * the sockets the preload served (getsockopt SO_OSTREL_STATS).
 */
#define _GNU_SOURCE
#pragma GCC diagnostic ignored "-Wdeprecated-declarations" /* siginterrupt */
#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#define SO_OSTREL_STATS 0x101b

static volatile sig_atomic_t handled;
static pthread_t main_thread;
static struct addrinfo *me;
static int nbypass;
extern char **environ;

static void
on_sig(int sig)
{
	(void)sig;
	handled++;
}

static const char *
res(long r, int e)
{
	static char b[64];

	if (r < 0)
		snprintf(b, sizeof(b), "-1 %s", strerrorname_np(e));
	else
		snprintf(b, sizeof(b), "%ld", r);
	return b;
}

static int
udp(int port)
{
	struct sockaddr_storage a;
	int fd = socket(me->ai_family, SOCK_DGRAM, 0);
	char st[64];
	socklen_t len = sizeof(st);

	memcpy(&a, me->ai_addr, me->ai_addrlen);
	((struct sockaddr_in *)&a)->sin_port = htons(port); /* same offset */
	if (fd < 0 || bind(fd, (struct sockaddr *)&a, me->ai_addrlen) != 0)
		exit(1);
	if (getsockopt(fd, SOL_SOCKET, SO_OSTREL_STATS, st, &len) == 0)
		nbypass++;
	else
		fprintf(stderr, "not on the bypass: port %d, %s\n", port,
		    strerrorname_np(errno));
	return fd;
}

static void
handler(int flags)
{
	struct sigaction sa = { .sa_handler = on_sig, .sa_flags = flags };

	sigaction(SIGUSR1, &sa, NULL);
}

static void
ask(const char *what)
{
	fprintf(stderr, "%s\n", what);
}

/* Waits (poll) until fd is readable. */
static void
readable(int fd)
{
	struct pollfd p = { fd, POLLIN, 0 };

	poll(&p, 1, 3000);
}

typedef struct poker {
	long ms;
	int feed;
} poker_t;

/* After ms, SIGUSR1 to the main thread; with feed, a datagram later. */
static void *
poke(void *arg)
{
	poker_t *p = arg;

	usleep((useconds_t)p->ms * 1000);
	pthread_kill(main_thread, SIGUSR1);
	if (p->feed) {
		usleep(100000);
		ask("one");
	}
	return NULL;
}

/* One wait of kind (0 recv, 1 poll, 2 select, 3 epoll_wait) on fd with
 * SIGUSR1 ms into it. */
static const char *
poked(int fd, int kind, long ms, int feed)
{
	poker_t p = { ms, feed };
	struct pollfd pfd = { fd, POLLIN, 0 };
	struct timeval tv = { 1, 0 };
	struct epoll_event ev = { .events = EPOLLIN }, out;
	char buf[64];
	pthread_t t;
	fd_set r;
	long n = 0;
	int e, ep = epoll_create1(0);

	epoll_ctl(ep, EPOLL_CTL_ADD, fd, &ev);
	FD_ZERO(&r);
	FD_SET(fd, &r);
	handled = 0;
	pthread_create(&t, NULL, poke, &p);
	switch (kind) {
	case 0:
		n = recv(fd, buf, sizeof(buf), 0);
		break;
	case 1:
		n = poll(&pfd, 1, 1000);
		break;
	case 2:
		n = select(fd + 1, &r, NULL, NULL, &tv);
		break;
	case 3:
		n = epoll_wait(ep, &out, 1, 1000);
		break;
	}
	e = errno;
	pthread_join(t, NULL);
	close(ep);
	static char b[96];
	snprintf(b, sizeof(b), "%s handled %d", res(n, e), handled);
	return b;
}

static void
set_rcvtimeo(int fd, long us)
{
	struct timeval tv = { us / 1000000, us % 1000000 };

	setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
}

static void *
pipe_later(void *arg)
{
	usleep(60000);
	(void)!write(*(int *)arg, "p", 1);
	return NULL;
}

static void
ring(int port)
{
	static const char *const kinds[] = { "recv", "poll", "select",
		"epoll_wait" };
	int fd = udp(port), p[2];
	unsigned char a[128];
	char buf[64];
	struct sigaction old;
	socklen_t l;
	long n;

	/* Blocking receives: restarted for SA_RESTART (signal() sets it,
	 * siginterrupt clears it) unless SO_RCVTIMEO is set, else EINTR;
	 * 5 ms in (a spin) or 60 ms in (a sleep). */
	for (long ms = 5; ms <= 60; ms += 55) {
		signal(SIGUSR1, on_sig);
		printf("signal() recv %ld: %s\n", ms, poked(fd, 0, ms, 1));
		handler(SA_RESTART);
		printf("SA_RESTART recv %ld: %s\n", ms, poked(fd, 0, ms, 1));
		handler(0);
		printf("no SA_RESTART recv %ld: %s\n", ms, poked(fd, 0, ms, 0));
		handler(SA_RESTART);
		set_rcvtimeo(fd, 2000000);
		printf("SO_RCVTIMEO recv %ld: %s\n", ms, poked(fd, 0, ms, 0));
		set_rcvtimeo(fd, 0);
		signal(SIGUSR1, on_sig);
		siginterrupt(SIGUSR1, 1);
		printf("siginterrupt recv %ld: %s\n", ms, poked(fd, 0, ms, 0));
		siginterrupt(SIGUSR1, 0);
		/* Waits end with EINTR whatever the flags. */
		signal(SIGUSR1, on_sig);
		for (int k = 1; k < 4; k++)
			printf("%s %ld: %s\n", kinds[k], ms,
			    poked(fd, k, ms, 0));
	}
	handler(SA_RESTART | SA_RESETHAND);
	sigaction(SIGUSR1, NULL, &old);
	printf("sigaction query: own %d flags %#x\n", old.sa_handler == on_sig,
	    old.sa_flags & (SA_RESTART | SA_RESETHAND | SA_SIGINFO));
	raise(SIGUSR1);
	sigaction(SIGUSR1, NULL, &old);
	printf("after SA_RESETHAND: default %d\n", old.sa_handler == SIG_DFL);
	signal(SIGUSR1, on_sig);

	/* Nothing asked of read: nothing taken; recv of 0 bytes takes one. */
	ask("one");
	readable(fd);
	n = read(fd, buf, 0);
	printf("read 0: %s", res(n, errno));
	n = readv(fd, NULL, 0);
	printf(", readv 0: %s", res(n, errno));
	n = recv(fd, buf, sizeof(buf), MSG_DONTWAIT);
	printf(", then recv: %s\n", res(n, errno));
	ask("one");
	readable(fd);
	n = recv(fd, buf, 0, 0);
	printf("recv 0: %s", res(n, errno));
	n = recv(fd, buf, sizeof(buf), MSG_DONTWAIT);
	printf(", then recv: %s\n", res(n, errno));

	/* The sender: cut to a short length, whole with zeroes. */
	for (int full = 0; full < 2; full++) {
		int ok = 1;

		ask("one");
		readable(fd);
		memset(a, 0xee, sizeof(a));
		l = full ? sizeof(a) : 2;
		n = recvfrom(fd, buf, sizeof(buf), 0, (struct sockaddr *)a, &l);
		for (size_t i = full ? l : 2; i < sizeof(a); i++)
			ok &= a[i] == 0xee;
		if (full && me->ai_family == AF_INET)
			ok &= memcmp(a + 8, "\0\0\0\0\0\0\0\0", 8) == 0;
		if (full && me->ai_family == AF_INET6)
			ok &= memcmp(a + 4, "\0\0\0\0", 4) == 0 &&
			    memcmp(a + 24, "\0\0\0\0", 4) == 0;
		printf("sender %s: %s len %u family %d rest as the kernel %d\n",
		    full ? "whole" : "cut", res(n, errno), l,
		    ((struct sockaddr *)a)->sa_family == me->ai_family, ok);
	}

	/* recvmmsg: a batch past UIO_MAXIOV, SO_RCVTIMEO without time-out. */
	{
		enum {
			VLEN = 1500
		};
		static struct mmsghdr vec[VLEN];
		static struct iovec iov[VLEN];
		static char bufs[VLEN][32];

		for (int i = 0; i < VLEN; i++) {
			iov[i] = (struct iovec){ bufs[i], sizeof(bufs[i]) };
			vec[i].msg_hdr.msg_iov = &iov[i];
			vec[i].msg_hdr.msg_iovlen = 1;
		}
		ask("pair");
		readable(fd);
		usleep(100000);
		n = recvmmsg(fd, vec, VLEN, MSG_WAITFORONE, NULL);
		printf("recvmmsg %d: %s (%u %u)\n", VLEN, res(n, errno),
		    vec[0].msg_len, vec[1].msg_len);
		set_rcvtimeo(fd, 100000);
		n = recvmmsg(fd, vec, 4, 0, NULL);
		printf("recvmmsg SO_RCVTIMEO: %s\n", res(n, errno));
		set_rcvtimeo(fd, 0);
	}

	/* select past FD_SETSIZE, and on a descriptor that is not open. */
	{
		struct rlimit rl = { 4096, 4096 };
		size_t bytes = 2048 / 8;
		fd_set *set = calloc(1, bytes);
		struct timeval tv = { 2, 0 };
		pthread_t t;

		setrlimit(RLIMIT_NOFILE, &rl);
		if (pipe(p) != 0 || dup2(p[0], 1100) != 1100)
			exit(1);
		memset(set, 0, bytes);
		FD_SET(fd, set);
		((unsigned long *)set)[1100 / 64] |= 1UL << (1100 % 64);
		pthread_create(&t, NULL, pipe_later, &p[1]);
		n = select(1101, set, NULL, NULL, &tv);
		pthread_join(t, NULL);
		printf("select past FD_SETSIZE: %s, 1100 %d\n", res(n, errno),
		    (int)(((unsigned long *)set)[1100 / 64] >> (1100 % 64) &
			1));
		close(1100);
		memset(set, 0, bytes);
		FD_SET(fd, set);
		((unsigned long *)set)[1100 / 64] |= 1UL << (1100 % 64);
		tv = (struct timeval){ 0, 200000 };
		n = select(1101, set, NULL, NULL, &tv);
		printf("select on a closed descriptor: %s\n", res(n, errno));
		free(set);
	}
}

typedef struct waiter {
	int fd;
	long n;
	int e;
} waiter_t;

static void *
wait_recv(void *arg)
{
	waiter_t *w = arg;
	char buf[64];

	w->n = recv(w->fd, buf, sizeof(buf), 0);
	w->e = errno;
	return NULL;
}

/* What poll, select and epoll say of fd. */
static void
readiness(const char *what, int fd)
{
	struct pollfd pfd = { fd, POLLIN | POLLOUT | POLLRDHUP, 0 };
	struct epoll_event ev = { .events = EPOLLIN | EPOLLOUT | EPOLLRDHUP },
			   out = { 0 };
	struct timeval tv = { 0, 0 };
	int ep = epoll_create1(0), n1, n2, n3;
	fd_set r, w;

	FD_ZERO(&r);
	FD_ZERO(&w);
	FD_SET(fd, &r);
	FD_SET(fd, &w);
	epoll_ctl(ep, EPOLL_CTL_ADD, fd, &ev);
	n1 = poll(&pfd, 1, 1000);
	n2 = select(fd + 1, &r, &w, NULL, &tv);
	n3 = epoll_wait(ep, &out, 1, 1000);
	printf("%s: poll %d %#x, select %d r%d w%d, epoll %d %#x\n", what, n1,
	    pfd.revents, n2, FD_ISSET(fd, &r), FD_ISSET(fd, &w), n3,
	    out.events);
	close(ep);
}

static void
handoff(int port)
{
	const char *peer = getenv("PEER");
	struct addrinfo hints = { .ai_socktype = SOCK_DGRAM,
		.ai_flags = AI_NUMERICHOST },
			*pa;
	char buf[64];
	long n;
	int c;

	/* A peer that refuses: the receive waiting when the refusal comes,
	 * then the waits and the receives after it. */
	if (peer == NULL || getaddrinfo(peer, "9", &hints, &pa) != 0)
		exit(2);
	c = udp(port);
	if (connect(c, pa->ai_addr, pa->ai_addrlen) != 0)
		exit(1);
	send(c, "x", 1, 0);
	n = recv(c, buf, sizeof(buf), 0);
	printf("refused, waiting: %s\n", res(n, errno));
	send(c, "x", 1, 0);
	usleep(200000);
	readiness("refused", c);
	n = recv(c, buf, sizeof(buf), 0);
	printf("refused, then: %s", res(n, errno));
	n = recv(c, buf, sizeof(buf), MSG_DONTWAIT);
	printf(", %s\n", res(n, errno));
	close(c);

	/* shutdown under a waiting receive. */
	for (int how = SHUT_RD; how <= SHUT_RDWR; how += SHUT_RDWR - SHUT_RD) {
		waiter_t w = { udp(port + 1 + how), 0, 0 };
		pthread_t t;
		int r;

		pthread_create(&t, NULL, wait_recv, &w);
		usleep(100000);
		r = shutdown(w.fd, how);
		printf("shutdown %d: %s", how, res(r, errno));
		pthread_join(t, NULL);
		printf(", the waiting receive: %s\n", res(w.n, w.e));
		readiness("shut down", w.fd);
		n = recv(w.fd, buf, sizeof(buf), MSG_DONTWAIT);
		printf("shut down, then: %s", res(n, errno));
		n = recv(w.fd, buf, sizeof(buf), 0);
		printf(", %s\n", res(n, errno));
		close(w.fd);
	}

	/* The socket leaves the bypass, not closed, under a waiting receive:
	 * it goes on waiting, with its time-out.  SIGCHLD stays blocked: the
	 * kernel may wake a timed receive with it while posix_spawn holds
	 * every signal in this thread, and end it with EINTR. */
	sigset_t chld;

	sigemptyset(&chld);
	sigaddset(&chld, SIGCHLD);
	pthread_sigmask(SIG_BLOCK, &chld, NULL);
	static const char *const kinds[] = { "dup", "connect AF_UNSPEC",
		"posix_spawn" };
	for (int k = 0; k < 3; k++) {
		for (int timed = 0; timed < 2; timed++) {
			int p2 = port + 4 + 2 * k + timed;
			waiter_t w = { udp(p2), 0, 0 };
			struct sockaddr_storage to;
			struct sockaddr un = { .sa_family = AF_UNSPEC };
			char *argv[] = { "true", NULL };
			pthread_t t;
			pid_t pid;
			int h, d = -1;

			if (timed)
				set_rcvtimeo(w.fd, 400000);
			pthread_create(&t, NULL, wait_recv, &w);
			usleep(100000);
			if (k == 0)
				d = dup(w.fd);
			else if (k == 1)
				connect(w.fd, &un, sizeof(un));
			else if (posix_spawn(&pid, "/bin/true", NULL, NULL,
				     argv, environ) == 0)
				waitpid(pid, NULL, 0);
			usleep(100000);
			if (!timed) {
				/* From a socket of the kernel's own. */
				memcpy(&to, me->ai_addr, me->ai_addrlen);
				((struct sockaddr_in *)&to)->sin_port =
				    htons(p2);
				h = (int)syscall(SYS_socket, me->ai_family,
				    SOCK_DGRAM, 0);
				syscall(SYS_sendto, h, "hello", 5, 0, &to,
				    me->ai_addrlen);
				close(h);
			}
			pthread_join(t, NULL);
			printf("%s%s: %s\n", kinds[k],
			    timed ? ", SO_RCVTIMEO" : "", res(w.n, w.e));
			close(w.fd);
			if (d >= 0)
				close(d);
		}
	}
}

int
main(int argc, char **argv)
{
	struct addrinfo hints = { .ai_socktype = SOCK_DGRAM,
		.ai_flags = AI_NUMERICHOST | AI_PASSIVE };

	if (argc < 4 || getaddrinfo(argv[2], argv[3], &hints, &me) != 0)
		return 2;
	setvbuf(stdout, NULL, _IOLBF, 0);
	main_thread = pthread_self();
	alarm(30); /* a wait that never ends fails the run */
	fprintf(stderr, "ready\n");
	if (strcmp(argv[1], "ring") == 0)
		ring(atoi(argv[3]));
	else
		handoff(atoi(argv[3]));
	fprintf(stderr, "bypass %d\n", nbypass);
	return 0;
}
