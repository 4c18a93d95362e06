/*
 * udp_pingpong: a plain UDP ping-pong for either family, for the benchmark
 * cases that sockperf 3.7 cannot run (it has no IPv6).  An ordinary
 * program: blocking sockets, sendto and recvfrom, nothing else.
 *
 *   udp_pingpong server ADDR PORT
 *   udp_pingpong client ADDR PORT SIZE SECONDS
 *
 * The client prints one line per exchange: half the round trip in
 * microseconds.
 */
#define _GNU_SOURCE
#include <netdb.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>

static double
now_us(void)
{
	struct timespec ts;

	clock_gettime(CLOCK_MONOTONIC, &ts);
	return ts.tv_sec * 1e6 + ts.tv_nsec / 1e3;
}

int
main(int argc, char **argv)
{
	struct addrinfo hints = { 0 }, *ai;
	char buf[2048];
	int fd, server;

	if (argc < 4 || (strcmp(argv[1], "client") == 0 && argc < 6)) {
		fprintf(stderr,
		    "usage: udp_pingpong server|client ADDR PORT "
		    "[SIZE SECONDS]\n");
		return 2;
	}
	server = strcmp(argv[1], "server") == 0;
	hints.ai_socktype = SOCK_DGRAM;
	hints.ai_flags = AI_NUMERICHOST;
	if (getaddrinfo(argv[2], argv[3], &hints, &ai) != 0)
		return 2;
	fd = socket(ai->ai_family, SOCK_DGRAM, 0);
	if (fd < 0) {
		perror("socket");
		return 1;
	}
	if (server) {
		if (bind(fd, ai->ai_addr, ai->ai_addrlen) != 0) {
			perror("bind");
			return 1;
		}
		for (;;) {
			struct sockaddr_storage peer;
			socklen_t plen = sizeof(peer);
			ssize_t n = recvfrom(fd, buf, sizeof(buf), 0,
			    (struct sockaddr *)&peer, &plen);

			if (n >= 0)
				(void)sendto(fd, buf, (size_t)n, 0,
				    (struct sockaddr *)&peer, plen);
		}
	}
	size_t size = (size_t)atoi(argv[4]);
	double end = now_us() + atof(argv[5]) * 1e6;

	if (size > sizeof(buf))
		size = sizeof(buf);
	memset(buf, 'p', size);
	/* A lost datagram would stall a blocking ping-pong: give up on it. */
	struct timeval tv = { 0, 200000 };
	setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
	for (int warm = 1000; now_us() < end; warm--) {
		double t0 = now_us();

		if (sendto(fd, buf, size, 0, ai->ai_addr, ai->ai_addrlen) < 0 ||
		    recvfrom(fd, buf, sizeof(buf), 0, NULL, NULL) < 0)
			continue;
		if (warm <= 0)
			printf("%.3f\n", (now_us() - t0) / 2);
	}
	return 0;
}
