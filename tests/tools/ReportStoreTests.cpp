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
using agent::TOwner;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::UnorderedElementsAre;

class ReportStore : public testing::Test
{
protected:
    ReportStore() : m_state(MakeDirectory()) {}
    ~ReportStore() override { std::filesystem::remove_all(m_state); }

    // A report of a user, with a file of so many bytes.
    static bool Add(TCReportStore& store, size_t size, const TOwner& owner = 0)
    {
        TCReportDraft draft(store, owner);
        return draft.Begin() && draft.Write("file", std::string(size, 'x')) && draft.Finish(size);
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
};

TEST_F(ReportStore, NumbersReportsAndGoesOnWhereTheLastOneStopped)
{
    {
        TCReportStore store(m_state, {10, 1000});
        ASSERT_TRUE(store.Open());
        EXPECT_TRUE(Add(store, 1));
        EXPECT_TRUE(Add(store, 1));
    }
    TCReportStore store(m_state, {10, 1000});
    ASSERT_TRUE(store.Open());
    EXPECT_TRUE(Add(store, 1));

    EXPECT_THAT(Names(), UnorderedElementsAre("0000000001", "0000000002", "0000000003"));
    const std::string newest = m_state + "/reports/0000000003";
    struct stat status = {};
    ASSERT_EQ(stat((newest + "/file").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
    ASSERT_EQ(stat(newest.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0700U);
}

TEST_F(ReportStore, ADraftThatIsNotFinishedLeavesNothing)
{
    TCReportStore store(m_state, {10, 1000});
    ASSERT_TRUE(store.Open());
    {
        TCReportDraft draft(store, 0);
        ASSERT_TRUE(draft.Begin());
        ASSERT_TRUE(draft.Write("file", "text"));
        EXPECT_THAT(Names(), ElementsAre(".new-1"));
        EXPECT_TRUE(store.Open()) << "another one is made meanwhile";
        EXPECT_TRUE(Add(store, 1));
        EXPECT_THAT(Names(), UnorderedElementsAre(".new-1", "0000000001"));
        EXPECT_EQ(draft.Id(), 2U);
    }
    EXPECT_THAT(Names(), ElementsAre("0000000001"));
}

TEST_F(ReportStore, WhatAKilledAgentHasLeftIsRemovedAndWhatIsNoReportStays)
{
    for (const char* const name : {".new-0000000007", ".old-0000000003", "0000000004", "notes"}) {
        std::filesystem::create_directories(m_state + "/reports/" + name);
        std::ofstream(m_state + "/reports/" + name + "/file") << "text";
    }
    TCReportStore store(m_state, {1, 1000});

    ASSERT_TRUE(store.Open());
    EXPECT_THAT(Names(), UnorderedElementsAre("0000000004", "notes"));

    EXPECT_TRUE(Add(store, 1));
    EXPECT_THAT(Names(), UnorderedElementsAre("0000000005", "notes"));
}

TEST_F(ReportStore, TheOldestGiveWayToANewOne)
{
    TCReportStore store(m_state, {3, 1000});
    ASSERT_TRUE(store.Open());
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
        ASSERT_TRUE(store.Open());
        for (int i = 0; i < 5; ++i) {
            EXPECT_TRUE(Add(store, 100));
        }
    }
    TCReportStore store(m_state, {10, 250});

    ASSERT_TRUE(store.Open());

    EXPECT_THAT(Names(), UnorderedElementsAre("0000000004", "0000000005"));
}

TEST_F(ReportStore, TellsWhomTheNewestIsOfAsFarAsItsTextDoes)
{
    constexpr const char* texts[] = {
        R"({"request": {"user": 7, "stamp": "a stamp"}})",
        R"({"request": {"user": -7, "stamp": 7}})",
        R"({"request": {"user": 4294967296}})",
        R"({"request": []})",
        "[1]",
        "no JSON",
    };
    TCReportStore store(m_state, {10, 1 << 20});
    ASSERT_TRUE(store.Open());
    EXPECT_EQ(store.Newest().m_stamp, "");

    for (const char* const text : texts) {
        TCReportDraft draft(store, 7);
        ASSERT_TRUE(draft.Begin() && draft.Write("report.json", text) && draft.Finish(1));

        const agent::TSOrigin origin = store.Newest();
        EXPECT_EQ(origin.m_stamp, text == texts[0] ? "a stamp" : "") << text;
        EXPECT_EQ(origin.m_user, text == texts[0] ? TOwner(7) : std::nullopt) << text;
    }
}

TEST_F(ReportStore, KnowsWhoseReportsAnEarlierAgentHasMadeAndHowMuchTheyHaveWritten)
{
    for (const char* const name : {"0000000001", "0000000002", "0000000003"}) {
        const std::string report = m_state + "/reports/" + name;
        std::filesystem::create_directories(report);
        std::ofstream(report + "/report.json")
            << R"({"request": {"user": )" << (name[9] == '1' ? "1000" : "2000") << "}}";
        std::ofstream(report + "/artefact").flush();
        std::filesystem::resize_file(report + "/artefact", 1 << 20); // a hole
    }
    TCReportStore store(m_state, {3, 100000});

    ASSERT_TRUE(store.Open());
    EXPECT_TRUE(Add(store, 1, 3000));

    EXPECT_THAT(Names(), UnorderedElementsAre("0000000001", "0000000003", "0000000004"))
        << "nothing is dropped for holes, and of two users that with two gives one";
}

TEST_F(ReportStore, OneAgentAtATimeHasIt)
{
    TCReportStore other(m_state, {10, 1000});
    {
        TCReportStore store(m_state, {10, 1000});
        ASSERT_TRUE(store.Open());

        EXPECT_EQ(other.Open().Reason(), m_state + "/reports: another agent uses it");
    }
    EXPECT_TRUE(other.Open());
}

TEST_F(ReportStore, IsMadeAnewWhereItWasRemoved)
{
    TCReportStore store(m_state, {10, 1000});
    ASSERT_TRUE(store.Open());
    EXPECT_TRUE(Add(store, 1));
    std::filesystem::remove_all(m_state);

    EXPECT_THAT(store.Open().Reason(), HasSubstr("No such file or directory"))
        << "the state directory is not the agent's to make";
    EXPECT_FALSE(Add(store, 1));

    std::filesystem::create_directory(m_state);
    ASSERT_TRUE(store.Open());
    EXPECT_TRUE(Add(store, 1));
    EXPECT_THAT(Names(), ElementsAre("0000000001"));
}

} // namespace kel::test
