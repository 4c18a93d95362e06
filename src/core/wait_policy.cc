/*
 * The wait policy: budgets learnt from waits' outcomes, and the spinner.
 * The rule follows the outcome of each wait that had to wait:
 *
 *  - the datagram came within the budget: the spin won, the budget stays;
 *  - it came later, but within OST_SPIN_CAP_NS: a longer spin would have
 *    won, so the budget grows to half as much again as that wait (at
 *    least doubling), up to the cap;
 *  - it came after the cap, or never (a time-out): spinning was wasted,
 *    so the budget halves, and below OST_SPIN_FLOOR_NS is gone.
 *
 * An idle socket thus stops spinning after a handful of waits, and a
 * socket whose traffic is steady spins just past its usual gap.
 */
#include <sched.h>

#include "core/ost.h"
#include "core/wait_policy.h"

/* Until when this thread's spins yield every OST_YIELD_SHARED_NS. */
static __thread hrtime_t ost_yield_shared_until
    __attribute__((tls_model("initial-exec")));

static hrtime_t
ost_yield_every(hrtime_t now)
{
	return now < ost_yield_shared_until ? OST_YIELD_SHARED_NS :
					      OST_YIELD_EVERY_NS;
}

hrtime_t
ost_spin_budget(const uint32_t *learnt)
{
	switch (spin_policy) {
	case OST_SPIN_ALWAYS:
		return OST_SPIN_FIXED_NS;
	case OST_SPIN_NEVER:
		return 0;
	default:
		return __atomic_load_n(learnt, __ATOMIC_RELAXED);
	}
}

uint32_t
ost_spin_next(uint32_t budget, hrtime_t waited, bool got)
{
	hrtime_t next;

	/* A wait this short hardly waited: it says nothing of spinning. */
	if (got && (waited <= (hrtime_t)budget || waited < OST_SPIN_FLOOR_NS))
		return budget;
	if (!got || waited > OST_SPIN_CAP_NS) {
		next = budget / 2;
		return next < OST_SPIN_FLOOR_NS ? 0 : (uint32_t)next;
	}
	next = waited + waited / 2;
	if (next < 2 * (hrtime_t)budget)
		next = 2 * (hrtime_t)budget;
	return (uint32_t)(next > OST_SPIN_CAP_NS ? OST_SPIN_CAP_NS : next);
}

void
ost_spin_learn(uint32_t *learnt, hrtime_t waited, bool got,
    const ost_spinner_t *sp)
{
	if (spin_policy != OST_SPIN_ADAPTIVE)
		return;
	uint32_t b = __atomic_load_n(learnt, __ATOMIC_RELAXED);
	uint32_t next = ost_spin_next(b, waited, got);

	/*
	 * Other threads wanted the processor: while they do, every yield
	 * costs this wait their turn, so the next spins end before one.
	 */
	if (sp != NULL && sp->sp_contended && next > OST_YIELD_EVERY_NS)
		next = OST_YIELD_EVERY_NS;

	if (next != b)
		__atomic_store_n(learnt, next, __ATOMIC_RELAXED);
}

void
ost_spin_start(ost_spinner_t *sp, hrtime_t ns, bool firm)
{
	hrtime_t now = gethrtime();

	sp->sp_end = ns < 0 || ns > INT64_MAX - now ? INT64_MAX : now + ns;
	sp->sp_yield_due = now + ost_yield_every(now);
	sp->sp_last = now;
	sp->sp_contended = false;
	/* Spinning always means to the end, whoever else wants the CPU. */
	sp->sp_firm = firm || spin_policy == OST_SPIN_ALWAYS;
}

/* How many pause instructions make one pause: a look costs about as much. */
#define OST_RELAX_COUNT 4

bool
ost_spin_pause(ost_spinner_t *sp)
{
	hrtime_t now = gethrtime(), gap = now - sp->sp_last;

	if (now >= sp->sp_end)
		return false;
	/*
	 * The scheduler took the processor away between two looks: another
	 * thread wanted it badly enough, and no yield would have shown that
	 * (a thread the scheduler does not deem due yet lets a yield return
	 * at once).  Spinning on delays it further.
	 */
	if (gap > OST_PREEMPTED_NS && !sp->sp_firm) {
		sp->sp_end = 0;
		sp->sp_contended = true;
		return false;
	}
	sp->sp_last = now;
	if (now >= sp->sp_yield_due) {
		hrtime_t after;

		/* Never fails on Linux, and leaves errno alone. */
		(void)sched_yield();
		after = gethrtime();
		if (after - now > OST_YIELD_HOG_NS && !sp->sp_firm) {
			sp->sp_end = 0;
			sp->sp_contended = true;
			return false;
		}
		if (after - now > OST_YIELD_BUSY_NS)
			ost_yield_shared_until =
			    after + OST_YIELD_SHARED_FOR_NS;
		sp->sp_yield_due = after + ost_yield_every(after);
		sp->sp_last = after;
		return true;
	}
	if (recv_sleep_set) {
		hrtime_t left = sp->sp_end - now;

		ost_sleep(
		    left < (hrtime_t)recv_sleep_time ? left : recv_sleep_time);
		sp->sp_last = gethrtime();
		return true;
	}
	for (int i = 0; i < OST_RELAX_COUNT; i++)
		ost_cpu_relax();
	return true;
}
