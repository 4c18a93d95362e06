/*
 * The signal trampoline and the table behind it.
 *
 * The kernel holds, for each signal with a handler of the application's,
 * ost_sig_tramp with the application's flags (plus SA_SIGINFO, as the
 * trampoline takes three arguments) and mask; the table holds the
 * application's handler and flags.  SA_RESETHAND stays the kernel's to
 * act on: after a delivery the kernel's disposition is SIG_DFL, and a
 * query reports that.  Handlers installed where the library could not see
 * them (before it was loaded, or by a raw system call) are wrapped the
 * first time a wait looks; one installed afterwards that way stays
 * unknown, and a kernel wait that such a handler interrupts ends with
 * EINTR whatever its flags.
 *
 * Updates are rare: one lock, taken with every signal blocked so that a
 * handler calling sigaction cannot deadlock against its own thread.
 */
#include <errno.h>
#include <string.h>

#include "core/signals.h"
#include "os/libc.h"

__thread ost_sigcount_t ost_sigcount __attribute__((tls_model("initial-exec")));

typedef struct ost_sigent {
	void *se_fn; /* the application's handler, or SIG_DFL/SIG_IGN */
	int se_flags;
} ost_sigent_t;

static ost_sigent_t ost_sigtab[NSIG]; /* written under ost_sig_lock */
static int ost_sig_lock;
static bool ost_sig_scanned;
/* Signals siginterrupt() made interrupting: signal() then omits
 * SA_RESTART, as glibc's does.  Under ost_sig_lock. */
static sigset_t ost_sigintr;

typedef void (*ost_sigfn3_t)(int, siginfo_t *, void *);
typedef void (*ost_sigfn1_t)(int);

static void
ost_sig_tramp(int sig, siginfo_t *si, void *uc)
{
	void *fn;
	int flags;

	if (sig <= 0 || sig >= NSIG)
		return;
	fn = __atomic_load_n(&ost_sigtab[sig].se_fn, __ATOMIC_ACQUIRE);
	flags = __atomic_load_n(&ost_sigtab[sig].se_flags, __ATOMIC_RELAXED);
	/* Counted first: a handler may leave by siglongjmp. */
	__atomic_add_fetch(&ost_sigcount.sc_all, 1, __ATOMIC_RELAXED);
	if (!(flags & SA_RESTART))
		__atomic_add_fetch(&ost_sigcount.sc_norestart, 1,
		    __ATOMIC_RELAXED);
	__atomic_signal_fence(__ATOMIC_SEQ_CST);
	if (fn == (void *)SIG_DFL || fn == (void *)SIG_IGN)
		return; /* changed meanwhile */
	if (flags & SA_SIGINFO)
		((ost_sigfn3_t)fn)(sig, si, uc);
	else
		((ost_sigfn1_t)fn)(sig);
}

static bool
ost_is_tramp(const struct sigaction *sa)
{
	return (sa->sa_flags & SA_SIGINFO) && sa->sa_sigaction == ost_sig_tramp;
}

static void
ost_sig_lock_take(sigset_t *saved)
{
	sigset_t all;

	(void)sigfillset(&all);
	(void)pthread_sigmask(SIG_BLOCK, &all, saved);
	while (__atomic_exchange_n(&ost_sig_lock, 1, __ATOMIC_ACQUIRE))
		;
}

static void
ost_sig_lock_give(const sigset_t *saved)
{
	__atomic_store_n(&ost_sig_lock, 0, __ATOMIC_RELEASE);
	(void)pthread_sigmask(SIG_SETMASK, saved, NULL);
}

/* sigaction under the lock; old as the application installed it. */
static int
ost_sigaction_locked(int sig, const struct sigaction *act,
    struct sigaction *oldact)
{
	ost_sigent_t prev = { NULL, 0 };
	struct sigaction k, kold;
	int r;

	if (sig > 0 && sig < NSIG)
		prev = ost_sigtab[sig];
	if (act == NULL || sig <= 0 || sig >= NSIG ||
	    act->sa_handler == SIG_DFL || act->sa_handler == SIG_IGN ||
	    ost_is_tramp(act)) {
		r = real_sigaction(sig, act, &kold);
	} else {
		k = *act;
		k.sa_sigaction = ost_sig_tramp;
		k.sa_flags |= SA_SIGINFO;
		__atomic_store_n(&ost_sigtab[sig].se_flags, act->sa_flags,
		    __ATOMIC_RELAXED);
		__atomic_store_n(&ost_sigtab[sig].se_fn,
		    (void *)act->sa_sigaction, __ATOMIC_RELEASE);
		r = real_sigaction(sig, &k, &kold);
		if (r != 0) {
			ost_sigtab[sig] = prev;
			return r;
		}
	}
	if (r == 0 && oldact != NULL) {
		*oldact = kold;
		if (ost_is_tramp(&kold)) {
			oldact->sa_sigaction = (ost_sigfn3_t)prev.se_fn;
			oldact->sa_flags = (kold.sa_flags & ~SA_SIGINFO) |
			    (prev.se_flags & SA_SIGINFO);
		}
	}
	return r;
}

int
ost_sigaction(int sig, const struct sigaction *act, struct sigaction *oldact)
{
	sigset_t saved;
	int r, err;

	ost_sig_lock_take(&saved);
	r = ost_sigaction_locked(sig, act, oldact);
	err = errno;
	ost_sig_lock_give(&saved);
	errno = err;
	return r;
}

