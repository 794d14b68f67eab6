// Whose report gives way to a new one.

#include <gmock/gmock.h>

#include "reports/Shares.h"

namespace kel::test {

using agent::TCShares;
using agent::TOwner;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr uid_t kAlice = 1;
constexpr uid_t kBob = 2;
constexpr uid_t kCarol = 3;
constexpr TOwner kNobody = std::nullopt;

typedef std::vector<uint64_t> TIds;

// Adds a report, and tells which others gave way to it.
TIds Add(TCShares& shares, const TOwner& owner, uint64_t bytes = 1)
{
    const TCShares::TSNew added = {owner, bytes};
    TIds gone;
    while (const auto id = shares.NextToGo(added)) {
        gone.push_back(*id);
        shares.Remove(*id);
    }
    shares.Add(shares.NewestId() + 1, owner, bytes);
    return gone;
}

} // namespace

TEST(Shares, OfOneUserTheOldestGiveWay)
{
    TCShares shares({3, 100});

    EXPECT_THAT(Add(shares, kAlice), IsEmpty());
    EXPECT_THAT(Add(shares, kAlice), IsEmpty());
    EXPECT_THAT(Add(shares, kAlice), IsEmpty());
    EXPECT_THAT(Add(shares, kAlice), ElementsAre(1));
    EXPECT_THAT(Add(shares, kAlice, 99), ElementsAre(2, 3));
    EXPECT_THAT(Add(shares, kAlice, 100), ElementsAre(4, 5));
}

TEST(Shares, OfWhomHoldsMostTheOldestGivesWay)
{
    TCShares shares({4, 100});
    Add(shares, kBob);
    for (int i = 0; i < 3; ++i) {
        Add(shares, kAlice); // 2, 3, 4
    }

    EXPECT_THAT(Add(shares, kBob), ElementsAre(2));
    EXPECT_THAT(Add(shares, kBob), ElementsAre(1)) << "Bob would hold three, and Alice two";
    EXPECT_THAT(Add(shares, kCarol), ElementsAre(3)) << "the oldest of two who hold as many";
    EXPECT_THAT(Add(shares, kCarol), ElementsAre(7)) << "Bob holds as many, and does not ask";
}

TEST(Shares, OfManyRequestsOnlyTheRequestersOwnGiveWay)
{
    TCShares shares({10, 100000});
    for (int i = 0; i < 3; ++i) {
        Add(shares, kAlice); // 1, 2, 3
        Add(shares, kNobody);
    }

    for (int i = 0; i < 1000; ++i) {
        for (const uint64_t gone : Add(shares, kBob)) {
            EXPECT_GT(gone, 6U);
        }
    }
    EXPECT_EQ(shares.Ids().size(), 10U);
}

TEST(Shares, ANewcomerHasAPlaceAmongThoseWhoHoldOneEach)
{
    TCShares shares({2, 100});
    Add(shares, kAlice);
    Add(shares, kBob);

    EXPECT_THAT(Add(shares, kCarol), ElementsAre(1));
    EXPECT_THAT(Add(shares, kCarol), ElementsAre(3)) << "Bob's stays";
}

TEST(Shares, OfBytesTheLargestHolderGivesNotWhoeverHasMoreReports)
{
    TCShares shares({100, 100});
    for (int i = 0; i < 5; ++i) {
        Add(shares, kBob, 2); // 1 to 5
    }
    Add(shares, kAlice, 40);
    Add(shares, kAlice, 40);

    EXPECT_THAT(Add(shares, kBob, 20), ElementsAre(6));
    EXPECT_THAT(Add(shares, kAlice, 60), ElementsAre(7)) << "Alice's own";
}

TEST(Shares, RoomIsWhatOthersHoldTooMuchOf)
{
    TCShares shares({100, 100});
    EXPECT_EQ(shares.RoomFor(kAlice), 100U);
    Add(shares, kAlice, 90);
    EXPECT_EQ(shares.RoomFor(kAlice), 100U) << "one's own can be given up";
    EXPECT_EQ(shares.RoomFor(kBob), 50U);
    Add(shares, kBob, 10);
    EXPECT_EQ(shares.RoomFor(kBob), 50U);
    EXPECT_EQ(shares.RoomFor(kAlice), 90U);
    EXPECT_EQ(shares.RoomFor(kCarol), 45U) << "Bob's ten stay, and the rest is halved";
}

TEST(Shares, WhatHasRoomIsAtTheExpenseOfNobodyWhoHoldsLess)
{
    for (uint64_t seed = 1; seed < 200; ++seed) {
        TCShares shares({100, 1000});
        for (uint64_t i = 0; i < 30; ++i) {
            Add(shares, static_cast<uid_t>((seed * i) % 5), (seed * 7919 * (i + 1)) % 97);
        }
        const uint64_t room = shares.RoomFor(kAlice);
        const auto holdings = shares.m_holdings;

        for (const uint64_t gone : Add(shares, kAlice, room)) {
            for (const auto& [holder, holding] : holdings) {
                if (holder != TOwner(kAlice) && holding.m_reports.count(gone) != 0) {
                    EXPECT_GT(holding.m_bytes, room);
                }
            }
        }
        EXPECT_LE(shares.m_bytes, 1000U);
    }
}

// A report without its artefact is small, and there always is one.
TEST(Shares, WhatHasToFitDoesAlsoBesideThoseWhoHoldLess)
{
    TCShares shares({100, 10});
    Add(shares, kAlice, 4);
    Add(shares, kBob, 4);

    EXPECT_THAT(Add(shares, kCarol, 5), ElementsAre(1));
}

TEST(Shares, OfReportsThatAreThereSmallerLimitsDropTheSame)
{
    TCShares shares({2, 100});
    shares.Add(1, kAlice, 1);
    shares.Add(2, kBob, 1);
    shares.Add(3, kBob, 1);
    shares.Add(4, kBob, 1);

    EXPECT_EQ(shares.NextToGo(std::nullopt), 2U);
    shares.Remove(2);
    EXPECT_EQ(shares.NextToGo(std::nullopt), 3U);
    shares.Remove(3);
    EXPECT_EQ(shares.NextToGo(std::nullopt), std::nullopt);
    shares.Remove(3);
    EXPECT_EQ(shares.NewestId(), 4U);
}

} // namespace kel::test
