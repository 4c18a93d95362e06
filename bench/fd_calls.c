/*
 * What an application pays per call on a descriptor, with or without the
 * preload:
 *
 *   [LD_PRELOAD=.../ostrel.so.1] fd_calls [ITERATIONS]
 *
 * For 1 and 2 threads: write() of one byte to /dev/null (a descriptor
 * that is no bypass socket) and send() on an unconnected UDP socket
 * (found in the registry, then refused by the kernel), each thread its
 * own descriptor.  Prints nanoseconds per call, the best of 5 runs.
 */
#define _GNU_SOURCE
#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

static long iterations = 1000000;

static double
now(void)
{
	struct timespec ts;

	clock_gettime(CLOCK_MONOTONIC, &ts);
	return ts.tv_sec * 1e9 + ts.tv_nsec;
}

static void *
loop(void *arg)
{
	int udp = *(int *)arg, fd;
	char c = 0;

	fd = udp ? socket(AF_INET, SOCK_DGRAM, 0) : open("/dev/null", O_WRONLY);
	for (long i = 0; i < iterations; i++) {
		if (udp)
			(void)send(fd, &c, 1, MSG_DONTWAIT);
		else
			(void)write(fd, &c, 1);
	}
	close(fd);
	return NULL;
}

static double
run(int udp, int threads)
{
	double best = 1e18;

	for (int r = 0; r < 5; r++) {
		pthread_t tid[2];
		double t0 = now(), ns;

		for (int t = 0; t < threads; t++)
			pthread_create(&tid[t], NULL, loop, &udp);
		for (int t = 0; t < threads; t++)
			pthread_join(tid[t], NULL);
		ns = (now() - t0) / iterations;
		if (ns < best)
			best = ns;
	}
	return best;
}

int
main(int argc, char **argv)
{
	if (argc > 1)
		iterations = atol(argv[1]);
	for (int threads = 1; threads <= 2; threads++)
		printf("threads %d: write /dev/null %.0f ns, send udp %.0f "
		       "ns\n",
		    threads, run(0, threads), run(1, threads));
	return 0;
}
