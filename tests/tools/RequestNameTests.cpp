// How the agent reads the names of requests.

#include <gmock/gmock.h>

#include "requests/Request.h"

namespace kel::test {

using agent::ReadFileName;
using agent::ReadSlotValue;
using agent::TSRequest;

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

} // namespace kel::test
