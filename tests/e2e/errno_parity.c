/*
 * What errno an application sees, and whether signal handlers may use a
 * socket the interrupted code is using:
 *
 *   errno_parity PHASE ADDR PEER PORT
 *
 * ADDR is this side's IPv4 address, PEER:PORT an echo that sends back every
 * datagram starting with 'e'.  Each call that succeeds runs with errno set
 * to a sentinel, which it must leave alone; each call that fails prints the
 * errno it set.  The output is the same on plain kernel sockets and under
 * the preload.  Phases:
 *
 *   data     every socket, data and wait call once, on one socket
 *   process  system, popen, fork, vfork, posix_spawn, a failing exec,
 *            with a socket in use; the children of system and popen say
 *            whether the preload is mapped in them
 *   signal   SIGALRM handlers that send on, or close, the socket the main
 *            thread waits on in recvfrom
 *   storm    a storm of handlers sending on the socket the main thread
 *            keeps sending on
 */
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <setjmp.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#define SENTINEL 12345
#define BAD_FD   987

extern char **environ;

static struct sockaddr_in self_sa, peer_sa, silent_sa;

/* A call that must succeed and keep errno: "name ok", or what went wrong. */
#define OK(name, call)                                                     \
	do {                                                               \
		long r_;                                                   \
		errno = SENTINEL;                                          \
		r_ = (long)(call);                                         \
		if (r_ < 0)                                                \
			printf("%s: failed: %s\n", name, strerror(errno)); \
		else if (errno != SENTINEL)                                \
			printf("%s: returned %ld, errno %s\n", name, r_,   \
			    strerror(errno));                              \
		else                                                       \
			printf("%s ok\n", name);                           \
	} while (0)

/* A call that must fail: the errno it set. */
#define FAILS(name, call)                                           \
	do {                                                        \
		long r_;                                            \
		errno = SENTINEL;                                   \
		r_ = (long)(call);                                  \
		printf("%s: %ld %s\n", name, r_,                    \
		    r_ < 0 ? strerrorname_np(errno) : "succeeded"); \
	} while (0)

static int
bound_socket(void)
{
	int s = socket(AF_INET, SOCK_DGRAM, 0);
	struct sockaddr_in sa = self_sa;

	sa.sin_port = 0;
	if (s < 0 || bind(s, (struct sockaddr *)&sa, sizeof(sa)) != 0) {
		perror("socket");
		exit(1);
	}
	return s;
}

/* Waits (up to 2 s) until s has a datagram, without our calls' help. */
static void
readable(int s)
{
	struct pollfd p = { s, POLLIN, 0 };

	(void)poll(&p, 1, 2000);
}

