/*
 * How a waiting call spends its wait: it spins over the rings for a
 * while, then sleeps on the handles' wake-up descriptors.  A spin catches
 * a datagram the moment it lands but holds a processor; a sleep frees the
 * processor and pays a wake-up.  The adaptive policy spins only as long as
 * recent waits say a datagram is likely to come: each socket (a receive),
 * each epoll set and each thread's poll and select calls keep a budget,
 * which grows when a datagram arrives soon after the spin gave up and
 * shrinks when waits end long after it or empty.
 *
 * A spinner pauses the processor between looks and yields it every
 * OST_YIELD_EVERY_NS.  A yield that took a while ran another thread: the
 * spinner then yields more often, so that threads which feed it (a sender
 * of the same program, a peer on the same machine) wait for it briefly.
 * A yield that took long ran a thread that wants the processor for itself,
 * and a spin that may give up then does; the next spins of the same
 * budget then end before a yield is due.
 */
#ifndef OST_CORE_WAIT_POLICY_H
#define OST_CORE_WAIT_POLICY_H

#include <stdint.h>

#include "os/clock.h"

typedef enum {
	OST_SPIN_ADAPTIVE = 0, /* learnt budgets (the default) */
	OST_SPIN_ALWAYS = 1,   /* every wait spins OST_SPIN_FIXED_NS, firm */
	OST_SPIN_NEVER = 2     /* every wait sleeps at once */
} ost_spin_policy_t;

/* Configuration: written by ost_init() only, read without locks. */
extern int spin_policy;
/* _OSTREL_SLEEP_TIME was given: pauses of recv_sleep_time, not the
 * processor's pause instruction. */
extern bool recv_sleep_set;

#define OST_SPIN_FIXED_NS (20 * 1000 * 1000LL)
/* An adaptive budget's bounds: a wait longer than the cap would not have
 * been worth its spin, and a budget below the floor is not worth one. */
#define OST_SPIN_CAP_NS    (1000 * 1000LL)
#define OST_SPIN_FLOOR_NS  (4 * 1000LL)
#define OST_YIELD_EVERY_NS (10 * 1000LL)
/* A yield with nobody else runnable returns within a microsecond or two;
 * one that took longer ran another thread. */
#define OST_YIELD_BUSY_NS (5 * 1000LL)
/* Once another thread ran, this thread's spins yield this often for a
 * while: a thread of the same program that sends what this one waits for
 * (or a peer on the same machine) gets the processor soon. */
#define OST_YIELD_SHARED_NS     (2 * 1000LL)
#define OST_YIELD_SHARED_FOR_NS (10 * 1000 * 1000LL)
/* A yield this long ran a thread that keeps the processor busy: spinning
 * on only takes from it. */
#define OST_YIELD_HOG_NS (50 * 1000LL)
/* Two looks this far apart (a look itself takes microseconds): the thread
 * was preempted, for another that wanted the processor. */
#define OST_PREEMPTED_NS (250 * 1000LL)
/* The spin a wait with the learnt budget gets under the policy. */
hrtime_t ost_spin_budget(const uint32_t *learnt);

/* The rule itself: the next budget. */
uint32_t ost_spin_next(uint32_t budget, hrtime_t waited, bool got);

typedef struct ost_spinner {
	hrtime_t sp_end; /* the spin's end, or 0 once it gave up */
	hrtime_t sp_yield_due;
	hrtime_t sp_last;  /* the last look, or the spin's start */
	bool sp_contended; /* gave up: other threads wanted the processor */
	bool sp_firm; /* an explicit busy phase, or always: runs out its time */
} ost_spinner_t;

/* A spin of ns nanoseconds from now (negative: without end). */
void ost_spin_start(ost_spinner_t *sp, hrtime_t ns, bool firm);

/*
 * Between two looks: pauses, or yields the processor when a yield is due.
 * false when the spin is over (no pause made): its time ran out, or, unless
 * firm, a yield found other threads waiting for the processor; the caller
 * then takes one more look in its sleep path, as it always does.
 */
bool ost_spin_pause(ost_spinner_t *sp);

/*
 * A wait's outcome: got, a datagram (or an event) ended it after waited
 * nanoseconds; else it ended empty (a time-out).  Waits that ended
 * otherwise (a signal, a teardown, an error) teach nothing.  Relaxed
 * atomics: concurrent waits may lose an update, which only slows the
 * learning.  sp: the wait's spinner, or null.
 */
void ost_spin_learn(uint32_t *learnt, hrtime_t waited, bool got,
    const ost_spinner_t *sp);

#endif /* OST_CORE_WAIT_POLICY_H */
