// Cached look-ups where there is no memory. They start with empty caches: a program of its own.

#include <new>
#include <string>

#include <gmock/gmock.h>

#include <kel/KELCachingUtils.h>

#include "Messages.h"
#include "support/FakePlatform.h"
#include "support/LogRecorder.h"
#include "support/MemoryShortage.h"

using kel::TCHtCachingUtils;
using kel::test::FailAllocation;

TEST(CachingShortage, WithoutMemoryForAnEntryTheLocksAreFreeAndTheKeyIsTriedAgain)
{
    constexpr system_info_key_e key = SYSTEM_INFO_KEY_MODEL;
    const std::string text(100, 't');
    kel::test::FakePlatform platform;
    platform.SetText(key, text);
    kel::test::LogRecorder log;
    size_t failures = 0;

    for (bool known = false; !known;) {
        std::string value;
        FailAllocation(failures + 1);
        try {
            known = TCHtCachingUtils::GetSystemInfoKeyCached(key, value);
            FailAllocation(0);
            EXPECT_EQ(value, text);
        } catch (const std::bad_alloc&) {
            ++failures;
            ASSERT_TRUE(TCHtCachingUtils::m_CacheMapMutex.try_lock());
            TCHtCachingUtils::m_CacheMapMutex.unlock();
            EXPECT_TRUE(TCHtCachingUtils::m_systemInfoStrCache.empty());
        }
    }

    EXPECT_GE(failures, 3u) << "the output, the entry and its text";
    EXPECT_EQ(TCHtCachingUtils::m_systemInfoStrCache.size(), 1u);
    EXPECT_THAT(TakeMessages(log), testing::IsEmpty());
}