static void
phase_data(void)
{
	struct timeval tv = { 2, 0 };
	struct sockaddr_in from, unspec = { .sin_family = AF_UNSPEC };
	socklen_t fromlen, len = sizeof(tv);
	char buf[64], b2[64];
	struct iovec iov[2] = { { "ev", 2 }, { "ec", 2 } }, riov = { buf, 64 };
	struct msghdr msg = { .msg_iov = iov, .msg_iovlen = 2 };
	struct mmsghdr mm[2], rm[2];
	struct epoll_event ev = { .events = EPOLLIN }, got;
	struct pollfd pfd;
	struct timespec ts = { 2, 0 };
	sigset_t none;
	fd_set rf;
	int s, s2, s3, ep, n = 0, fl, one = 1, zero = 0;

	sigemptyset(&none);
	errno = SENTINEL;
	s = socket(AF_INET, SOCK_DGRAM, 0);
	printf("socket %s\n", s >= 0 && errno == SENTINEL ? "ok" : "failed");
	OK("setsockopt SO_RCVTIMEO",
	    setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv)));
	OK("setsockopt SO_REUSEADDR",
	    setsockopt(s, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one)));
	OK("getsockopt SO_RCVTIMEO",
	    getsockopt(s, SOL_SOCKET, SO_RCVTIMEO, &tv, &len));
	OK("bind", bind(s, (struct sockaddr *)&self_sa, sizeof(self_sa)));
	OK("fcntl F_GETFL", fl = fcntl(s, F_GETFL));
	OK("fcntl F_SETFL", fcntl(s, F_SETFL, fl));
	OK("ioctl FIONBIO", ioctl(s, FIONBIO, &zero));
	OK("connect", connect(s, (struct sockaddr *)&peer_sa, sizeof(peer_sa)));

	OK("send", send(s, "e1", 2, 0));
	pfd = (struct pollfd){ s, POLLIN, 0 };
	OK("poll", poll(&pfd, 1, 2000));
	OK("ioctl FIONREAD", ioctl(s, FIONREAD, &n));
	printf("FIONREAD %d\n", n);
	OK("recv", recv(s, buf, sizeof(buf), 0));

	OK("write", write(s, "e2", 2));
	FD_ZERO(&rf);
	FD_SET(s, &rf);
	OK("select", select(s + 1, &rf, NULL, NULL, &tv));
	OK("read", read(s, buf, sizeof(buf)));

	OK("writev", writev(s, iov, 2));
	pfd = (struct pollfd){ s, POLLIN, 0 };
	OK("ppoll", ppoll(&pfd, 1, &ts, &none));
	OK("readv", readv(s, &riov, 1));

	OK("sendmsg", sendmsg(s, &msg, 0));
	FD_ZERO(&rf);
	FD_SET(s, &rf);
	OK("pselect", pselect(s + 1, &rf, NULL, NULL, &ts, &none));
	msg = (struct msghdr){ .msg_iov = &riov, .msg_iovlen = 1 };
	OK("recvmsg", recvmsg(s, &msg, 0));

	memset(mm, 0, sizeof(mm));
	mm[0].msg_hdr.msg_iov = &iov[0];
	mm[1].msg_hdr.msg_iov = &iov[1];
	mm[0].msg_hdr.msg_iovlen = mm[1].msg_hdr.msg_iovlen = 1;
	ep = epoll_create1(0);
	OK("epoll_ctl ADD", epoll_ctl(ep, EPOLL_CTL_ADD, s, &ev));
	OK("sendmmsg", sendmmsg(s, mm, 2, 0));
	OK("epoll_wait", epoll_wait(ep, &got, 1, 2000));
	OK("epoll_pwait", epoll_pwait(ep, &got, 1, 2000, &none));
	OK("epoll_pwait2", epoll_pwait2(ep, &got, 1, &ts, &none));
	readable(s);
	memset(rm, 0, sizeof(rm));
	rm[0].msg_hdr.msg_iov = &riov;
	rm[0].msg_hdr.msg_iovlen = 1;
	OK("recvmmsg", recvmmsg(s, rm, 1, 0, NULL));
	readable(s);
	fromlen = sizeof(from);
	OK("recvfrom",
	    recvfrom(s, b2, sizeof(b2), 0, (struct sockaddr *)&from, &fromlen));
	OK("epoll_ctl DEL", epoll_ctl(ep, EPOLL_CTL_DEL, s, NULL));
	OK("sendto", sendto(s, "e3", 2, 0, NULL, 0));
	readable(s);
	OK("recvfrom again", recvfrom(s, buf, sizeof(buf), 0, NULL, NULL));

	/* Failures: the kernel's errno, whatever we did before or after. */
	FAILS("recv empty", recv(s, buf, sizeof(buf), MSG_DONTWAIT));
	FAILS("recvfrom empty",
	    recvfrom(s, buf, sizeof(buf), MSG_DONTWAIT, NULL, NULL));
	FAILS("sendto short address",
	    sendto(s, "x", 1, 0, (struct sockaddr *)&peer_sa, 3));
	FAILS("send bad fd", send(BAD_FD, "x", 1, 0));
	FAILS("recv bad fd", recv(BAD_FD, buf, 1, MSG_DONTWAIT));
	FAILS("setsockopt bad length",
	    setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, &tv, 3));
	FAILS("getsockopt bad fd",
	    getsockopt(BAD_FD, SOL_SOCKET, SO_TYPE, &n, &len));
	FAILS("ioctl FIONREAD bad fd", ioctl(BAD_FD, FIONREAD, &n));
	FAILS("fcntl bad fd", fcntl(BAD_FD, F_GETFL));
	FAILS("dup bad fd", dup(BAD_FD));
	FAILS("close bad fd", close(BAD_FD));
	FAILS("poll bad timeout set",
	    ppoll(&pfd, 1, &(struct timespec){ 0, -1 }, NULL));
	FAILS("epoll_ctl bad fd", epoll_ctl(ep, EPOLL_CTL_ADD, BAD_FD, &ev));

	/* A second socket: a bind that fails, connect and its undoing. */
	s2 = socket(AF_INET, SOCK_DGRAM, 0);
	FAILS("bind short address", bind(s2, (struct sockaddr *)&self_sa, 3));
	FAILS("bind in use",
	    bind(s2, (struct sockaddr *)&self_sa, sizeof(self_sa)));
	FAILS("connect short address",
	    connect(s2, (struct sockaddr *)&peer_sa, 3));
	OK("connect 2",
	    connect(s2, (struct sockaddr *)&peer_sa, sizeof(peer_sa)));
	OK("connect AF_UNSPEC",
	    connect(s2, (struct sockaddr *)&unspec, sizeof(unspec)));

	/* First sends of an unbound socket: the implicit bind, to the peer
	 * and to a neighbour nobody answers for. */
	s3 = socket(AF_INET, SOCK_DGRAM, 0);
	OK("sendto unbound",
	    sendto(s3, "e4", 2, 0, (struct sockaddr *)&peer_sa,
		sizeof(peer_sa)));
	readable(s3);
	OK("recv unbound", recv(s3, buf, sizeof(buf), 0));
	OK("sendto silent neighbour",
	    sendto(s3, "x", 1, 0, (struct sockaddr *)&silent_sa,
		sizeof(silent_sa)));
	OK("close 3", close(s3));

	/* Copies: the bypass socket leaves the bypass path. */
	OK("dup", n = dup(s));
	OK("close copy", close(n));
	OK("dup2", dup2(s, s2));
	OK("dup3", dup3(s, s2, O_CLOEXEC));
	OK("fcntl F_DUPFD", n = fcntl(s, F_DUPFD_CLOEXEC, 100));
	OK("close dup", close(n));
	OK("close 2", close(s2));
	OK("close", close(s));
	OK("close epoll", close(ep));
	FAILS("close again", close(s));
}

