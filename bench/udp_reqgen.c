/*
 * udp_reqgen: a request generator with a bounded number of requests in
 * flight, the shape of an RPC client: one UDP socket shared by a sending
 * thread and a receiving thread, a semaphore between them holding the
 * free slots.  Each request carries its sequence number and the time it
 * was sent; the answer (an echo) gives the round trip.
 *
 *   udp_reqgen ADDR PORT SECONDS [OUTSTANDING [SIZE [PEER_PID]]]
 *
 * Prints "requests SENT answered N seconds S cpu_us C peer_cpu_us P" (C:
 * user and system time of the whole process while sending, P: the same
 * of process PEER_PID, from /proc, 0 without it), then "h TENTHS COUNT"
 * for each non-empty tenth of a microsecond of round trip (the last
 * bucket holds everything above it), then "max US".  A request lost on
 * the way keeps its slot: the unanswered count says so.
 */
#define _GNU_SOURCE
#include <errno.h>
#include <netdb.h>
#include <pthread.h>
#include <semaphore.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#define BUCKETS (1000 * 1000) /* 0.1 us each: up to 100 ms */

struct request {
	uint64_t seq;
	uint64_t sent_ns;
};

static int fd;
static struct addrinfo *dst;
static sem_t slots;
static size_t size = 64;
static uint64_t end_ns;
static int sending = 1; /* the sender's, read by the receiver */
static uint64_t sent, answered, max_ns;
static uint32_t *hist;

static uint64_t
now_ns(void)
{
	struct timespec ts;

	clock_gettime(CLOCK_MONOTONIC, &ts);
	return (uint64_t)ts.tv_sec * 1000000000u + (uint64_t)ts.tv_nsec;
}

static double
cpu_us(void)
{
	struct rusage ru;

	getrusage(RUSAGE_SELF, &ru);
	return (ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) * 1e6 +
	    ru.ru_utime.tv_usec + ru.ru_stime.tv_usec;
}

/* PID's user and system time, or 0. */
static double
peer_cpu_us(const char *pid)
{
	char path[64], st[1024], *p;
	unsigned long long ut = 0, stime = 0;
	FILE *f;
	size_t n;

	if (!pid)
		return 0;
	snprintf(path, sizeof(path), "/proc/%s/stat", pid);
	if (!(f = fopen(path, "r")))
		return 0;
	n = fread(st, 1, sizeof(st) - 1, f);
	fclose(f);
	st[n] = 0;
	/* The name may hold spaces: fields 14 and 15 follow its ')'. */
	if (!(p = strrchr(st, ')')) ||
	    sscanf(p + 2,
		"%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %llu %llu", &ut,
		&stime) != 2)
		return 0;
	return (ut + stime) * 1e6 / sysconf(_SC_CLK_TCK);
}

static void *
sender(void *arg)
{
	char buf[2048] = { 0 };
	struct request rq;

	(void)arg;
	for (;;) {
		uint64_t t = now_ns();
		struct timespec until;

		if (t >= end_ns)
			break;
		/* Wakes at the end even when every slot is lost. */
		clock_gettime(CLOCK_REALTIME, &until);
		until.tv_nsec += 10 * 1000 * 1000;
		if (until.tv_nsec >= 1000000000) {
			until.tv_sec++;
			until.tv_nsec -= 1000000000;
		}
		if (sem_timedwait(&slots, &until) != 0)
			continue;
		rq.seq = sent;
		rq.sent_ns = now_ns();
		memcpy(buf, &rq, sizeof(rq));
		if (sendto(fd, buf, size, 0, dst->ai_addr, dst->ai_addrlen) <
		    0) {
			sem_post(&slots);
			continue;
		}
		__atomic_store_n(&sent, sent + 1, __ATOMIC_RELEASE);
	}
	__atomic_store_n(&sending, 0, __ATOMIC_RELEASE);
	return NULL;
}

