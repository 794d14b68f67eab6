#include <algorithm>
#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <kel/KELCachingUtils.h>
#include <kel/KELDebug.h>

#include "Messages.h"
#include "StandardOutput.h"
#include "support/FakePlatform.h"
#include "support/LogRecorder.h"
#include "support/WaitUntil.h"

namespace {

using kel::TCHtCachingUtils;

typedef std::vector<std::string> TTexts;
const TTexts kFailure = {"6 Fail getting systeminfo value"};

constexpr system_info_key_e kKey = SYSTEM_INFO_KEY_MODEL;

class CachingUtils : public testing::Test
{
protected:
    void SetUp() override
    {
        TCHtCachingUtils::m_vconfStringCache.clear();
        TCHtCachingUtils::m_systemInfoKeysInt.clear();
        TCHtCachingUtils::m_systemInfoStrCache.clear();
    }

    TTexts TakeMessages() { return ::TakeMessages(m_log); }

    // Does the same in so many threads at once.
    static void Together(size_t threads, const std::function<void(size_t)>& function)
    {
        std::atomic<size_t> ready{0};
        std::vector<std::thread> running;
        for (size_t i = 0; i < threads; ++i) {
            running.emplace_back([&, i] {
                ++ready;
                while (ready < threads) {
                    std::this_thread::yield();
                }
                function(i);
            });
        }
        for (std::thread& thread : running) {
            thread.join();
        }
    }