/* The child's view: does the preload live in it? */
static void
print_child(const char *what, FILE *f)
{
	char line[64] = "";

	if (fgets(line, sizeof(line), f) == NULL)
		strcpy(line, "nothing\n");
	printf("%s child maps the preload: %s", what,
	    strcmp(line, "0\n") == 0 ? "no\n" : line);
}

static void
phase_process(void)
{
	char *true_argv[] = { "true", NULL }, *nope_argv[] = { "nope", NULL };
	char buf[64];
	const char *preload = getenv("LD_PRELOAD");
	int s = bound_socket(), st, r;
	pid_t pid;
	FILE *f;

	if (preload != NULL)
		preload = strdup(preload);

	if (connect(s, (struct sockaddr *)&peer_sa, sizeof(peer_sa)) != 0 ||
	    send(s, "e0", 2, 0) != 2)
		perror("send");
	readable(s);
	OK("recv", recv(s, buf, sizeof(buf), 0));

	/* Each hand-off cleans the environment up: put the preload back
	 * before the next child that looks for it. */
	fflush(stdout);
	errno = SENTINEL;
	r = system("grep -c ostrel /proc/self/maps | sed 's/^/system child "
		   "maps the preload: /; s/: 0$/: no/'");
	printf("system: status %d errno %s\n", WEXITSTATUS(r),
	    errno == SENTINEL ? "kept" : strerrorname_np(errno));
	if (preload != NULL)
		setenv("LD_PRELOAD", preload, 1);

	errno = SENTINEL;
	f = popen("grep -c ostrel /proc/self/maps", "r");
	printf("popen: %s\n",
	    f != NULL && errno == SENTINEL ? "ok" : "changed");
	if (f != NULL) {
		print_child("popen", f);
		pclose(f);
	}

	fflush(stdout);
	errno = SENTINEL;
	pid = fork();
	if (pid == 0)
		_exit(errno == SENTINEL ? 0 : 1);
	printf("fork: %s\n", pid > 0 && errno == SENTINEL ? "ok" : "changed");
	waitpid(pid, &st, 0);
	printf("fork child: %s\n", WEXITSTATUS(st) == 0 ? "ok" : "changed");

	errno = SENTINEL;
	pid = vfork();
	if (pid == 0)
		_exit(errno == SENTINEL ? 0 : 1);
	printf("vfork: %s\n", pid > 0 && errno == SENTINEL ? "ok" : "changed");
	waitpid(pid, &st, 0);
	printf("vfork child: %s\n", WEXITSTATUS(st) == 0 ? "ok" : "changed");

	errno = SENTINEL;
	r = posix_spawn(&pid, "/bin/true", NULL, NULL, true_argv, environ);
	printf("posix_spawn: %d errno %s\n", r,
	    errno == SENTINEL ? "kept" : strerrorname_np(errno));
	waitpid(pid, &st, 0);
	errno = SENTINEL;
	r = posix_spawnp(&pid, "/nonexistent/nope", NULL, NULL, nope_argv,
	    environ);
	printf("posix_spawnp missing: %s errno %s\n",
	    r == 0 ? "0" : strerrorname_np(r),
	    errno == SENTINEL ? "kept" : strerrorname_np(errno));
	if (r == 0)
		waitpid(pid, &st, 0);

	FAILS("execv missing", execv("/nonexistent/nope", nope_argv));
	OK("close", close(s));
}

