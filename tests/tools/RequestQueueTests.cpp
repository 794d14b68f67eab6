// Whose turn it is.

#include <gmock/gmock.h>

#include "requests/RequestQueue.h"

namespace kel::test {

using agent::TCRequestQueue;
using testing::ElementsAre;
using EAnswer = TCRequestQueue::EAnswer;

namespace {

std::vector<std::string> ReadyOnes(TCRequestQueue& queue, size_t most)
{
    std::vector<std::string> ready;
    queue.AskInTurns(most, [&](const std::string& name, TCRequestQueue::TSEntry&) {
        ready.push_back(name);
        return EAnswer::Ready;
    });
    return ready;
}

} // namespace

TEST(RequestQueue, ServesUsersInTurnsAndEachOnesOldestFirst)
{
    TCRequestQueue queue;
    for (const char* const name : {"1c", "1a", "1b", "1d"}) {
        queue.Add(1, name);
    }
    queue.Add(2, "2b");
    queue.Add(2, "2a");
    queue.Add(3, "3a");

    EXPECT_THAT(ReadyOnes(queue, 5), ElementsAre("1a", "2a", "3a", "1b", "2b"));

    queue.Remove("1a");
    EXPECT_THAT(ReadyOnes(queue, 3), ElementsAre("2a", "3a", "1b"));
    queue.Remove("3a");
    EXPECT_THAT(ReadyOnes(queue, 9), ElementsAre("1b", "2a", "1c", "2b", "1d"));
}

TEST(RequestQueue, WhoIsNotReadyHoldsNobodyUp)
{
    TCRequestQueue queue;
    queue.Add(1, "1a");
    queue.Add(1, "1b");
    queue.Add(2, "2a");
    std::vector<std::string> ready;

    queue.AskInTurns(9, [&](const std::string& name, TCRequestQueue::TSEntry&) {
        if (name == "1a") {
            return EAnswer::NotYet;
        }
        if (name == "2a") {
            return EAnswer::Gone;
        }
        ready.push_back(name);
        return EAnswer::Ready;
    });

    EXPECT_THAT(ready, ElementsAre("1b"));
    EXPECT_THAT(ReadyOnes(queue, 9), ElementsAre("1a", "1b"));
    EXPECT_EQ(queue.Size(), 2U);
}

TEST(RequestQueue, HasRoomForSoManyOfAUserAndForEveryOtherUser)
{
    TCRequestQueue queue;
    for (size_t user = 1; queue.Size() < TCRequestQueue::kMostOfAll; ++user) {
        for (size_t i = 0; i < TCRequestQueue::kMostOfAUser; ++i) {
            EXPECT_TRUE(queue.HasRoom(user)) << user << " " << i;
            queue.Add(user, std::to_string(user) + "." + std::to_string(i));
        }
        EXPECT_FALSE(queue.HasRoom(user));
    }

    EXPECT_TRUE(queue.HasRoom(0)) << "whose share is as large as anybody's";
}

TEST(RequestQueue, LooksAgainAtAWriterUntilItIsOver)
{
    TCRequestQueue queue;
    queue.Add(1, "1a");
    EXPECT_EQ(queue.NextWriter(), TCRequestQueue::TClock::time_point::max());
    const auto next = TCRequestQueue::TClock::now();

    queue.AskInTurns(1, [&](const std::string& name, TCRequestQueue::TSEntry& entry) {
        EXPECT_TRUE(queue.HasRoomForAWriter(name));
        queue.SetWriter(name, entry, {next, next, std::chrono::milliseconds(1), {}});
        return EAnswer::NotYet;
    });
    EXPECT_EQ(queue.NextWriter(), next);

    queue.AskInTurns(1, [&](const std::string&, TCRequestQueue::TSEntry& entry) {
        entry.m_writer->m_isOver = true;
        return EAnswer::Ready;
    });
    EXPECT_EQ(queue.NextWriter(), TCRequestQueue::TClock::time_point::max());
}

} // namespace kel::test
