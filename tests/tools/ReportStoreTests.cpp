// The directory of reports, without an agent around it.

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include <gmock/gmock.h>

#include "reports/ReportStore.h"
#include "support/PrivateBus.h"

namespace kel::test {

using agent::TCReportDraft;
using agent::TCReportStore;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

class ReportStore : public testing::Test
{
protected:
    ReportStore() : m_state(MakeDirectory()) {}
    ~ReportStore() override { std::filesystem::remove_all(m_state); }

    // A report with a file of so many bytes.
    bool Add(TCReportStore& store, size_t size)
    {
        TCReportDraft draft(store);
        return draft.Begin(m_reason) && draft.Write("file", std::string(size, 'x'), m_reason)
               && draft.Finish(size, m_reason);
    }

    std::vector<std::string> Names() const
    {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(m_state + "/reports")) {
            names.push_back(entry.path().filename());
        }
        return names;
    }

    const std::string m_state;
    std::string m_reason;
};

TEST_F(ReportStore, NumbersReportsAndGoesOnWhereTheLastOneStopped)
{
    {
        TCReportStore store(m_state, {10, 1000});
        ASSERT_TRUE(store.Open(m_reason)) << m_reason;
        EXPECT_EQ(store.Newest(), "");
        EXPECT_TRUE(Add(store, 1));
        EXPECT_TRUE(Add(store, 1));
    }
    TCReportStore store(m_state, {10, 1000});
    ASSERT_TRUE(store.Open(m_reason)) << m_reason;
    EXPECT_TRUE(Add(store, 1));

    EXPECT_THAT(Names(), UnorderedElementsAre("0000000001", "0000000002", "0000000003"));
    EXPECT_EQ(store.Newest(), m_state + "/reports/0000000003");
    struct stat status = {};
    ASSERT_EQ(stat((store.Newest() + "/file").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
    ASSERT_EQ(stat(store.Newest().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0700U);
}

TEST_F(ReportStore, ADraftThatIsNotFinishedLeavesNothing)
{
    TCReportStore store(m_state, {10, 1000});
    ASSERT_TRUE(store.Open(m_reason)) << m_reason;
    {
        TCReportDraft draft(store);
        ASSERT_TRUE(draft.Begin(m_reason)) << m_reason;
        ASSERT_TRUE(draft.Write("file", "text", m_reason)) << m_reason;
        EXPECT_THAT(Names(), ElementsAre(".new-0000000001"));
    }
    EXPECT_THAT(Names(), IsEmpty());
}

TEST_F(ReportStore, WhatAKilledAgentHasLeftIsRemovedAndWhatIsNoReportStays)
{
    for (const char* const name : {".new-0000000007", ".old-0000000003", "0000000004", "notes"}) {
        std::filesystem::create_directories(m_state + "/reports/" + name);
        std::ofstream(m_state + "/reports/" + name + "/file") << "text";
    }
    TCReportStore store(m_state, {1, 1000});

    ASSERT_TRUE(store.Open(m_reason)) << m_reason;
    EXPECT_THAT(Names(), UnorderedElementsAre("0000000004", "notes"));

    EXPECT_TRUE(Add(store, 1));
    EXPECT_THAT(Names(), UnorderedElementsAre("0000000005", "notes"));
}

TEST_F(ReportStore, TheOldestGiveWayToANewOne)
{
    TCReportStore store(m_state, {3, 1000});
    ASSERT_TRUE(store.Open(m_reason)) << m_reason;
    for (int i = 0; i < 4; ++i) {
        EXPECT_TRUE(Add(store, 100));
    }
    EXPECT_THAT(Names(), UnorderedElementsAre("0000000002", "0000000003", "0000000004"));

    EXPECT_TRUE(Add(store, 850));
    EXPECT_THAT(Names(), UnorderedElementsAre("0000000004", "0000000005"));

    EXPECT_TRUE(Add(store, 50));
    EXPECT_THAT(Names(), UnorderedElementsAre("0000000004", "0000000005", "0000000006"))
        << "1000 bytes are not more than 1000";
}

TEST_F(ReportStore, SmallerLimitsHoldFromTheStartOn)
{
    {
        TCReportStore store(m_state, {10, 1000});
        ASSERT_TRUE(store.Open(m_reason)) << m_reason;
        for (int i = 0; i < 5; ++i) {
            EXPECT_TRUE(Add(store, 100));
        }
    }
    TCReportStore store(m_state, {10, 250});

    ASSERT_TRUE(store.Open(m_reason)) << m_reason;

    EXPECT_THAT(Names(), UnorderedElementsAre("0000000004", "0000000005"));
}

TEST_F(ReportStore, OneAgentAtATimeHasIt)
{
    TCReportStore other(m_state, {10, 1000});
    {
        TCReportStore store(m_state, {10, 1000});
        ASSERT_TRUE(store.Open(m_reason)) << m_reason;

        EXPECT_FALSE(other.Open(m_reason));
        EXPECT_EQ(m_reason, m_state + "/reports: another agent uses it");
    }
    EXPECT_TRUE(other.Open(m_reason));
}

TEST_F(ReportStore, IsMadeAnewWhereItWasRemoved)
{
    TCReportStore store(m_state, {10, 1000});
    ASSERT_TRUE(store.Open(m_reason)) << m_reason;
    EXPECT_TRUE(Add(store, 1));
    std::filesystem::remove_all(m_state);

    EXPECT_FALSE(store.Open(m_reason)) << "the state directory is not the agent's to make";
    EXPECT_THAT(m_reason, HasSubstr("No such file or directory"));
    EXPECT_FALSE(Add(store, 1));

    std::filesystem::create_directory(m_state);
    ASSERT_TRUE(store.Open(m_reason)) << m_reason;
    EXPECT_TRUE(Add(store, 1));
    EXPECT_THAT(Names(), ElementsAre("0000000001"));
}

} // namespace kel::test
