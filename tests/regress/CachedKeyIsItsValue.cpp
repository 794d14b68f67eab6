// A cached look-up that got one string as key and value kept the value under itself.

#include <gtest/gtest.h>

#include <kel/KELCachingUtils.h>

#include "support/FakePlatform.h"

TEST(CachedLookup, OneStringMayBeKeyAndValue)
{
    kel::test::FakePlatform platform;
    platform.SetVconf("db/key", "db/value");
    platform.SetVconf("db/value", "another");
    std::string text = "db/key";

    EXPECT_TRUE(kel::TCHtCachingUtils::GetVconfCachedString(text, text));

    EXPECT_EQ(text, "db/value");
    EXPECT_TRUE(kel::TCHtCachingUtils::GetVconfCachedString(text, text));
    EXPECT_EQ(text, "another");
    text = "db/key";
    EXPECT_TRUE(kel::TCHtCachingUtils::GetVconfCachedString(text, text));
    EXPECT_EQ(text, "db/value");
    EXPECT_EQ(platform.VconfReads("db/key"), 1u);
    text = "db/missing";
    EXPECT_FALSE(kel::TCHtCachingUtils::GetVconfCachedString(text, text));
    EXPECT_EQ(text, "db/missing");
}
