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

/*
 * Tells the processor that this is a spin: a sibling hyperthread gets the
 * core's resources meanwhile, and leaving the loop costs no mis-speculated
 * memory order.  Tens of nanoseconds.
 */
static inline void
ost_cpu_relax(void)
{
#if defined(__x86_64__) || defined(__i386__)
	__builtin_ia32_pause();
#elif defined(__aarch64__)
	__asm__ __volatile__("isb" ::: "memory");
#else
	__asm__ __volatile__("" ::: "memory");
#endif
}

/* Busy-waits ns nanoseconds, pausing the processor between looks. */
static inline void
ost_sleep(hrtime_t ns)
{
	hrtime_t end = gethrtime() + ns;

	while (gethrtime() < end)
		ost_cpu_relax();
}

#endif /* OST_OS_CLOCK_H */
