/*
 * Signal handlers, as far as the waits need them.  A wait that spins in
 * user space sees no EINTR: a handler that runs meanwhile returns to the
 * spin as if nothing happened.  So every handler the application installs
 * runs behind a trampoline that counts, per thread, the handlers that ran
 * and those of them installed without SA_RESTART; a wait takes a snapshot
 * when it starts and compares it with one thread-local load per look.
 */
#ifndef OST_CORE_SIGNALS_H
#define OST_CORE_SIGNALS_H

#include <signal.h>
#include <stdint.h>

typedef struct ost_sigcount {
	uint32_t sc_all;       /* handlers that ran on this thread */
	uint32_t sc_norestart; /* ... of them without SA_RESTART */
} ost_sigcount_t;

extern __thread ost_sigcount_t ost_sigcount
    __attribute__((tls_model("initial-exec")));

/* A wait's snapshot of the counts; the first also wraps the handlers that
 * were installed before the library saw them. */
ost_sigcount_t ost_sig_snap(void);

/* Whether a handler ran on this thread since the snapshot. */
static inline bool
ost_sig_ran(const ost_sigcount_t *s)
{
	return __atomic_load_n(&ost_sigcount.sc_all, __ATOMIC_RELAXED) !=
	    s->sc_all;
}

/*
 * What a receive that a handler interrupted does, as the kernel decides
 * it: true to go on waiting (every handler that ran asked for SA_RESTART
 * and the socket has no receive time-out); then *s is renewed.
 */
bool ost_sig_restart(ost_sigcount_t *s, bool has_rcvtimeo);

/*
 * Around a wait that sleeps in the kernel: blocks every signal and returns
 * false, with errno EINTR, when a handler ran since s (the wait must not
 * sleep); else the sleep runs with *mask, the thread's own mask, passed to
 * ppoll or epoll_pwait, so that a signal arriving from here on ends it.
 * ost_sig_unhold puts *mask back.
 */
bool ost_sig_hold(const ost_sigcount_t *s, sigset_t *mask);
void ost_sig_unhold(const sigset_t *mask);

/*
 * The interposed sigaction and its relatives: the application's handler
 * is kept in a table and the kernel gets the trampoline, with the same
 * flags and mask; queries answer with the application's own.
 */
int
ost_sigaction(int sig, const struct sigaction *act, struct sigaction *oldact);
/* signal(), bsd_signal(): BSD semantics, as glibc gives them. */
__sighandler_t ost_signal(int sig, __sighandler_t handler, int flags);
__sighandler_t ost_sigset(int sig, __sighandler_t disp);
int ost_siginterrupt(int sig, int interrupt);

#endif /* OST_CORE_SIGNALS_H */