static void *
receiver(void *arg)
{
	char buf[2048];
	struct request rq;
	uint64_t quiet_since = 0;

	(void)arg;
	/* After the last send, waits up to half a second for stragglers. */
	for (;;) {
		ssize_t n = recv(fd, buf, sizeof(buf), 0);
		uint64_t t = now_ns();

		if (n < (ssize_t)sizeof(rq)) {
			if (n < 0 && errno != EAGAIN && errno != EINTR)
				perror("recv");
			if (__atomic_load_n(&sending, __ATOMIC_ACQUIRE))
				continue;
			if (quiet_since == 0)
				quiet_since = t;
			if (t - quiet_since > 500 * 1000 * 1000 ||
			    answered == sent)
				break;
			continue;
		}
		memcpy(&rq, buf, sizeof(rq));
		if (rq.sent_ns == 0)
			continue; /* a late answer to the first request */
		uint64_t rtt = t - rq.sent_ns, b = rtt / 100;

		hist[b < BUCKETS ? b : BUCKETS - 1]++;
		if (rtt > max_ns)
			max_ns = rtt;
		answered++;
		sem_post(&slots);
		if (!__atomic_load_n(&sending, __ATOMIC_ACQUIRE) &&
		    answered == sent)
			break;
	}
	return NULL;
}

int
main(int argc, char **argv)
{
	struct addrinfo hints = { 0 };
	struct timeval tv = { 0, 100 * 1000 };
	unsigned outstanding = 10;
	pthread_t ts, tr;
	char buf[2048] = { 0 };
	const char *peer = argc > 6 ? argv[6] : NULL;
	double secs, cpu0, peer0;
	int ready = 0;

	if (argc < 4) {
		fprintf(stderr,
		    "usage: udp_reqgen ADDR PORT SECONDS [OUTSTANDING "
		    "[SIZE]]\n");
		return 2;
	}
	secs = atof(argv[3]);
	if (argc > 4)
		outstanding = (unsigned)atoi(argv[4]);
	if (argc > 5)
		size = (size_t)atoi(argv[5]);
	if (size < sizeof(struct request) || size > sizeof(buf) || !outstanding)
		return 2;
	hints.ai_socktype = SOCK_DGRAM;
	hints.ai_flags = AI_NUMERICHOST;
	if (getaddrinfo(argv[1], argv[2], &hints, &dst) != 0)
		return 2;
	hist = calloc(BUCKETS, sizeof(*hist));
	fd = socket(dst->ai_family, SOCK_DGRAM, 0);
	if (fd < 0 || !hist) {
		perror("socket");
		return 1;
	}
	/* The receiver's wait is bounded, so that it sees the end. */
	setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
	/* One answered request first: the path is set up, the echo is up. */
	for (int i = 0; i < 50 && !ready; i++)
		ready = sendto(fd, buf, size, 0, dst->ai_addr,
			    dst->ai_addrlen) > 0 &&
		    recv(fd, buf, sizeof(buf), 0) > 0;
	if (!ready) {
		fprintf(stderr, "udp_reqgen: no answer from %s %s\n", argv[1],
		    argv[2]);
		return 1;
	}
	sem_init(&slots, 0, outstanding);
	cpu0 = cpu_us();
	peer0 = peer_cpu_us(peer);
	end_ns = now_ns() + (uint64_t)(secs * 1e9);
	pthread_create(&tr, NULL, receiver, NULL);
	pthread_create(&ts, NULL, sender, NULL);
	pthread_join(ts, NULL);
	pthread_join(tr, NULL);
	printf("requests %llu answered %llu seconds %.3f cpu_us %.0f "
	       "peer_cpu_us %.0f\n",
	    (unsigned long long)sent, (unsigned long long)answered, secs,
	    cpu_us() - cpu0, peer_cpu_us(peer) - peer0);
	for (uint32_t b = 0; b < BUCKETS; b++)
		if (hist[b])
			printf("h %u %u\n", b, hist[b]);
	printf("max %.3f\n", max_ns / 1e3);
	return 0;
}