/* Signal handlers on the socket the main thread is using. */
static int sig_fd;
static volatile sig_atomic_t sig_ran, sig_err;

static void
on_alarm_send(int sig)
{
	int saved = errno;

	(void)sig;
	if (sendto(sig_fd, "esig", 4, 0, (struct sockaddr *)&peer_sa,
		sizeof(peer_sa)) != 4)
		sig_err = errno;
	sig_ran++;
	errno = saved;
}

static void
on_alarm_close(int sig)
{
	int saved = errno;

	(void)sig;
	if (close(sig_fd) != 0)
		sig_err = errno;
	sig_ran++;
	errno = saved;
}

static sigjmp_buf sig_jump;

static void
on_alarm_jump(int sig)
{
	(void)sig;
	sig_ran++;
	siglongjmp(sig_jump, 1);
}

static void
on_alarm_storm(int sig)
{
	int saved = errno;

	(void)sig;
	(void)sendto(sig_fd, "x", 1, MSG_DONTWAIT, (struct sockaddr *)&peer_sa,
	    sizeof(peer_sa));
	sig_ran++;
	errno = saved;
}

static void
arm(void (*fn)(int), long usec, long every)
{
	struct sigaction sa = { .sa_handler = fn }; /* no SA_RESTART */
	struct itimerval it = { { 0, every }, { 0, usec } };

	sigaction(SIGALRM, &sa, NULL);
	setitimer(ITIMER_REAL, &it, NULL);
}

static void
disarm(void)
{
	struct itimerval it = { { 0, 0 }, { 0, 0 } };

	setitimer(ITIMER_REAL, &it, NULL);
	signal(SIGALRM, SIG_IGN);
}

