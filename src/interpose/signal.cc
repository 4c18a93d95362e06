/*
 * sigaction and the older ways in to it: each handler runs behind the
 * library's trampoline, so that a wait spinning in user space knows that
 * a handler ran (core/signals.cc).  glibc's signal() and its relatives
 * call its sigaction internally, not through ours: each is here too.
 * Their lock is taken with signals blocked, so a handler may call them
 * inside one of our calls.
 */
#include "core/signals.h"
#include "interpose/interpose.h"

/* The signal() family fails with SIG_ERR; SIG_DFL is a null success. */
static __sighandler_t
ost_sig_kept(const ost_call &call, __sighandler_t old)
{
	if (old != SIG_ERR)
		call.restore_errno();
	return old;
}

OST_EXPORT int
sigaction(int sig, const struct sigaction *act, struct sigaction *oldact)
{
	ost_call call;

	return call.ret(ost_sigaction(sig, act, oldact));
}

OST_EXPORT int
__sigaction(int sig, const struct sigaction *act, struct sigaction *oldact)
{
	ost_call call;

	return call.ret(ost_sigaction(sig, act, oldact));
}

OST_EXPORT __sighandler_t
signal(int sig, __sighandler_t handler)
{
	ost_call call;

	return ost_sig_kept(call, ost_signal(sig, handler, SA_RESTART));
}

OST_EXPORT __sighandler_t
bsd_signal(int sig, __sighandler_t handler)
{
	ost_call call;

	return ost_sig_kept(call, ost_signal(sig, handler, SA_RESTART));
}

OST_EXPORT __sighandler_t
ssignal(int sig, __sighandler_t handler)
{
	ost_call call;

	return ost_sig_kept(call, ost_signal(sig, handler, SA_RESTART));
}

/* System V's: reset on delivery, not held while the handler runs. */
OST_EXPORT __sighandler_t
sysv_signal(int sig, __sighandler_t handler)
{
	ost_call call;

	return ost_sig_kept(call, ost_signal(sig, handler, SA_RESETHAND | SA_NODEFER));
}

OST_EXPORT __sighandler_t
__sysv_signal(int sig, __sighandler_t handler)
{
	ost_call call;

	return ost_sig_kept(call, ost_signal(sig, handler, SA_RESETHAND | SA_NODEFER));
}

OST_EXPORT __sighandler_t
sigset(int sig, __sighandler_t disp)
{
	ost_call call;

	return ost_sig_kept(call, ost_sigset(sig, disp));
}

OST_EXPORT int
siginterrupt(int sig, int interrupt)
{
	ost_call call;

	return call.ret(ost_siginterrupt(sig, interrupt));
}
