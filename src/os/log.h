/*
 * The debug log and the fatal-error switch.
 *
 * The log is the only place that says why a socket did not get, or lost,
 * the bypass path: every other failure is absorbed by the fallback to the
 * kernel.  ost_debug() formats nothing unless the log is on, prefixes the
 * calling function's name and leaves errno as it found it, since it runs
 * inside calls whose errno the application is about to read.
 */
#ifndef OST_OS_LOG_H
#define OST_OS_LOG_H

#include <netinet/in.h>

/* Written once by start-up, read without locks afterwards. */
extern int ost_debug_flag; /* 0: off; 1: standard error; else a file */
extern bool err_exit;      /* set-up failures end the process */

/* Opens the log: standard error, or /tmp/ost_debug.<pid>. */
void ost_debug_init(bool to_file);

void ost_debug_log(const char *fn, const char *fmt, ...)
    __attribute__((format(printf, 2, 3)));

#define ost_debug(...)                                        \
	do {                                                  \
		if (__builtin_expect(ost_debug_flag != 0, 0)) \
			ost_debug_log(__func__, __VA_ARGS__); \
	} while (0)

/* With err_exit set, says why the bypass could not be set up and exits. */
void ost_err_exit(const char *reason);

/* An address as text for a log line (one shared buffer). */
const char *ost_ntoa_v6(const struct in6_addr *addr);

#endif /* OST_OS_LOG_H */
