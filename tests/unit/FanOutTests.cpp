#include "KELFanOut.h"

#include <algorithm>
#include <functional>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using kel::TCDeadline;
using kel::TCFanOut;
using kel::TGlibPtr;
using testing::Each;
using testing::ElementsAre;
using testing::Ge;
using testing::Le;

namespace {

constexpr gint64 kMillisecond = 1'000; // in microseconds
constexpr gint64 kNow = 5'000'000'000;

TEST(Deadline, IsOverWhenTheTimeOutHasPassed)
{
    const TCDeadline deadline(100, kNow);

    EXPECT_FALSE(deadline.IsOver(kNow));
    EXPECT_FALSE(deadline.IsOver(kNow + 100 * kMillisecond - 1));
    EXPECT_TRUE(deadline.IsOver(kNow + 100 * kMillisecond));
}

TEST(Deadline, IsThatOfTheDBusLibraryByDefault)
{
    const TCDeadline deadline(-1, kNow);

    EXPECT_FALSE(deadline.IsOver(kNow + 25'000 * kMillisecond - 1));
    EXPECT_TRUE(deadline.IsOver(kNow + 25'000 * kMillisecond));
    EXPECT_EQ(deadline.Left(kNow), 25'000);
}

TEST(Deadline, IsNeverOverForTheLongestTimeOut)
{
    const TCDeadline deadline(G_MAXINT, kNow);

    EXPECT_FALSE(deadline.IsOver(G_MAXINT64 - 1));
    EXPECT_EQ(deadline.Left(kNow), G_MAXINT);
    EXPECT_EQ(TCDeadline(G_MAXINT - 1, kNow).Left(kNow), G_MAXINT - 1);
}

TEST(Deadline, LeavesACallAtLeastAMillisecond)
{
    const TCDeadline deadline(100, kNow);

    EXPECT_EQ(deadline.Left(kNow + 40 * kMillisecond), 60);
    EXPECT_EQ(deadline.Left(kNow + 100 * kMillisecond), 1);
    EXPECT_EQ(deadline.Left(kNow + 900 * kMillisecond), 1);
}

/// A call that does what the test says when it is started.
struct Call
{
    static void Start(void* call, int timeout)
    {
        Call& self = *static_cast<Call*>(call);
        self.m_timeouts.push_back(timeout);
        if (self.m_onStart) {
            self.m_onStart(self);
        }
    }

    std::vector<int> m_timeouts; // of each start
    std::function<void(Call&)> m_onStart;
};

class FanOut : public testing::Test
{
protected:
    void Iterate() { g_main_context_iteration(m_context.get(), TRUE); }

    const TGlibPtr<GMainContext> m_context{g_main_context_new()};
};

TEST_F(FanOut, StartsAllCallsTogetherOnTheContextsThread)
{
    TCFanOut fanOut(m_context.get(), 700, &Call::Start);
    Call first;
    Call second;
    fanOut.Add(&first);
    fanOut.Add(&second);

    fanOut.Start();
    EXPECT_THAT(first.m_timeouts, ElementsAre());
    Iterate();

    EXPECT_THAT(first.m_timeouts, ElementsAre(700));
    EXPECT_THAT(second.m_timeouts, ElementsAre(700));
}

TEST_F(FanOut, StartsRefusedCallsInTheirOrderAsOthersEnd)
{
    TCFanOut fanOut(m_context.get(), 60'000, &Call::Start);
    Call ending;
    Call first;
    Call second;
    for (Call* const call : {&ending, &first, &second}) {
        fanOut.Add(call);
    }
    fanOut.Start();
    Iterate();
    fanOut.Refused(&first);
    fanOut.Refused(&second);

    fanOut.Ended();

    EXPECT_THAT(first.m_timeouts.size(), 2u);
    EXPECT_THAT(second.m_timeouts.size(), 1u);
    EXPECT_THAT(first.m_timeouts, Each(Le(60'000)));
    fanOut.Ended();
    EXPECT_THAT(second.m_timeouts.size(), 2u);
    fanOut.Ended();
    EXPECT_FALSE(g_main_context_pending(m_context.get()));
}

TEST_F(FanOut, LooksForRoomThatOthersMake)
{
    TCFanOut fanOut(m_context.get(), 60'000, &Call::Start);
    std::vector<Call> calls(20);
    int room = 0; // nobody has any yet
    size_t started = 0;
    for (Call& call : calls) {
        call.m_onStart = [&](Call& self) {
            if (room == 0) {
                fanOut.Refused(&self);
            } else {
                ++started;
            }
        };
        fanOut.Add(&call);
    }
    fanOut.Start();
    Iterate();
    Iterate(); // the first look finds none
    EXPECT_EQ(started, 0u);
    EXPECT_GE(calls.front().m_timeouts.size(), 2u);

    room = 1;
    while (started != calls.size()) {
        Iterate();
    }

    for (const Call& call : calls) {
        EXPECT_LE(call.m_timeouts.size(), 3u) << "nobody is favoured";
    }
    for (size_t left = calls.size(); left != 0; --left) {
        fanOut.Ended();
    }
}

TEST_F(FanOut, StartsAllThatAreLeftWhenTheTimeIsOver)
{
    TCFanOut fanOut(m_context.get(), 1000, &Call::Start); // more than it takes to start them all
    std::vector<Call> calls(20);
    size_t ended = 0;
    for (Call& call : calls) {
        call.m_onStart = [&](Call& self) {
            if (fanOut.HasTime()) {
                fanOut.Refused(&self);
            } else {
                ++ended;
            }
        };
        fanOut.Add(&call);
    }

    fanOut.Start();
    while (ended != calls.size()) {
        Iterate();
    }

    for (const Call& call : calls) {
        EXPECT_THAT(call.m_timeouts, Each(Ge(1)));
    }
    // The time may run out while one is being started, with what was left before.
    const auto late = std::count_if(calls.begin(), calls.end(),
                                    [](const Call& call) { return call.m_timeouts.back() == 1; });
    EXPECT_GE(static_cast<size_t>(late), calls.size() - 1);
}

} // namespace
