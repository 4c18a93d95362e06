/*
 * The high-resolution clock of the spin loops.  CLOCK_MONOTONIC is served by
 * the vDSO, so reading it makes no system call.
 */
#ifndef OST_PLATFORM_HRTIME_H
#define OST_PLATFORM_HRTIME_H

#include <stdint.h>
#include <time.h>

typedef int64_t hrtime_t;

#define NANOSEC 1000000000LL

static inline hrtime_t
gethrtime(void)
{
	struct timespec ts;

	clock_gettime(CLOCK_MONOTONIC, &ts);
	return (hrtime_t)ts.tv_sec * NANOSEC + ts.tv_nsec;
}

#endif /* OST_PLATFORM_HRTIME_H */
