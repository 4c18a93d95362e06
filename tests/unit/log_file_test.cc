/* The debug log file: private, close-on-exec, errno left alone, and never
 * written through what another user may plant at its name. */
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

#include "support.h"

namespace
{

enum Plant {
	kSymlink,
	kHardLink,
	kFifo,
	kOtherOwner
};

std::string
contents(const std::string &path)
{
	std::ifstream in(path);
	std::stringstream ss;
	ss << in.rdbuf();
	return ss.str();
}

/*
 * In a child, since the name holds the pid: plants a trap at the log's
 * name, opens the log, writes a line.  0 when the victim file is intact
 * and the line went to standard error.
 */
[[noreturn]] void
open_over(Plant plant)
{
	std::string path = "/tmp/ost_debug." + std::to_string((long)getpid());
	std::string victim = path + ".victim";
	int ok = -1;

	alarm(5); /* a FIFO must not make the open wait */
	unlink(path.c_str());
	std::ofstream(victim) << "keep";
	switch (plant) {
	case kSymlink:
		ok = symlink(victim.c_str(), path.c_str());
		break;
	case kHardLink:
		ok = link(victim.c_str(), path.c_str());
		break;
	case kFifo:
		ok = mkfifo(path.c_str(), 0666);
		break;
	case kOtherOwner:
		std::ofstream(path) << "keep";
		ok = chown(path.c_str(), 65534, 65534);
		break;
	}
	if (ok != 0)
		_exit(10);
	ost_debug_flag = 2;
	ost_debug_init(true);
	/* This is a death-test child: its stderr may go to a file. */
	char err_path[] = "/tmp/ost_stderr_XXXXXX";
	int err_fd = mkstemp(err_path);

	dup2(err_fd, 2);
	ost_debug("hello\n");
	std::string out = contents(err_path);
	unlink(err_path);
	bool intact = contents(victim) == "keep" &&
	    (plant != kOtherOwner || contents(path) == "keep");
	unlink(path.c_str());
	unlink(victim.c_str());
	_exit(!intact ? 2 : out.find("hello") == std::string::npos ? 3 : 0);
}

TEST(DebugFile, PlantedNamesAreNotWrittenThrough)
{
	for (Plant p : { kSymlink, kHardLink, kFifo, kOtherOwner }) {
		if (p == kOtherOwner && geteuid() != 0)
			continue;
		EXPECT_EXIT(open_over(p), ::testing::ExitedWithCode(0), "")
		    << "plant " << p;
	}
}

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
