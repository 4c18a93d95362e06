/* The frame-access library is loaded at the first open, or reported missing. */
#include <gtest/gtest.h>

#include "os/frio_loader.h"
#include "support.h"

namespace {

/* The loader tries once per process: fail in a child of our own. */
void
missing_library()
{
	ost_test_init();
	char buf[80];

	/* Before any load the loader has its own texts. */
	EXPECT_STRNE(ost_frio_status2str(FRIO_STATUS_DLERR, buf, sizeof (buf)),
	    "");
	ost_frio_set_path("/nonexistent/libfrio.so.1");
	frio_handle_t h = nullptr;
	EXPECT_EQ(ost_frio_open("lo", nullptr, &h), FRIO_STATUS_DLERR);
	EXPECT_EQ(h, nullptr);
	EXPECT_EQ(ost_frio, nullptr);
	const char *text = ost_frio_status2str(FRIO_STATUS_DLERR, buf,
	    sizeof (buf));
	EXPECT_NE(std::string(text).find("libfrio.so.1"), std::string::npos);
	EXPECT_LT(strlen(text), sizeof (buf));
	exit(::testing::Test::HasFailure() ? 1 : 0);
}

TEST(FrioLoader, MissingLibraryIsAClearFailure)
{
	GTEST_FLAG_SET(death_test_style, "threadsafe");
	EXPECT_EXIT(missing_library(), ::testing::ExitedWithCode(0), "");
}

} // namespace
