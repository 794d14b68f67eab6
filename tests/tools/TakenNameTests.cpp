// The agent's own names of requests that it has taken.

#include <gmock/gmock.h>

#include "requests/Places.h"
#include "requests/TakenName.h"

namespace kel::test {

using agent::TSTakenName;

TEST(TakenName, KeepsWhatTheRequestWasCalled)
{
    for (const std::string& name :
         {std::string("p-t-ALWAYS.log"), std::string("\xff\n-\x01-POLICY.log"),
          std::string(agent::Drop(false).NameSize(), 'p')}) {
        const TSTakenName taken = {0x123456789abcdef0, 0xfedcba987654, true, name};
        const std::string text = taken.Text();
        TSTakenName read = {};

        ASSERT_TRUE(TSTakenName::Read(text, read)) << text;
        EXPECT_LE(text.size(), 255U);
        EXPECT_EQ(text.find_first_not_of("0123456789abcdefr"), std::string::npos);
        EXPECT_EQ(read.m_filed, taken.m_filed);
        EXPECT_EQ(read.m_number, taken.m_number);
        EXPECT_TRUE(read.m_reboot);
        EXPECT_EQ(read.m_name, name);
    }
}

TEST(TakenName, OfTheOldestComesFirst)
{
    const TSTakenName old = {999, 7, true, "z"};
    const TSTakenName young = {1000, 6, false, "a"};

    EXPECT_LT(old.Text(), young.Text());
}

TEST(TakenName, IsNoneOfAnotherForm)
{
    const std::string good = TSTakenName{1, 2, false, "ab"}.Text();
    TSTakenName name = {};
    ASSERT_TRUE(TSTakenName::Read(good, name));

    for (const std::string& bad :
         {std::string(), std::string("trash"), good.substr(0, 29), good + "0", good + "0g",
          "x" + good.substr(1), good.substr(0, 28) + "x" + good.substr(29)}) {
        EXPECT_FALSE(TSTakenName::Read(bad, name)) << bad;
    }
}

} // namespace kel::test
