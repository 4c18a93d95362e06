/*
 * The start-up configuration: whatever the _OSTREL_* variables hold, the
 * values read are in range, and a number out of its setting's range is
 * clamped, never wrapped.  Input: the values of kVars, one a line; a
 * single '-' leaves the variable unset.
 */
#include <ctype.h>
#include <limits.h>
#include <string.h>

#include <algorithm>
#include <string>

#include "core/ost.h"
#include "fuzz.h"

namespace
{

const char *const kVars[] = { "_OSTREL_ERR_EXIT", "_OSTREL_SEND_BUSY_WAIT_CNT",
	"_OSTREL_SLEEP_TIME", "_OSTREL_POLL_USEC", "_OSTREL_EPOLL_USEC",
	"_OSTREL_RECV_MODE" };
const int kNVars = sizeof(kVars) / sizeof(kVars[0]);

/* Through a buffer of its own: setenv would keep every value ever set. */
void
put(int i, const std::string &v)
{
	static char bufs[kNVars][4400];
	int n =
	    snprintf(bufs[i], sizeof(bufs[i]), "%s=%s", kVars[i], v.c_str());

	FUZZ_CHECK(n > 0 && (size_t)n < sizeof(bufs[i]));
	putenv(bufs[i]);
}

/* The number a value starts with, as strtol reads it, clamped to an int;
 * false when there is none. */
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
		size_t nl = std::min(in.find('\n', at), in.size());

		if (at <= in.size()) {
			vals[i] = in.substr(at, nl - at);
			vals[i].resize(
			    std::min(vals[i].find('\0'), vals[i].size()));
			set[i] = vals[i] != "-";
			at = nl + 1;
		}
		if (set[i])
			put(i, vals[i]);
		else
			unsetenv(kVars[i]);
	}
	ost_config_read();

	const long long got[kNVars] = { err_exit, send_busy_wait_cnt,
		recv_sleep_time, poll_usec, epoll_usec, recv_mode };
	const long long absent[kNVars] = { 0, 15, 500, 0, 0, RCV_BUSY_WAIT };
	for (int i = 0; i < kNVars; i++) {
		long long want = absent[i];

		if (set[i] && !decimal(vals[i], &want))
			want = 0; /* no number: read as 0 */
		if (i == 0)
			want = want != 0;
		else if (i <= 2 && want < 1) /* counts and sleeps: at least 1 */
			want = 1;
		if (got[i] != want) {
			fprintf(stderr, "%s=\"%s\" read as %lld, not %lld\n",
			    kVars[i], vals[i].c_str(), got[i], want);
			FUZZ_CHECK(got[i] == want);
		}
	}
	return 0;
}
