/*
 * The debug log, the fatal-error switch and address text for log lines.
 *
 * The log is the only place that says why a socket did not get, or lost,
 * the bypass path: every other failure is absorbed by the fallback to the
 * kernel.  ost_debug() is called inside interposed calls whose errno the
 * application is about to read, so it leaves errno as it found it.
 */
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <libintl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "ost_impl.h"

int ost_debug_flag;		/* immutable after start-up */
FILE *ost_debug_fp;		/* immutable after start-up */
int ost_debug_fd = -1;		/* immutable after start-up */

static char ost_ntoa_buf[INET6_ADDRSTRLEN];	/* log lines only; shared */

const char *
ost_gettext(const char *msgid)
{
	return dgettext(OST_TEXT_DOMAIN, msgid);
}

void
ost_debug_init(boolean_t to_file)
{
	char path[64];

	ost_debug_fp = stderr;
	if (!to_file)
		return;
	(void) snprintf(path, sizeof (path), "/tmp/ost_debug.%ld",
	    (long)getpid());
	/* Close-on-exec: a program started by exec must not inherit it. */
	ost_debug_fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC,
	    0600);
	if (ost_debug_fd > 0) {
		FILE *fp = fdopen(ost_debug_fd, "w");

		if (fp != NULL)
			ost_debug_fp = fp;
	}
}

void
ost_debug(const char *fmt, ...)
{
	va_list ap;
	int saved_errno;
	FILE *fp;

	if (ost_debug_flag == 0)
		return;
	saved_errno = errno;
	fp = ost_debug_fp != NULL ? ost_debug_fp : stderr;
	/* One line per call, even when threads log at once. */
	flockfile(fp);
	(void) fflush(fp);
	(void) fputs("ost: ", fp);
	va_start(ap, fmt);
	(void) vfprintf(fp, fmt, ap);
	va_end(ap);
	(void) fflush(fp);
	funlockfile(fp);
	errno = saved_errno;
}

void
ost_err_exit(const char *reason)
{
	if (!err_exit)
		return;
	(void) fprintf(stderr, "%s: %s: %s\n", "ostrel.so",
	    ost_gettext("cannot set up data path bypass"), reason);
	exit(1);
}

const char *
ost_ntoa_v6(const struct in6_addr *addr)
{
	return inet_ntop(AF_INET6, addr, ost_ntoa_buf, sizeof (ost_ntoa_buf));
}

void
ost_verify_failed(const char *expr, const char *file, int line,
    const char *func)
{
	(void) fprintf(stderr,
	    "ostrel.so: assertion failed: %s, file: %s, line: %d, function: %s\n",
	    expr, file, line, func);
	abort();
}
