// A log line that could not be formatted changed errno.

#include <dlfcn.h>

#include <cerrno>

#include <dlog.h>

#include "HostPlatformTests.h"

namespace {

TEST(ErrnoOfALine, IsWhatItWasBefore)
{
    // By its name, or the linker puts in the recorder of other tests.
    const auto print
        = reinterpret_cast<decltype(&__dlog_print)>(dlsym(RTLD_DEFAULT, "__dlog_print"));
    ASSERT_NE(print, nullptr);
    unsetenv("KEL_HOST_LOG");
    const wchar_t unknown[] = {wchar_t(0x7fffffff), 0}; // a character that no locale has

    errno = ENOTTY;
    const int failed = print(LOG_ID_SYSTEM, DLOG_ERROR, "KEL", "%ls", unknown);
    const int afterFailure = errno;
    errno = ENOTTY;
    const int printed = print(LOG_ID_SYSTEM, DLOG_ERROR, "KEL", "%s", "line"); // with no reader
    const int afterLine = errno;

    EXPECT_LT(failed, 0);
    EXPECT_EQ(afterFailure, ENOTTY);
    EXPECT_EQ(printed, 4);
    EXPECT_EQ(afterLine, ENOTTY);
}

} // namespace
