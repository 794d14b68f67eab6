// The log of what is no request.

#include <gmock/gmock.h>

#include "requests/JunkLog.h"

namespace kel::test {

using agent::TCJunkLog;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

TEST(JunkLog, HasALineForEachKindAndUserAMinuteAndTheNumberOfTheOthers)
{
    TCJunkLog log;
    CaptureStderr();

    for (int i = 0; i < 1000; ++i) {
        log.Tell("a\n", "/tmp/drop", 7, "removed: bad");
    }
    log.Tell("b", "/tmp/drop", 8, "removed: bad");
    log.Tell("c", "/tmp/drop", 7, "removed: worse");
    log.Flush();
    EXPECT_EQ(GetCapturedStderr(), "kel-agent: a\\x0a of user 7 in /tmp/drop removed: bad\n"
                                   "kel-agent: b of user 8 in /tmp/drop removed: bad\n"
                                   "kel-agent: c of user 7 in /tmp/drop removed: worse\n");

    CaptureStderr();
    log.Flush(TCJunkLog::TClock::now() + std::chrono::seconds(61));
    log.Tell("d", "/tmp/drop", 7, "removed: bad");
    EXPECT_EQ(GetCapturedStderr(), "kel-agent: 999 more of user 7 within a minute removed: bad\n"
                                   "kel-agent: d of user 7 in /tmp/drop removed: bad\n");
}

TEST(JunkLog, ManyUsersShareALine)
{
    TCJunkLog log;
    CaptureStderr();
    for (uid_t user = 0; user < 10'000; ++user) {
        log.Tell("a", "/tmp/drop", user, "removed: bad");
    }
    log.FlushAll();
    const std::string text = GetCapturedStderr();

    EXPECT_LT(std::count(text.begin(), text.end(), '\n'), 300);
    EXPECT_THAT(text,
                testing::HasSubstr("9743 more of further users within a minute removed: bad\n"));
}

} // namespace kel::test
