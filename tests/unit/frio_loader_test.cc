/* A missing frame-access library is a failure to open, not a crash. */
#include <gtest/gtest.h>

#include "os/frio_loader.h"
#include "support.h"

namespace {

/* The loader tries once per process: fail in a child of our own. */
void
missing_library()
{
	ost_test_init();
	ost_frio_set_path("/nonexistent/libfrio.so.1");
	frio_handle_t h = nullptr;
	EXPECT_EQ(ost_frio_open("lo", nullptr, &h), FRIO_STATUS_DLERR);
	EXPECT_EQ(h, nullptr);
	EXPECT_EQ(ost_frio, nullptr);
	exit(::testing::Test::HasFailure() ? 1 : 0);
}

TEST(FrioLoader, MissingLibraryIsAClearFailure)
{
	GTEST_FLAG_SET(death_test_style, "threadsafe");
	EXPECT_EXIT(missing_library(), ::testing::ExitedWithCode(0), "");
}

} // namespace
