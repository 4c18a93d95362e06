/*
 * The registry's look-up in isolation, as every interposed call on a
 * descriptor pays it:
 *
 *   lookup_bench [ITERATIONS]
 *
 * For 1 and 2 threads: a miss (a descriptor with no record, as for a file
 * or a pipe, whose bucket holds records) and a hit (find and release a
 * UDP socket's record, each thread its own).  Prints nanoseconds per
 * look-up, the best of 5 runs.
 */
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include <thread>
#include <vector>

#include "core/ost.h"

namespace
{

constexpr int kBase = 1100; /* kBase + 11 * k: one bucket */

double
now()
{
	struct timespec ts;
	clock_gettime(CLOCK_MONOTONIC, &ts);
	return ts.tv_sec * 1e9 + ts.tv_nsec;
}

void
loop(bool hit, int t, long n)
{
	int fd = hit ? kBase + OST_NBUCKETS * t : kBase + OST_NBUCKETS * 8;

	for (long i = 0; i < n; i++) {
		uost_t *up = ost_find_sd(fd);
		if (up != nullptr)
			ost_release(up);
	}
}

double
run(bool hit, int threads, long n)
{
	double best = 1e18;

	for (int r = 0; r < 5; r++) {
		std::vector<std::thread> ts;
		double t0 = now();
		for (int t = 0; t < threads; t++)
			ts.emplace_back(loop, hit, t, n);
		for (auto &t : ts)
			t.join();
		double ns = (now() - t0) / n;
		if (ns < best)
			best = ns;
	}
	return best;
}

} // namespace

int
main(int argc, char **argv)
{
	long n = argc > 1 ? atol(argv[1]) : 2000000;

	ost_init();
	for (int t = 0; t < 4; t++)
		if (!ost_add(kBase + OST_NBUCKETS * t, AF_INET))
			return 1;
	for (int threads : { 1, 2 })
		printf("threads %d: miss %.1f ns, hit %.1f ns\n", threads,
		    run(false, threads, n), run(true, threads, n));
	return 0;
}