/* Wraps the handlers installed behind the library's back. */
static void
ost_sig_scan(void)
{
	ost_errno_keep keep;
	sigset_t saved;

	ost_sig_lock_take(&saved);
	for (int sig = 1; sig < NSIG && !ost_sig_scanned; sig++) {
		struct sigaction cur;

		if (sig == SIGKILL || sig == SIGSTOP ||
		    real_sigaction(sig, NULL, &cur) != 0)
			continue;
		if (cur.sa_handler == SIG_DFL || cur.sa_handler == SIG_IGN ||
		    ost_is_tramp(&cur))
			continue;
		(void)ost_sigaction_locked(sig, &cur, NULL);
	}
	__atomic_store_n(&ost_sig_scanned, true, __ATOMIC_RELEASE);
	ost_sig_lock_give(&saved);
}

ost_sigcount_t
ost_sig_snap(void)
{
	ost_sigcount_t s;

	if (__builtin_expect(!__atomic_load_n(&ost_sig_scanned,
				 __ATOMIC_ACQUIRE),
		0))
		ost_sig_scan();
	s.sc_all = __atomic_load_n(&ost_sigcount.sc_all, __ATOMIC_RELAXED);
	s.sc_norestart =
	    __atomic_load_n(&ost_sigcount.sc_norestart, __ATOMIC_RELAXED);
	return s;
}

bool
ost_sig_restart(ost_sigcount_t *s, bool has_rcvtimeo)
{
	ost_sigcount_t now;

	now.sc_all = __atomic_load_n(&ost_sigcount.sc_all, __ATOMIC_RELAXED);
	now.sc_norestart =
	    __atomic_load_n(&ost_sigcount.sc_norestart, __ATOMIC_RELAXED);
	/* No count moved: a handler we never saw; it may not restart. */
	if (now.sc_all == s->sc_all || now.sc_norestart != s->sc_norestart ||
	    has_rcvtimeo)
		return false;
	*s = now;
	return true;
}

bool
ost_sig_hold(const ost_sigcount_t *s, sigset_t *mask)
{
	sigset_t all;

	(void)sigfillset(&all);
	(void)pthread_sigmask(SIG_BLOCK, &all, mask);
	if (!ost_sig_ran(s))
		return true;
	(void)pthread_sigmask(SIG_SETMASK, mask, NULL);
	errno = EINTR;
	return false;
}

void
ost_sig_unhold(const sigset_t *mask)
{
	ost_errno_keep keep;

	(void)pthread_sigmask(SIG_SETMASK, mask, NULL);
}

__sighandler_t
ost_signal(int sig, __sighandler_t handler, int flags)
{
	struct sigaction act, old;
	sigset_t saved;
	int r;

	if (handler == SIG_ERR || sig <= 0 || sig >= NSIG) {
		errno = EINVAL;
		return SIG_ERR;
	}
	memset(&act, 0, sizeof(act));
	act.sa_handler = handler;
	(void)sigemptyset(&act.sa_mask);
	ost_sig_lock_take(&saved);
	if (flags == SA_RESTART) {
		/* BSD semantics: the signal is held while its handler runs. */
		(void)sigaddset(&act.sa_mask, sig);
		if (sigismember(&ost_sigintr, sig) == 1)
			flags = 0;
	}
	act.sa_flags = flags;
	r = ost_sigaction_locked(sig, &act, &old);
	ost_sig_lock_give(&saved);
	return r < 0 ? SIG_ERR : old.sa_handler;
}

int
ost_siginterrupt(int sig, int interrupt)
{
	struct sigaction act;
	sigset_t saved;
	int r;

	ost_sig_lock_take(&saved);
	r = ost_sigaction_locked(sig, NULL, &act);
	if (r == 0) {
		if (interrupt) {
			(void)sigaddset(&ost_sigintr, sig);
			act.sa_flags &= ~SA_RESTART;
		} else {
			(void)sigdelset(&ost_sigintr, sig);
			act.sa_flags |= SA_RESTART;
		}
		r = ost_sigaction_locked(sig, &act, NULL);
	}
	ost_sig_lock_give(&saved);
	return r < 0 ? -1 : 0;
}

/* System V's: SIG_HOLD blocks the signal, anything else unblocks it. */
__sighandler_t
ost_sigset(int sig, __sighandler_t disp)
{
	struct sigaction act, old;
	sigset_t set, oset;

	if (disp == SIG_ERR || sig <= 0 || sig >= NSIG) {
		errno = EINVAL;
		return SIG_ERR;
	}
	(void)sigemptyset(&set);
	(void)sigaddset(&set, sig);
	if (disp == SIG_HOLD) {
		if (pthread_sigmask(SIG_BLOCK, &set, &oset) != 0)
			return SIG_ERR;
		if (sigismember(&oset, sig) == 1)
			return SIG_HOLD;
		if (ost_sigaction(sig, NULL, &old) < 0)
			return SIG_ERR;
		return old.sa_handler;
	}
	memset(&act, 0, sizeof(act));
	act.sa_handler = disp;
	(void)sigemptyset(&act.sa_mask);
	if (ost_sigaction(sig, &act, &old) < 0 ||
	    pthread_sigmask(SIG_UNBLOCK, &set, &oset) != 0)
		return SIG_ERR;
	return sigismember(&oset, sig) == 1 ? SIG_HOLD : old.sa_handler;
}
