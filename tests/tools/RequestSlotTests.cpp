// How often the key is looked at.

#include <gtest/gtest.h>

#include "requests/RequestSlot.h"

namespace kel::test {

using agent::TCRequestSlot;
using namespace std::chrono_literals;

TEST(RequestSlot, IsLookedAtLessOftenWhenItWasNotUsedForAnHour)
{
    EXPECT_EQ(TCRequestSlot::PauseAfter(0s), 1s);
    EXPECT_EQ(TCRequestSlot::PauseAfter(1h - 1s), 1s);
    EXPECT_EQ(TCRequestSlot::PauseAfter(1h), 5s);
    EXPECT_EQ(TCRequestSlot::PauseAfter(1000h), 5s);
}

} // namespace kel::test