static void
phase_signal(void)
{
	struct sockaddr_in sa;
	socklen_t len = sizeof(sa);
	char buf[64];
	ssize_t n;
	int s;

	/* A handler sends while recvfrom waits: EINTR, then the echo. */
	sig_fd = s = bound_socket();
	sig_ran = sig_err = 0;
	arm(on_alarm_send, 200000, 0);
	n = recvfrom(s, buf, sizeof(buf), 0, NULL, NULL);
	printf("send handler: recvfrom %zd %s, handler ran %d, error %s\n", n,
	    n < 0 ? strerrorname_np(errno) : "", (int)sig_ran,
	    sig_err ? strerrorname_np(sig_err) : "none");
	readable(s);
	n = recvfrom(s, buf, sizeof(buf), MSG_DONTWAIT, NULL, NULL);
	printf("echo of the handler's datagram: %.*s\n", n > 0 ? (int)n : 0,
	    buf);
	close(s);

	/* The old time-out idiom: a handler jumps out of a waiting recvfrom;
	 * the socket must go on working, ring included. */
	sig_fd = s = bound_socket();
	sig_ran = 0;
	if (sigsetjmp(sig_jump, 1) == 0) {
		arm(on_alarm_jump, 200000, 0);
		n = recvfrom(s, buf, sizeof(buf), 0, NULL, NULL);
		printf("jump handler: recvfrom returned %zd\n", n);
	}
	disarm();
	printf("jump handler: ran %d\n", (int)sig_ran);
	OK("sendto after the jump",
	    sendto(s, "ejmp", 4, 0, (struct sockaddr *)&peer_sa,
		sizeof(peer_sa)) == 4 ?
		0 :
		-1);
	readable(s);
	n = recvfrom(s, buf, sizeof(buf), 0, NULL, NULL);
	printf("echo after the jump: %.*s\n", n > 0 ? (int)n : 0, buf);
	close(s);

	/* A handler closes the socket recvfrom waits on. */
	sig_fd = s = bound_socket();
	getsockname(s, (struct sockaddr *)&sa, &len);
	sig_ran = sig_err = 0;
	arm(on_alarm_close, 200000, 0);
	n = recvfrom(s, buf, sizeof(buf), 0, NULL, NULL);
	printf("close handler: recvfrom %zd %s, handler ran %d, error %s\n", n,
	    n < 0 ? strerrorname_np(errno) : "", (int)sig_ran,
	    sig_err ? strerrorname_np(sig_err) : "none");
	FAILS("recvfrom after close", recvfrom(s, buf, 1, 0, NULL, NULL));
	FAILS("fcntl after close", fcntl(s, F_GETFD));
	/* The port is free again: the kernel socket is gone. */
	s = socket(AF_INET, SOCK_DGRAM, 0);
	OK("bind to the closed socket's port",
	    bind(s, (struct sockaddr *)&sa, sizeof(sa)));
	close(s);
}

/* Handlers send on the socket the main thread keeps sending on. */
static void
phase_storm(void)
{
	long sent = 0;
	int s;

	sig_fd = s = bound_socket();
	sig_ran = 0;
	arm(on_alarm_storm, 1000, 300);
	while (sig_ran < 500)
		if (sendto(s, "x", 1, MSG_DONTWAIT, (struct sockaddr *)&peer_sa,
			sizeof(peer_sa)) == 1)
			sent++;
	disarm();
	printf("storm: main sent %s, handlers ran\n",
	    sent > 0 ? "some" : "none");
	close(s);
}

int
main(int argc, char **argv)
{
	if (argc < 5)
		return 2;
	setvbuf(stdout, NULL, _IOLBF, 0);
	self_sa.sin_family = peer_sa.sin_family = AF_INET;
	inet_pton(AF_INET, argv[2], &self_sa.sin_addr);
	inet_pton(AF_INET, argv[3], &peer_sa.sin_addr);
	self_sa.sin_port = peer_sa.sin_port = htons((uint16_t)atoi(argv[4]));
	silent_sa = peer_sa; /* .1 is the peer, .2 this side, .3 nobody */
	silent_sa.sin_addr.s_addr = htonl(ntohl(peer_sa.sin_addr.s_addr) + 2);
	if (strcmp(argv[1], "data") == 0)
		phase_data();
	else if (strcmp(argv[1], "process") == 0)
		phase_process();
	else if (strcmp(argv[1], "signal") == 0)
		phase_signal();
	else if (strcmp(argv[1], "storm") == 0)
		phase_storm();
	else
		return 2;
	return 0;
}