    kel::test::FakePlatform m_platform;
    kel::test::LogRecorder m_log;
};

TEST_F(CachingUtils, TheFirstValueOfAVconfKeyIsKept)
{
    m_platform.SetVconf("db/key", "first");
    std::string value;
    ASSERT_TRUE(TCHtCachingUtils::GetVconfCachedString("db/key", value));
    ASSERT_EQ(value, "first");

    m_platform.SetVconf("db/key", "second");
    value = "old";

    EXPECT_TRUE(TCHtCachingUtils::GetVconfCachedString("db/key", value));
    EXPECT_EQ(value, "first");
    EXPECT_EQ(m_platform.VconfReads("db/key"), 1u);
    EXPECT_EQ(TakeMessages(), TTexts());
}

TEST_F(CachingUtils, AMissingVconfKeyFailsInSilenceAndIsTriedAgain)
{
    std::string value = "old";

    EXPECT_FALSE(TCHtCachingUtils::GetVconfCachedString("db/key", value));
    EXPECT_FALSE(TCHtCachingUtils::GetVconfCachedString("db/key", value));

    EXPECT_EQ(value, "old");
    EXPECT_EQ(m_platform.VconfReads("db/key"), 2u);
    EXPECT_EQ(TakeMessages(), TTexts());

    m_platform.SetVconf("db/key", "there");

    EXPECT_TRUE(TCHtCachingUtils::GetVconfCachedString("db/key", value));
    EXPECT_EQ(value, "there");
}

TEST_F(CachingUtils, AnyVconfKeyAndValueWillDo)
{
    const TTexts keys = {"", "/", "..", "a\nb", "%s", "\xff", std::string(10000, 'k')};
    for (const std::string& key : keys) {
        m_platform.SetVconf(key, key);
        std::string value = "old";

        EXPECT_TRUE(TCHtCachingUtils::GetVconfCachedString(key, value));
        EXPECT_EQ(value, key) << "an empty value is a value, too";
        EXPECT_TRUE(TCHtCachingUtils::GetVconfCachedString(key, value));
        EXPECT_EQ(m_platform.VconfReads(key), 1u);
    }
}

TEST_F(CachingUtils, ANumberThatCannotBeReadIsOneErrorLineEachTimeUntilItCan)
{
    m_platform.LeaveOnFailure(77, nullptr);
    int value = 1;

    EXPECT_FALSE(TCHtCachingUtils::GetSystemInfoKeyCached(kKey, value));

    EXPECT_EQ(value, 77) << "the platform writes where the caller reads";
    ASSERT_EQ(m_log.Lines().size(), 1u);
    EXPECT_EQ(m_log.Lines()[0].m_source, "KELCachingUtils");
    EXPECT_EQ(m_log.Lines()[0].m_function, "GetSystemInfoKeyCached");
    EXPECT_EQ(TakeMessages(), kFailure);

    EXPECT_FALSE(TCHtCachingUtils::GetSystemInfoKeyCached(kKey, value));
    EXPECT_EQ(TakeMessages(), kFailure);

    m_platform.SetNumber(kKey, 8);

    EXPECT_TRUE(TCHtCachingUtils::GetSystemInfoKeyCached(kKey, value));
    EXPECT_EQ(value, 8);
    EXPECT_EQ(m_platform.NumberReads(kKey), 3u);

    m_platform.SetNumber(kKey, 9);

    EXPECT_TRUE(TCHtCachingUtils::GetSystemInfoKeyCached(kKey, value));
    EXPECT_EQ(value, 8);
    EXPECT_EQ(m_platform.NumberReads(kKey), 3u);
    EXPECT_EQ(TakeMessages(), TTexts());
}

TEST_F(CachingUtils, ASuccessWithoutATextIsAFailure)
{
    m_platform.SucceedWithoutText();
    std::string value = "old";

    EXPECT_FALSE(TCHtCachingUtils::GetSystemInfoKeyCached(kKey, value));
    EXPECT_FALSE(TCHtCachingUtils::GetSystemInfoKeyCached(kKey, value));

    EXPECT_EQ(value, "old");
    EXPECT_EQ(m_platform.TextReads(kKey), 2u);
    EXPECT_EQ(TakeMessages(), (TTexts{kFailure[0], kFailure[0]}));
}

TEST_F(CachingUtils, ANumberAndATextOfOneKeyAreIndependent)
{
    m_platform.SetNumber(kKey, 5);
    int number = 0;
    std::string text = "old";
    ASSERT_TRUE(TCHtCachingUtils::GetSystemInfoKeyCached(kKey, number));

    EXPECT_FALSE(TCHtCachingUtils::GetSystemInfoKeyCached(kKey, text));

    m_platform.SetText(kKey, "five");

    EXPECT_TRUE(TCHtCachingUtils::GetSystemInfoKeyCached(kKey, text));
    EXPECT_EQ(text, "five");
    EXPECT_TRUE(TCHtCachingUtils::GetSystemInfoKeyCached(kKey, number));
    EXPECT_EQ(number, 5);
}

TEST_F(CachingUtils, KeysThatNoHeaderNamesAreAskedForAsTheyAre)
{
    for (const int raw : {-1, 4711, static_cast<int>(0x80000000u), 0x7fffffff}) {
        const auto key = static_cast<system_info_key_e>(raw);
        m_platform.SetNumber(key, raw);
        int value = 0;

        EXPECT_TRUE(TCHtCachingUtils::GetSystemInfoKeyCached(key, value));
        EXPECT_EQ(value, raw);
        EXPECT_EQ(m_platform.NumberReads(key), 1u);
    }
}

TEST_F(CachingUtils, AFailureIsCopiedUnderTheNameOfItsClass)
{
    int value = 0;
    kel::TCDebug::m_instance.EnableStdoutLog(true);

    const std::string output
        = StandardOutputOf([&] { TCHtCachingUtils::GetSystemInfoKeyCached(kKey, value); });
    kel::TCDebug::m_instance.EnableStdoutLog(false);

    EXPECT_EQ(output, "KEL >kel::TCHtCachingUtils:GetSystemInfoKeyCached:"
                          + std::to_string(m_log.Lines().at(0).m_line)
                          + "< Fail getting systeminfo value\n");
}

TEST_F(CachingUtils, EightThreadsThatMissOneKeyAskThePlatformOnce)
{
    m_platform.SetVconf("db/key", "value");
    m_platform.SetNumber(kKey, 5);
    m_platform.SetText(kKey, "text");
    // Whoever asks gives the others time to come to the lock.
    m_platform.OnRead([] { std::this_thread::sleep_for(std::chrono::milliseconds(20)); });
    std::atomic<size_t> right{0};

    Together(8, [&](size_t) {
        std::string value;
        int number = 0;
        std::string text;
        right += TCHtCachingUtils::GetVconfCachedString("db/key", value) && value == "value";
        right += TCHtCachingUtils::GetSystemInfoKeyCached(kKey, number) && number == 5;
        right += TCHtCachingUtils::GetSystemInfoKeyCached(kKey, text) && text == "text";
    });

    EXPECT_EQ(right, 24u);
    EXPECT_EQ(m_platform.VconfReads("db/key"), 1u);
    EXPECT_EQ(m_platform.NumberReads(kKey), 1u);
    EXPECT_EQ(m_platform.TextReads(kKey), 1u);
}

TEST_F(CachingUtils, EightThreadsThatMissAFailingKeyAskOneAfterTheOther)
{
    std::atomic<int> inside{0};
    std::atomic<int> most{0};
    m_platform.OnRead([&] {
        most = std::max<int>(most, ++inside);
        std::this_thread::yield();
        --inside;
    });
    std::atomic<size_t> failures{0};

    Together(8, [&](size_t thread) {
        const std::string key = "db/key" + std::to_string(thread % 2);
        for (int i = 0; i < 50; ++i) {
            std::string value;
            failures += !TCHtCachingUtils::GetVconfCachedString(key, value);
        }
    });

    EXPECT_EQ(failures, 400u);
    EXPECT_EQ(m_platform.VconfReads("db/key0"), 200u);
    EXPECT_EQ(m_platform.VconfReads("db/key1"), 200u);
    EXPECT_EQ(most, 1) << "one lock for all keys";
}

} // namespace
