/* The debug log: a private, close-on-exec file, and errno left alone. */
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support.h"

namespace
{

/* In a child: 0 when the log file is private and close-on-exec, and a
 * line written to it leaves errno as it was. */
[[noreturn]] void
check_log_file()
{
	std::string path = "/tmp/ost_debug." + std::to_string((long)getpid());
	struct stat st;
	ost_debug_flag = 1;
	ost_debug_init(true);
	errno = ECONNREFUSED;
	ost_debug("real %d not bound\n", 7);
	if (errno != ECONNREFUSED)
		_exit(5);
	if (stat(path.c_str(), &st) != 0 || (st.st_mode & 0777) != 0600 ||
	    st.st_size == 0)
		_exit(2);
	unlink(path.c_str());
	for (int fd = 0; fd < 1024; fd++) {
		char target[256] = {};
		std::string link = "/proc/self/fd/" + std::to_string(fd);
		if (readlink(link.c_str(), target, 255) > 0 &&
		    path + " (deleted)" == target)
			_exit(fcntl(fd, F_GETFD) & FD_CLOEXEC ? 0 : 3);
	}
	_exit(4);
}

TEST(Debug, FileIsPrivateCloseOnExecAndKeepsErrno)
{
	ost_test_init();
	EXPECT_EXIT(check_log_file(), ::testing::ExitedWithCode(0), "");
}

} // namespace
