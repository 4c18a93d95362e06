/*
 * The high-resolution clock of the spin loops.  CLOCK_MONOTONIC is served by
 * the vDSO, so reading it makes no system call.
 */
#ifndef OST_OS_CLOCK_H
#define OST_OS_CLOCK_H

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

/* Busy-waits ns nanoseconds, pausing the processor between looks. */
static inline void
ost_sleep(hrtime_t ns)
{
	hrtime_t end = gethrtime() + ns;

	while (gethrtime() < end) {
#if defined(__x86_64__) || defined(__i386__)
		__builtin_ia32_pause();
#endif
	}
}

#endif /* OST_OS_CLOCK_H */
