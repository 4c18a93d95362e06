/*
 * Start-up: configuration from the environment, the real functions behind
 * the interposed ones, and the empty registry.  Everything here is written
 * once, before the application's main(), and read without locks afterwards;
 * later changes to the environment do not reach a running process.
 */
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>

#include "ost_impl.h"

boolean_t err_exit;			/* immutable after start-up */
uint32_t send_busy_wait_cnt = 15;	/* immutable after start-up */
uint32_t recv_sleep_time = 500;		/* immutable after start-up */
int32_t poll_usec;			/* immutable after start-up */
int recv_mode = RCV_BUSY_WAIT;		/* immutable after start-up */

int (*real_close)(int);
int (*real_fcntl)(int, int, ...);
int (*real_fcntl64)(int, int, ...);
int (*real_ioctl)(int, unsigned long, ...);
int (*real_poll)(struct pollfd *, nfds_t, int);
ssize_t (*real_read)(int, void *, size_t);
int (*real_select)(int, fd_set *, fd_set *, fd_set *, struct timeval *);
ssize_t (*real_write)(int, const void *, size_t);
int (*xbind)(int, const struct sockaddr *, socklen_t);
int (*xconnect)(int, const struct sockaddr *, socklen_t);
int (*xgetsockopt)(int, int, int, void *, socklen_t *);
ssize_t (*xsendto)(int, const void *, size_t, int, const struct sockaddr *,
    socklen_t);
int (*xsocket)(int, int, int);
ssize_t (*xrecvmsg)(int, struct msghdr *, int);
int (*xrecvmmsg)(int, struct mmsghdr *, unsigned int, int, struct timespec *);
ssize_t (*xsendmsg)(int, const struct msghdr *, int);
int (*xsendmmsg)(int, struct mmsghdr *, unsigned int, int);

fd_tbl_t fd_tbl_array[OST_NBUCKETS];	/* see fd_tbl_t */

volatile int ost_initialised;		/* set last by ost_init() */

template <typename Fn>
static void
lookup(Fn *slot, const char *name, const char *missing_fmt)
{
	*slot = reinterpret_cast<Fn>(ost_libc_lookup(name, missing_fmt));
}

/* glibc's socket calls already have the X/Open shape: the x* pointers are
 * its functions of the plain names. */
static void
ost_real_init(void)
{
	lookup(&real_close, "close", "close() not found: %s\n");
	lookup(&real_fcntl, "fcntl", "fcntl() not found: %s\n");
	lookup(&real_poll, "poll", "poll() not found: %s\n");
	lookup(&real_read, "read", "read() not found: %s\n");
	lookup(&real_select, "select", "select() not found: %s\n");
	lookup(&real_write, "write", "write() not found: %s\n");
	lookup(&xbind, "bind", "bind(xnet) not found: %s\n");
	lookup(&xconnect, "connect", "connect(xnet) not found: %s\n");
	lookup(&xgetsockopt, "getsockopt", "getsockopt(xnet) not found: %s\n");
	lookup(&xsendto, "sendto", "sendto() not found: %s\n");
	lookup(&xsocket, "socket", "socket() not found: %s\n");
	lookup(&xrecvmsg, "recvmsg", "recvmsg(xnet) not found: %s\n");
	lookup(&xrecvmmsg, "recvmmsg", "recvmmsg(xnet) not found: %s\n");
	lookup(&xsendmsg, "sendmsg", "xsendmsg(xnet) not found: %s\n");
	lookup(&xsendmmsg, "sendmmsg", "sendmmsg(xnet) not found: %s\n");
	/* Linux-only routes to the same descriptor flags. */
	lookup(&real_fcntl64, "fcntl64", "fcntl64() not found: %s\n");
	lookup(&real_ioctl, "ioctl", "ioctl() not found: %s\n");
}

static int
env_int(const char *name, int absent)
{
	const char *v = getenv(name);

	return v == NULL ? absent : atoi(v);
}

void
ost_config_read(void)
{
	int v;

	err_exit = env_int("_OSTREL_ERR_EXIT", 0) != 0 ? B_TRUE : B_FALSE;
	v = env_int("_OSTREL_SEND_BUSY_WAIT_CNT", 15);
	send_busy_wait_cnt = v >= 1 ? (uint32_t)v : 1;
	v = env_int("_OSTREL_SLEEP_TIME", 500);
	recv_sleep_time = v >= 1 ? (uint32_t)v : 1;
	poll_usec = env_int("_OSTREL_POLL_USEC", 0);
	recv_mode = env_int("_OSTREL_RECV_MODE", RCV_BUSY_WAIT);
}

static void
ost_debug_config(void)
{
	const char *v = getenv("_OSTREL_DEBUG");

	if (v == NULL) {
		ost_debug_flag = 0;
		return;
	}
	ost_debug_flag = atoi(v);
	ost_debug_init(ost_debug_flag == 1 ? B_FALSE : B_TRUE);
}

static void
ost_registry_init(void)
{
	for (int i = 0; i < OST_NBUCKETS; i++) {
		fd_tbl_t *ft = &fd_tbl_array[i];

		list_create(&ft->ft_head, sizeof (uost_t),
		    offsetof(uost_t, uost_list));
		if (pthread_mutex_init(&ft->ft_lock, NULL) != 0) {
			ost_debug("%s: cannot init mutex\n", "ost_init");
			exit(1);
		}
	}
}

void
ost_init(void)
{
	if (ost_initialised)
		return;
	ost_debug_config();
	ost_real_init();
	ost_libc_init();
	ost_set_exec();
	ost_config_read();
	ost_registry_init();
	__atomic_store_n(&ost_initialised, 1, __ATOMIC_RELEASE);
}

/*
 * An interposed call can arrive before the run-time linker has run our
 * initialiser, from another preloaded object's constructor.  Constructors
 * run on one thread, so no lock is needed.
 */
void
ost_ensure_init(void)
{
	ost_init();
}
