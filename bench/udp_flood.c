/*
 * udp_flood: one-way throughput, one sender and one receiver per port.
 *
 *   udp_flood send ADDR PORT SECONDS [SIZE [RATE]]   prints "sent N"
 *   udp_flood recv ADDR PORT                         prints "received N"
 *
 * The receiver writes "ready" on stderr once its bind returned: a sender
 * started earlier would fill a socket that nobody reads yet.
 *
 * The sender sends numbered datagrams as fast as sendto returns, or RATE
 * a second (sleeping when ahead, in steps of 64), for SECONDS from its
 * first send, then a few end marks.  The receiver counts until an end mark, or one second
 * without a datagram once some have come (the marks may be lost too).
 */
#define _GNU_SOURCE
#include <netdb.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#define END_MARK UINT64_MAX

static double
now(void)
{
	struct timespec ts;

	clock_gettime(CLOCK_MONOTONIC, &ts);
	return ts.tv_sec + ts.tv_nsec / 1e9;
}

int
main(int argc, char **argv)
{
	struct addrinfo hints = { 0 }, *ai;
	char buf[2048] = { 0 };
	uint64_t seq = 0, n = 0;
	int fd, send_side;

	if (argc < 4 || (strcmp(argv[1], "send") == 0 && argc < 5)) {
		fprintf(stderr,
		    "usage: udp_flood send|recv ADDR PORT [SECONDS [SIZE]]\n");
		return 2;
	}
	send_side = strcmp(argv[1], "send") == 0;
	hints.ai_socktype = SOCK_DGRAM;
	hints.ai_flags = AI_NUMERICHOST;
	if (getaddrinfo(argv[2], argv[3], &hints, &ai) != 0)
		return 2;
	fd = socket(ai->ai_family, SOCK_DGRAM, 0);
	if (fd < 0 || (!send_side && bind(fd, ai->ai_addr, ai->ai_addrlen))) {
		perror("udp_flood");
		return 1;
	}
	if (send_side) {
		size_t size = argc > 5 ? (size_t)atoi(argv[5]) : 64;
		double rate = argc > 6 ? atof(argv[6]) : 0;
		double start = now(), end = start + atof(argv[4]);

		if (size < sizeof(seq) || size > sizeof(buf))
			return 2;
		/* The clock is read every 64 sends, not each time. */
		while ((seq & 63) || now() < end) {
			if (rate > 0 && (seq & 63) == 0) {
				double ahead = start + seq / rate - now();

				if (ahead > 0) {
					struct timespec ts = { (time_t)ahead,
						(long)((ahead - (time_t)ahead) *
						    1e9) };

					nanosleep(&ts, NULL);
				}
			}
			memcpy(buf, &seq, sizeof(seq));
			if (sendto(fd, buf, size, 0, ai->ai_addr,
				ai->ai_addrlen) != (ssize_t)size)
				continue;
			/* The clocks start after the first send, which may
			 * set the socket up: a paced sender must not make up
			 * for that time with a burst. */
			if (seq++ == 0) {
				start = now();
				end = start + atof(argv[4]);
			}
		}
		printf("sent %llu\n", (unsigned long long)seq);
		fflush(stdout);
		seq = END_MARK;
		memcpy(buf, &seq, sizeof(seq));
		for (int i = 0; i < 10; i++) {
			usleep(20 * 1000);
			sendto(fd, buf, size, 0, ai->ai_addr, ai->ai_addrlen);
		}
		return 0;
	}
	struct timeval tv = { 1, 0 };

	fprintf(stderr, "ready\n");

	setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
	for (int idle = 0; idle < 60;) {
		ssize_t got = recv(fd, buf, sizeof(buf), 0);

		if (got < (ssize_t)sizeof(seq)) {
			if (n)
				break;
			idle++;
			continue;
		}
		memcpy(&seq, buf, sizeof(seq));
		if (seq == END_MARK)
			break;
		n++;
	}
	printf("received %llu\n", (unsigned long long)n);
	return 0;
}
