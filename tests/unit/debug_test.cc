/* The debug log: what the application sees of it. */
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support.h"

namespace
{

TEST(Debug, OffIsSilentAndErrnoSurvives)
{
	ost_test_init();
	for (int flag : { 0, 1 }) {
		ost_debug_flag = flag;
		ost_debug_init(false);
		std::string out = capture_stderr(
		    [](void *) {
			    errno = ECONNREFUSED;
			    ost_debug("real %d not bound\n", 7);
			    EXPECT_EQ(errno, ECONNREFUSED);
		    },
		    nullptr);
		EXPECT_EQ(out.empty(), flag == 0);
	}
	ost_debug_flag = 0;
}

/* In a child: 0 when the log file is private and close-on-exec. */
[[noreturn]] void
check_log_file()
{
	std::string path = "/tmp/ost_debug." + std::to_string((long)getpid());
	struct stat st;
	ost_debug_init(true);
	if (stat(path.c_str(), &st) != 0 || (st.st_mode & 0777) != 0600)
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

TEST(Debug, FileIsPrivateAndCloseOnExec)
{
	EXPECT_EXIT(check_log_file(), ::testing::ExitedWithCode(0), "");
}

} // namespace
