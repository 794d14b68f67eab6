#include <algorithm>
#include <set>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kel/KELBufferProperties.h>

namespace {

using kel::TSBufferProperties;

TSBufferProperties Make(unsigned int bufferId, short secondaryId)
{
    TSBufferProperties record;
    record.Init();
    record.SetBufferId(bufferId);
    record.SetSecondaryId(secondaryId);
    return record;
}

bool IsBefore(TSBufferProperties a, TSBufferProperties b) { return TSBufferProperties()(&a, &b); }

TEST(BufferProperties, BeginAliveTransientAndZero)
{
    TSBufferProperties record = Make(7, 8);
    record.SetDestroyed(true);
    record.SetPersistent(true);

    record.Init();

    EXPECT_FALSE(record.IsDestroyed());
    EXPECT_FALSE(record.IsPersistent());
    EXPECT_EQ(record.GetBufferId(), 0u);
    EXPECT_EQ(record.GetSecondaryId(), 0);
}

TEST(BufferProperties, KeepWhatIsSetAndLiveNoneTheMoreForAnIdentifierThatIsGiven)
{
    TSBufferProperties record = Make(7, -32768);
    EXPECT_FALSE(record.IsDestroyed());
    record.SetPersistent(true);
    EXPECT_TRUE(record.IsPersistent());
    record.SetDestroyed(true);
    record.SetPersistent(false);
    record.SetBufferId(4294967295u);

    EXPECT_TRUE(record.IsDestroyed());
    EXPECT_FALSE(record.IsPersistent());
    EXPECT_EQ(record.GetBufferId(), 4294967295u);
    EXPECT_EQ(record.GetSecondaryId(), -32768);
}

TEST(BufferProperties, AreAliveAgainWithTheNextIdentifierOfACounter)
{
    unsigned int volatile counter = 41;
    TSBufferProperties record = Make(7, 8);
    record.SetDestroyed(true);
    record.SetPersistent(true);

    record.SetBufferId(&counter);

    EXPECT_EQ(record.GetBufferId(), 42u);
    EXPECT_EQ(counter, 42u);
    EXPECT_FALSE(record.IsDestroyed());
    EXPECT_TRUE(record.IsPersistent());
    EXPECT_EQ(record.GetSecondaryId(), 8);
}

TEST(BufferProperties, DrawIdentifiersFromOneAndWrapAroundToZero)
{
    unsigned int volatile counter = 0;
    TSBufferProperties record = Make(0, 0);
    record.SetBufferId(&counter);
    EXPECT_EQ(record.GetBufferId(), 1u);

    counter = 4294967295u;
    record.SetBufferId(&counter);
    EXPECT_EQ(record.GetBufferId(), 0u);
    EXPECT_EQ(counter, 0u);
}

TEST(BufferProperties, DrawDistinctIdentifiersInEveryThread)
{
    constexpr size_t kThreads = 8;
    constexpr size_t kDraws = 100000;
    unsigned int volatile counter = 0;
    std::vector<unsigned int> drawn(kThreads * kDraws);

    std::vector<std::thread> threads;
    for (size_t i = 0; i < kThreads; ++i) {
        threads.emplace_back([&counter, first = drawn.begin() + static_cast<long>(i * kDraws)] {
            TSBufferProperties record = Make(0, 0);
            std::generate_n(first, kDraws, [&] {
                record.SetBufferId(&counter);
                return record.GetBufferId();
            });
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }

    std::sort(drawn.begin(), drawn.end());
    EXPECT_EQ(std::adjacent_find(drawn.begin(), drawn.end()), drawn.end());
    EXPECT_EQ(drawn.front(), 1u);
    EXPECT_EQ(drawn.back(), kThreads * kDraws);
    EXPECT_EQ(counter, kThreads * kDraws);
}

TEST(BufferProperties, AreOrderedByBufferAndThenBySecondaryIdentifier)
{
    EXPECT_TRUE(IsBefore(Make(7, -1), Make(7, 0)));
    EXPECT_FALSE(IsBefore(Make(7, 0), Make(7, -1)));
    EXPECT_TRUE(IsBefore(Make(1, 5), Make(4294967295u, -5)));
    EXPECT_FALSE(IsBefore(Make(4294967295u, -5), Make(1, 5)));

    // The flags take no part in it.
    TSBufferProperties destroyed = Make(7, 1);
    destroyed.SetDestroyed(true);
    destroyed.SetPersistent(true);
    EXPECT_FALSE(IsBefore(destroyed, Make(7, 1)));
    EXPECT_FALSE(IsBefore(Make(7, 1), destroyed));
}

TEST(BufferProperties, OrderASetOfPointersThemselves)
{
    TSBufferProperties records[]
        = {Make(4294967295u, 0), Make(7, 0), Make(1, 0), Make(7, -1), Make(7, 0)};
    std::set<TSBufferProperties*, TSBufferProperties> sorted;
    for (TSBufferProperties& record : records) {
        sorted.insert(&record);
    }

    EXPECT_THAT(sorted, testing::ElementsAre(&records[2], &records[3], &records[1], &records[0]));
}

} // namespace
