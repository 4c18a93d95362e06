#include "os/log.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include "os/verify.h"

int ost_debug_flag;        /* immutable after start-up */
bool err_exit;             /* immutable after start-up */
static FILE *ost_debug_fp; /* immutable after start-up */

static char ost_ntoa_buf[INET6_ADDRSTRLEN]; /* log lines only; shared */

/*
 * The file is in a directory everyone may write, under a name anyone can
 * guess, and the process may run as root: a symbolic link, a hard link or
 * a FIFO planted there must not make us truncate, write or block on
 * something else.  So no link is followed, nothing is truncated before the
 * file is known to be a regular file of ours with one name, and a FIFO
 * fails to open instead of waiting for a reader.  Any doubt: standard
 * error, as when the file cannot be made.
 */
static int
ost_debug_open(const char *path)
{
	struct stat st;
	int fd;

	fd = open(path,
	    O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
	if (fd < 0)
		return -1;
	if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) ||
	    st.st_uid != geteuid() || st.st_nlink != 1 ||
	    fchmod(fd, 0600) != 0 || ftruncate(fd, 0) != 0) {
		(void)close(fd);
		return -1;
	}
	return fd;
}

void
ost_debug_init(bool to_file)
{
	char path[64];
	int fd;

	ost_debug_fp = stderr;
	if (!to_file)
		return;
	(void)snprintf(path, sizeof(path), "/tmp/ost_debug.%ld",
	    (long)getpid());
	/* Close-on-exec: a program started by exec must not inherit it. */
	fd = ost_debug_open(path);
	if (fd >= 0) {
		FILE *fp = fdopen(fd, "w");

		if (fp != NULL)
			ost_debug_fp = fp;
		else
			(void)close(fd);
	}
}

void
ost_debug_log(const char *fn, const char *fmt, ...)
{
	int saved_errno = errno;
	FILE *fp = ost_debug_fp != NULL ? ost_debug_fp : stderr;
	va_list ap;

	/* One line per call, even when threads log at once. */
	flockfile(fp);
	(void)fprintf(fp, "ost: %s: ", fn);
	va_start(ap, fmt);
	(void)vfprintf(fp, fmt, ap);
	va_end(ap);
	(void)fflush(fp);
	funlockfile(fp);
	errno = saved_errno;
}

void
ost_err_exit(const char *reason)
{
	if (!err_exit)
		return;
	(void)fprintf(stderr, "ostrel.so: cannot set up data path bypass: %s\n",
	    reason);
	exit(1);
}

const char *
ost_ntoa_v6(const struct in6_addr *addr)
{
	return inet_ntop(AF_INET6, addr, ost_ntoa_buf, sizeof(ost_ntoa_buf));
}

void
ost_verify_failed(const char *expr, const char *file, int line,
    const char *func)
{
	(void)fprintf(stderr,
	    "ostrel.so: assertion failed: %s, file: %s, line: %d, function: "
	    "%s\n",
	    expr, file, line, func);
	abort();
}
