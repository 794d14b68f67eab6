// Work that may take long.

#include <chrono>
#include <future>

#include <gmock/gmock.h>

#include "reports/LateResult.h"

namespace kel::test {

using agent::TCLateResult;
using namespace std::chrono_literals;

TEST(LateResult, IsKeptUntilItIsTakenWhateverBeginsMeanwhile)
{
    TCLateResult<int> late;
    std::promise<void> go;
    late.Begin([&go] {
        go.get_future().wait();
        return 1;
    });
    EXPECT_EQ(late.Take(0s), std::nullopt);
    late.Begin([] { return 2; }); // not twice at once
    EXPECT_FALSE(late.WaitForEnd(std::chrono::steady_clock::now()));

    go.set_value();
    ASSERT_TRUE(late.WaitForEnd(std::chrono::steady_clock::now() + 60s));
    late.Begin([] { return 3; }); // nor in the place of what nobody has taken

    EXPECT_EQ(late.Take(0s), 1);
    EXPECT_EQ(late.Take(0s), std::nullopt);
    late.Begin([] { return 4; });
    EXPECT_EQ(late.Take(60s), 4);
}

TEST(LateResult, IsThereWhenItIsTold)
{
    TCLateResult<int> late;
    std::promise<void> told;

    late.Begin([] { return 1; }, [&] { told.set_value(); });
    told.get_future().wait();

    EXPECT_EQ(late.Take(0s), 1);
    EXPECT_TRUE(late.IsTaken());
}

TEST(LateResult, ThatIsDroppedIsWaitedFor)
{
    TCLateResult<int> late;
    std::promise<void> go;
    bool done = false;
    late.Begin([&] {
        go.get_future().wait();
        return done = true;
    });
    EXPECT_FALSE(late.IsTaken());

    go.set_value();
    late.Drop();

    EXPECT_TRUE(done);
    EXPECT_TRUE(late.IsTaken());
    EXPECT_EQ(late.Take(0s), std::nullopt);
}

} // namespace kel::test
