// The parts of the agent that collect reports, without the channel.

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include <gmock/gmock.h>

#include "reports/ReportStore.h"
#include "requests/Request.h"
#include "support/PrivateBus.h"

namespace kel::test {

using agent::ReadFileName;
using agent::ReadSlotValue;
using agent::TCReportDraft;
using agent::TCReportStore;
using agent::TSRequest;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace {

constexpr size_t kCutSize = 113;

struct TSName
{
    const char* m_name;
    const char* m_process;
    const char* m_thread;
    const char* m_mode;
};

} // namespace

TEST(RequestName, HasProcessThreadAndMode)
{
    const TSName names[] = {
        {"proc-main-ONCE_ONLY.log", "proc", "main", "ONCE_ONLY"},
        {"proc-main-ALWAYS.log", "proc", "main", "ALWAYS"},
        {"proc-main-OQC_ALWAYS.log", "proc", "main", "OQC_ALWAYS"},
        {"proc-main-POLICY.log", "proc", "main", "POLICY"},
        {"dbus-daemon-main-POLICY.log", "dbus-daemon", "main", "POLICY"},
        {"dbus-daemon-dbus-daemon-POLICY.log", "dbus-daemon", "dbus-daemon", "POLICY"},
        {"main-POLICY-POLICY.log", "main", "POLICY", "POLICY"},
        {"a b-\n-ALWAYS.log", "a b", "\n", "ALWAYS"},
        {"--ALWAYS.log", "", "", "ALWAYS"},
        {"..-..-ALWAYS.log", "..", "..", "ALWAYS"},
        {".taken", nullptr, nullptr, nullptr},
        {"", nullptr, nullptr, nullptr},
        {"main-ALWAYS.log", nullptr, nullptr, nullptr},
        {"proc-main-always.log", nullptr, nullptr, nullptr},
        {"proc-main-XALWAYS.log", nullptr, nullptr, nullptr},
        {"proc-main-ALWAYS.lo", nullptr, nullptr, nullptr},
        {"proc-main-ALWAYS", nullptr, nullptr, nullptr},
        {"proc-main.log", nullptr, nullptr, nullptr},
    };
    for (const TSName& name : names) {
        TSRequest request;

        const bool understood = ReadFileName(name.m_name, kCutSize, request);

        EXPECT_EQ(understood, name.m_process != nullptr) << name.m_name;
        if (understood && name.m_process != nullptr) {
            EXPECT_EQ(request.m_process, name.m_process) << name.m_name;
            EXPECT_EQ(request.m_thread, name.m_thread) << name.m_name;
            EXPECT_EQ(request.m_mode, name.m_mode) << name.m_name;
            EXPECT_FALSE(request.m_cut) << name.m_name;
        }
    }
}

TEST(RequestName, NeedsNoModeWhenItHasTheSizeAtWhichNamesAreCut)
{
    TSRequest request;
    const std::string process(kCutSize - 5, 'p');

    ASSERT_TRUE(ReadFileName(process + "-main", kCutSize, request));
    EXPECT_EQ(request.m_process, process);
    EXPECT_EQ(request.m_thread, "main");
    EXPECT_EQ(request.m_mode, std::nullopt);
    EXPECT_TRUE(request.m_cut);

    TSRequest whole;
    ASSERT_TRUE(ReadFileName(std::string(kCutSize - 13, 'p') + "-t-ALWAYS.log", kCutSize, whole));
    EXPECT_EQ(whole.m_mode, "ALWAYS") << "one that just fits is not a cut one";
    EXPECT_FALSE(whole.m_cut);

    TSRequest none;
    ASSERT_TRUE(ReadFileName(std::string(kCutSize, 'p'), kCutSize, none));
    EXPECT_EQ(none.m_process, std::string(kCutSize, 'p'));
    EXPECT_EQ(none.m_thread, "");

    EXPECT_FALSE(ReadFileName(std::string(kCutSize - 1, 'p'), kCutSize, request));
    EXPECT_FALSE(ReadFileName(std::string(kCutSize + 1, 'p'), kCutSize, request));
}

TEST(RequestValue, HasProcessThreadAndReboot)
{
    struct
    {
        const char* m_value;
        const char* m_process;
        const char* m_thread;
        bool m_reboot;
    } const values[] = {
        {"proc|main|0", "proc", "main", false},
        {"proc|main|1", "proc", "main", true},
        {"proc|main|-7", "proc", "main", true},
        {"a|b|a|b|0", "a|b", "a|b", false},
        {"a|b|c|0", "a|b", "c", false},
        {"||0", "", "", false},
        {"proc|main|", nullptr, nullptr, false},
        {"proc|main|-", nullptr, nullptr, false},
        {"proc|main|1x", nullptr, nullptr, false},
        {"proc|main", nullptr, nullptr, false},
        {"main|1", nullptr, nullptr, false},
        {"1", nullptr, nullptr, false},
    };
    for (const auto& value : values) {
        TSRequest request;

        const bool understood = ReadSlotValue(value.m_value, request);

        EXPECT_EQ(understood, value.m_process != nullptr) << value.m_value;
        if (understood && value.m_process != nullptr) {
            EXPECT_EQ(request.m_process, value.m_process) << value.m_value;
            EXPECT_EQ(request.m_thread, value.m_thread) << value.m_value;
            EXPECT_EQ(request.m_reboot, value.m_reboot) << value.m_value;
            EXPECT_EQ(request.m_mode, std::nullopt) << value.m_value;
        }
    }
}

TEST(RequestValue, NeedsNoRebootWhenItHasTheSizeAtWhichValuesAreCut)
{
    TSRequest request;

    ASSERT_TRUE(ReadSlotValue("proc|" + std::string(506, 't'), request));

    EXPECT_EQ(request.m_process, "proc");
    EXPECT_EQ(request.m_thread, std::string(506, 't'));
    EXPECT_EQ(request.m_reboot, std::nullopt);
    EXPECT_TRUE(request.m_cut);
}

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
