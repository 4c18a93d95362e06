/*
 * The start-up configuration: whatever the _OSTREL_* variables hold, the
 * values read are inside the ranges the rest of the library assumes, and a
 * decimal number too large or too small for its setting is taken as the
 * nearest value the setting can hold, never as a wrapped one (a huge spin
 * time must not turn negative, a huge pause into a tiny one).
 *
 * Input: the values of the variables in the order of kVars, separated by
 * newlines; a value that is a single '-' leaves its variable unset.
 */
#include <ctype.h>
#include <limits.h>
#include <string.h>

#include <string>

#include "core/ost.h"
#include "fuzz.h"

namespace
{

const char *const kVars[] = { "_OSTREL_ERR_EXIT", "_OSTREL_SEND_BUSY_WAIT_CNT",
	"_OSTREL_SLEEP_TIME", "_OSTREL_POLL_USEC", "_OSTREL_EPOLL_USEC",
	"_OSTREL_RECV_MODE" };
const int kNVars = sizeof(kVars) / sizeof(kVars[0]);

/*
 * Sets a variable through a buffer of its own that the environment keeps
 * pointing at: setenv would keep every value ever set, and a long run
 * would end out of memory.
 */
void
put(int i, const std::string &v)
{
	static char bufs[kNVars][4400];
	int n =
	    snprintf(bufs[i], sizeof(bufs[i]), "%s=%s", kVars[i], v.c_str());

	FUZZ_CHECK(n > 0 && (size_t)n < sizeof(bufs[i]));
	putenv(bufs[i]);
}

/*
 * The number a value starts with, as strtol reads it (leading blanks, a
 * sign, decimal digits), limited to an int's range; false when no digit
 * follows.
 */
bool
decimal(const std::string &v, long long *out)
{
	size_t i = 0;
	bool neg = false;
	long long n = 0;

	while (i < v.size() && isspace((unsigned char)v[i]))
		i++;
	if (i < v.size() && (v[i] == '+' || v[i] == '-'))
		neg = v[i++] == '-';
	if (i >= v.size() || !isdigit((unsigned char)v[i]))
		return false;
	for (; i < v.size() && isdigit((unsigned char)v[i]); i++) {
		n = n * 10 + (v[i] - '0');
		if (n > (long long)INT_MAX + 1)
			n = (long long)INT_MAX + 1;
	}
	n = neg ? -n : n;
	*out = n > INT_MAX ? INT_MAX : n;
	return true;
}

} // namespace

extern "C" int
LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	std::string in((const char *)data, size), vals[kNVars];
	bool set[kNVars] = {};
	size_t at = 0;

	for (int i = 0; i < kNVars; i++) {
		size_t nl = at > in.size() ? at : in.find('\n', at);
		std::string v;

		if (at <= in.size())
			v = in.substr(at,
			    nl == std::string::npos ? std::string::npos :
						      nl - at);
		/* The environment holds no NUL inside a value. */
		v = v.substr(0, v.find('\0'));
		if (at <= in.size() && v != "-") {
			put(i, v);
			set[i] = true;
			vals[i] = v;
		} else {
			unsetenv(kVars[i]);
		}
		at = nl == std::string::npos || nl > in.size() ? in.size() + 1 :
								 nl + 1;
	}
	ost_config_read();

	FUZZ_CHECK(send_busy_wait_cnt >= 1 && send_busy_wait_cnt <= INT_MAX);
	FUZZ_CHECK(recv_sleep_time >= 1 && recv_sleep_time <= INT_MAX);
	long long want[kNVars];
	const long long got[kNVars] = { err_exit, send_busy_wait_cnt,
		recv_sleep_time, poll_usec, epoll_usec, recv_mode };
	const long long absent[kNVars] = { 0, 15, 500, 0, 0, RCV_BUSY_WAIT };
	for (int i = 0; i < kNVars; i++) {
		if (!set[i]) {
			want[i] = absent[i];
		} else if (!decimal(vals[i], &want[i])) {
			want[i] = 0; /* no number: read as 0 */
		}
	}
	want[0] = want[0] != 0;
	for (int i : { 1, 2 })
		want[i] = want[i] >= 1 ? want[i] : 1;
	for (int i = 0; i < kNVars; i++) {
		if (got[i] != want[i]) {
			fprintf(stderr, "%s=\"%s\" read as %lld, not %lld\n",
			    kVars[i], vals[i].c_str(), got[i], want[i]);
			FUZZ_CHECK(got[i] == want[i]);
		}
	}
	return 0;
}
