// What a failed read of a system text had left in the pointer was freed.

#include <optional>

#include <gtest/gtest.h>

#include <kel/KELCachingUtils.h>

#include "support/FakePlatform.h"
#include "support/LogRecorder.h"

using kel::TCHtCachingUtils;

// Here, a constant that free() would die of.
TEST(SystemTextThatFails, IsOneErrorLineAndLeavesTheOutput)
{
    constexpr system_info_key_e key = SYSTEM_INFO_KEY_MODEL;
    kel::test::FakePlatform platform;
    kel::test::LogRecorder log;
    platform.LeaveOnFailure(std::nullopt, "not from malloc()");
    std::string value = "old";

    EXPECT_FALSE(TCHtCachingUtils::GetSystemInfoKeyCached(key, value));

    EXPECT_EQ(value, "old");
    ASSERT_EQ(log.Count("Fail getting systeminfo value"), 1u);
    EXPECT_EQ(log.Lines()[0].m_function, "GetSystemInfoKeyCached");

    platform.SetText(key, "there");

    EXPECT_TRUE(TCHtCachingUtils::GetSystemInfoKeyCached(key, value));
    EXPECT_EQ(value, "there");
    EXPECT_EQ(log.Lines().size(), 1u);
}
