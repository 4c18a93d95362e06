/*
 * ppoll and pselect with a signal mask, as an application uses them:
 *
 *   wait_mask ADDR PORT
 *
 * On a UDP socket bound to ADDR:PORT, for each call: SIGUSR1 sent to the
 * thread 50 ms into a 300 ms wait whose mask lets it in (the call must end
 * with EINTR after the handler ran), then one whose mask keeps it out (the
 * call times out; the handler runs once it returned), then a datagram,
 * asked for with "one" on stderr (the call says the socket is readable).
 * Prints what it saw.
 */
#define _GNU_SOURCE
#include <errno.h>
#include <netdb.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

static volatile sig_atomic_t handled;
static pthread_t waiter;
static void on_usr1(int sig) { (void)sig; handled++; }

static void *
poke(void *arg)
{
	usleep(50000);
	pthread_kill(waiter, SIGUSR1);
	return arg;
}

/* One wait by ppoll or pselect; with POKE, SIGUSR1 arrives during it. */
static int
wait_once(int fd, int use_pselect, const sigset_t *mask, int pk, int *err)
{
	struct timespec ts = { 0, 300000000 };
	struct pollfd pfd = { fd, POLLIN, 0 };
	pthread_t t;
	fd_set r;
	int n;

	FD_ZERO(&r);
	FD_SET(fd, &r);
	handled = 0;
	if (pk)
		pthread_create(&t, NULL, poke, NULL);
	n = use_pselect ? pselect(fd + 1, &r, NULL, NULL, &ts, mask) :
	    ppoll(&pfd, 1, &ts, mask);
	*err = errno;
	if (pk)
		pthread_join(t, NULL);
	return n;
}

int
main(int argc, char **argv)
{
	struct addrinfo hints = { .ai_socktype = SOCK_DGRAM,
	    .ai_flags = AI_NUMERICHOST | AI_PASSIVE }, *ai;
	struct sigaction sa = { .sa_handler = on_usr1 };
	sigset_t usr1, none;
	char buf[64];
	int fd, r, e;

	if (argc < 3 || getaddrinfo(argv[1], argv[2], &hints, &ai) != 0)
		return 2;
	fd = socket(ai->ai_family, SOCK_DGRAM, 0);
	if (fd < 0 || bind(fd, ai->ai_addr, ai->ai_addrlen) != 0)
		return 1;
	sigaction(SIGUSR1, &sa, NULL);
	sigemptyset(&none);
	sigemptyset(&usr1);
	sigaddset(&usr1, SIGUSR1);
	waiter = pthread_self();
	fprintf(stderr, "ready\n");
	for (int p = 0; p < 2; p++) {
		const char *name = p ? "pselect" : "ppoll";

		/* Blocked in the thread, let in by the call's mask. */
		pthread_sigmask(SIG_BLOCK, &usr1, NULL);
		r = wait_once(fd, p, &none, 1, &e);
		printf("%s let in: %d %s handled %d\n", name, r,
		    r < 0 ? strerrorname_np(e) : "-", handled);
		/* Open in the thread, kept out by the call's mask. */
		pthread_sigmask(SIG_UNBLOCK, &usr1, NULL);
		r = wait_once(fd, p, &usr1, 1, &e);
		printf("%s kept out: %d, handled once it returned %d\n", name, r,
		    handled);
		fflush(stdout);
		fprintf(stderr, "one\n");
		r = wait_once(fd, p, &none, 0, &e);
		printf("%s datagram: %d %zd\n", name, r,
		    recv(fd, buf, sizeof(buf), MSG_DONTWAIT));
	}
	return 0;
}
