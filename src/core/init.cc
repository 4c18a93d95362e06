/*
 * Start-up: configuration from the environment, the real functions behind
 * the interposed ones, and the empty registry.  Everything here is written
 * once, before the application's main(), and read without locks afterwards;
 * later changes to the environment do not reach a running process.
 */
#include <errno.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>

#include "core/ost.h"
#include "core/wait_policy.h"

uint32_t send_busy_wait_cnt = 15;    /* immutable after start-up */
uint32_t recv_sleep_time = 500;      /* immutable after start-up */
int32_t poll_usec;                   /* immutable after start-up */
int32_t epoll_usec;                  /* immutable after start-up */
int recv_mode = RCV_BUSY_WAIT;       /* immutable after start-up */
int spin_policy = OST_SPIN_ADAPTIVE; /* immutable after start-up */
bool recv_sleep_set;                 /* immutable after start-up */

volatile int ost_initialised; /* set last by ost_init() */

/* As atoi, but a number out of an int's range saturates, never wraps. */
static int
env_int(const char *name, int absent)
{
	const char *v = getenv(name);
	int saved_errno = errno;
	long n;

	if (v == NULL)
		return absent;
	n = strtol(v, NULL, 10); /* ERANGE is not the caller's */
	errno = saved_errno;
	return n > INT_MAX ? INT_MAX : n < INT_MIN ? INT_MIN : (int)n;
}

/* _OSTREL_SPIN by name; anything else is the default. */
static int
env_spin_policy(void)
{
	const char *v = getenv("_OSTREL_SPIN");

	if (v != NULL && strcmp(v, "always") == 0)
		return OST_SPIN_ALWAYS;
	if (v != NULL && strcmp(v, "never") == 0)
		return OST_SPIN_NEVER;
	return OST_SPIN_ADAPTIVE;
}

void
ost_config_read(void)
{
	int v;

	err_exit = env_int("_OSTREL_ERR_EXIT", 0) != 0;
	v = env_int("_OSTREL_SEND_BUSY_WAIT_CNT", 15);
	send_busy_wait_cnt = v >= 1 ? (uint32_t)v : 1;
	v = env_int("_OSTREL_SLEEP_TIME", 500);
	recv_sleep_time = v >= 1 ? (uint32_t)v : 1;
	recv_sleep_set = getenv("_OSTREL_SLEEP_TIME") != NULL;
	poll_usec = env_int("_OSTREL_POLL_USEC", 0);
	epoll_usec = env_int("_OSTREL_EPOLL_USEC", 0);
	recv_mode = env_int("_OSTREL_RECV_MODE", RCV_BUSY_WAIT);
	spin_policy = env_spin_policy();
}

static void
ost_debug_config(void)
{
	const char *v = getenv("_OSTREL_DEBUG");

	ost_debug_flag = v == NULL ? 0 : atoi(v);
	if (v != NULL)
		ost_debug_init(ost_debug_flag != 1);
}

/*
 * Also the way in for an interposed call that arrives before the run-time
 * linker has run our initialiser, from another preloaded object's
 * constructor.  Constructors run on one thread, so no lock is needed.
 */
void
ost_init(void)
{
	if (ost_initialised)
		return;
	ost_debug_config();
	ost_libc_init();
	ost_config_read();
	ost_registry_init();
	__atomic_store_n(&ost_initialised, 1, __ATOMIC_RELEASE);
}
