/* What every exported entry point needs. */
#ifndef OST_INTERPOSE_H
#define OST_INTERPOSE_H

#include "core/ost.h"
#include "core/receive.h"
#include "os/frio_loader.h"

/* On the export list (ostrel.map); everything else stays hidden. */
#define OST_EXPORT extern "C" __attribute__((visibility("default")))

/*
 * A socket call made by libfrio (or the libraries under it) on our behalf:
 * its descriptors are not the application's.
 */
#define OST_FROM_FRIO() __builtin_expect(ost_in_frio != 0, 0)

/*
 * How many of our exported calls this thread is inside (load.cc).  Read
 * by a signal handler that interrupted one of them: initial-exec, so that
 * the read allocates nothing.
 */
extern __thread volatile unsigned ost_depth
    __attribute__((tls_model("initial-exec")));
/*
 * The frame of the outermost of those calls.  A handler that interrupted
 * us runs deeper on the stack; a call whose frame is not deeper means the
 * outermost one never returned: a handler left it by siglongjmp (the
 * alarm-around-recvfrom time-out), and the count is stale.  (A handler on
 * an alternate stack above ours passes for a fresh call, and waits for
 * our locks like any other.)
 */
extern __thread uintptr_t ost_outer_call
    __attribute__((tls_model("initial-exec")));

/*
 * One exported call, from entry to return: every entry point opens one
 * first thing and returns through ret().
 *
 * errno: a call that succeeds hands the application back the errno it
 * came in with, whatever our set-up, look-ups and fallbacks did to it on
 * the way; a call that fails leaves the errno its last real call (or its
 * own check) set.  Keeping this here rather than in each path is what
 * lets the core call the C library freely.
 *
 * Nesting: a call made while this thread is already inside one of ours
 * (libfrio calling back, or a signal handler that interrupted us) may not
 * take our locks: the interrupted code may hold the very bucket, record or
 * epoll lock it would wait for, and none of them is recursive.  Such a
 * call goes straight to the C library; the kernel socket behind a bypass
 * socket stays live, so a send, a receive or an option on it still works,
 * only without the ring.  close() is the exception (ost_close_nested).
 *
 * An interposed call can also arrive before the run-time linker has run
 * our initialiser, from another preloaded object's constructor.
 */
class ost_call
{
      public:
	__attribute__((always_inline)) ost_call() : oc_errno(errno)
	{
		if (__builtin_expect(!ost_initialised, 0))
			ost_init();
		uintptr_t here = (uintptr_t)__builtin_frame_address(0);

		if (__builtin_expect(ost_depth != 0 && here >= ost_outer_call,
			0)) {
			ost_depth = 0;
			ost_recv_abandoned();
		}
		if (ost_depth == 0)
			ost_outer_call = here;
		oc_nested = ost_depth != 0 || ost_in_frio != 0;
		ost_depth = ost_depth + 1;
	}
	~ost_call()
	{
		/* Closes a signal handler put off run once no lock is held. */
		if (ost_depth == 1 && ost_closes_deferred())
			ost_run_deferred_closes();
		ost_depth = ost_depth - 1;
	}
	ost_call(const ost_call &) = delete;
	ost_call &operator=(const ost_call &) = delete;

	bool nested() const { return __builtin_expect(oc_nested, 0); }

	/* A count, a descriptor or 0: negative means failed. */
	template <typename T> T ret(T r) const
	{
		if (r >= 0)
			errno = oc_errno;
		return r;
	}
	/* A pointer: null means failed. */
	template <typename T> T *ret(T *p) const
	{
		if (p != NULL)
			errno = oc_errno;
		return p;
	}
	/* Before a real call whose result reports by itself (posix_spawn's
	 * error number): it then sets errno, or not, as it would without us. */
	void restore_errno() const { errno = oc_errno; }

      private:
	int oc_errno;
	bool oc_nested;
};

#endif /* OST_INTERPOSE_H */
