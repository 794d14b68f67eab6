// kelctl policy: what the library resolves on this device, and why.

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <fstream>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "e2e/KelctlTest.h"
#include "support/Mount.h"

namespace kel::test {

using nlohmann::json;
using testing::StartsWith;

namespace fs = std::filesystem;

namespace {

const std::string kHigh = "/opt/usr/share/dlog/yol_kel_policy_high.xml";
const std::string kVendor = "/opt/usr/share/vostek/vostek_kel_policy.xml";
const std::string kVariant = "/opt/usr/share/dlog/yol_kel_policy.xml";
const std::string kDefault = "/opt/usr/share/dlog/default_kel_policy.xml";
const std::string kStickPolicy = "vostek/vostek_kel_policy.xml";

void Make(const fs::path& file)
{
    fs::create_directories(file.parent_path());
    std::ofstream(file).flush();
}

} // namespace

class KelctlPolicy : public KelctlTest
{
protected:
    // What it tells as JSON; the text must tell the same.
    static json Policy()
    {
        const json policy = json::parse(Output({"policy", "--state-dir", kState, "--json"}));
        std::string candidates;
        std::string used;
        bool usedExists = false;
        for (const json& one : policy.at("candidates")) {
            candidates += one.at("exists") ? "  exists   " : "  missing  ";
            candidates += one.at("path").get<std::string>();
            candidates += one.at("used") ? " (in use)\n" : "\n";
            const fs::path path = one.at("path").get<std::string>();
            EXPECT_TRUE(path.is_relative() || one.at("exists") == fs::exists(path)) << path;
            if (one.at("used")) {
                EXPECT_EQ(used, "") << "one is in use";
                used = one.at("path");
                usedExists = one.at("exists");
            }
        }
        EXPECT_EQ(policy.at("policy"), used);
        const int policyMode = policy.at("policy-mode");
        const int deviceMode = policy.at("device-mode");
        EXPECT_EQ(Output({"policy", "--state-dir", kState}),
                  "policy: " + used + (usedExists ? "\n" : " (missing)\n")
                      + "why: " + policy.at("why").get<std::string>() + "\npolicy mode: "
                      + (policyMode == 0 ? "0 (default)\n" : "2 (vendor's or variant's)\n")
                      + "device mode: " + (deviceMode == 0 ? "0 (normal)\n" : "3 (USB test)\n")
                      + "debug image: " + (policy.at("debug-image") ? "yes\n" : "no\n")
                      + "candidates:\n" + candidates + "agent's policy: none has been set\n");
        return policy;
    }
};

TEST_F(KelctlPolicy, ShowsTheAgentsOwnBesideIt)
{
    const fs::path file = kState / "policy.xml";
    const std::string text = "<policy>\033[2J\xff</policy>\n";
    std::ofstream(file) << text;
    const timespec time[2] = {{1795340000, 250'000'000}, {1795340000, 250'000'000}};
    ASSERT_EQ(utimensat(AT_FDCWD, file.c_str(), time, 0), 0);

    const json policy
        = json::parse(Output({"policy", "--json", "--state-dir", kState})).at("agent-policy");
    const std::string words = Output({"policy", "--state-dir", kState});
    const std::string printed = Output({"policy", "--print", "--state-dir", kState});
    // A terminal is not steered.
    const TSFinished seen = RunProgram({"/usr/bin/python3", "-c",
                                        "import pty, sys; pty.spawn(['" KEL_CTL
                                        "', 'policy', '--print', '--state-dir', sys.argv[1]])",
                                        kState});

    EXPECT_EQ(policy, json({{"path", file},
                            {"state", "stored"},
                            {"bytes", text.size()},
                            {"since", "2026-11-22T09:33:20.250Z"}}));
    EXPECT_THAT(words, testing::EndsWith("\nagent's policy: /tmp/the state/policy.xml, "
                                         + std::to_string(text.size())
                                         + " bytes, stored 2026-11-22T09:33:20.250Z\n"));
    EXPECT_EQ(printed, text);
    EXPECT_EQ(seen.m_output, "<policy>\\x1b[2J\\xff</policy>\r\n") << Text(seen);
}

TEST_F(KelctlPolicy, TellsWhenTheAgentHasNoneOrItCannotBeRead)
{
    const TSFinished none = Run({"policy", "--print", "--state-dir", kState});
    fs::create_directory(kState / "policy.xml");
    const TSFinished directory = Run({"policy", "--print", "--state-dir", kState});
    fs::remove(kState / "policy.xml");
    fs::create_symlink("/etc/passwd", kState / "policy.xml");
    const TSFinished link = Run({"policy", "--print", "--state-dir", kState});
    const json unreadable
        = json::parse(Output({"policy", "--json", "--state-dir", kState})).at("agent-policy");

    for (const TSFinished& ended : {none, directory, link}) {
        EXPECT_EQ(ended.m_exit, 1) << Text(ended);
        EXPECT_EQ(ended.m_output, "");
    }
    EXPECT_EQ(none.m_errorOutput, "kelctl: the agent's policy: none has been set\n");
    EXPECT_EQ(directory.m_errorOutput,
              "kelctl: the agent's policy: /tmp/the state/policy.xml cannot "
              "be read: it is no file that the agent has written\n");
    EXPECT_TRUE(IsOneLine(link.m_errorOutput,
                          "kelctl: the agent's policy: /tmp/the state/policy.xml "
                          "cannot be read: "));
    EXPECT_EQ(unreadable.at("state"), "unreadable");
    EXPECT_NE(unreadable.at("reason"), "");
}

// Which one applies is the library's to say; the reasons are kelctl's own.
TEST_F(KelctlPolicy, TellsWhichAppliesAndWhy)
{
    const struct
    {
        std::string m_path;
        int m_mode;
        std::string m_why;
    } rows[] = {
        {kDefault, 0, "there is no other policy"},
        {kVariant, 2, "there is neither a high variant nor a vendor's policy"},
        {kVendor, 2, "there is no high variant"},
        {kHigh, 2, "a high variant comes before the others"},
    };
    json policy = Policy();
    EXPECT_EQ(policy.at("policy"), kDefault) << "though it is missing";

    for (const auto& row : rows) {
        Make(row.m_path);
        policy = Policy();

        EXPECT_EQ(policy.at("policy"), row.m_path);
        EXPECT_EQ(policy.at("why"), row.m_why);
        EXPECT_EQ(policy.at("policy-mode"), row.m_mode);
        EXPECT_EQ(policy.at("device-mode"), 0);
        EXPECT_EQ(policy.at("usb"), false);
        EXPECT_EQ(policy.at("debug-image"), false);
    }
    TWords paths;
    for (const json& candidate : policy.at("candidates")) {
        paths.push_back(candidate.at("path"));
    }
    EXPECT_THAT(paths,
                testing::ElementsAre(StartsWith(kStickPolicy), kHigh, kVendor, kVariant, kDefault));
}

TEST_F(KelctlPolicy, OnADebugImageTheUsbDevicesComesFirst)
{
    // A mounted file system whose device seems to hang on the USB bus.
    const fs::path stick = "/tmp/stick";
    const Mount mounted(stick);
    const Mount devices("/sys/dev/block", "mode=755");
    struct stat status;
    ASSERT_EQ(stat(stick.c_str(), &status), 0);
    fs::create_directories("/tmp/devices/usb1/block/sda");
    fs::create_symlink("/tmp/devices/usb1/block/sda",
                       "/sys/dev/block/" + std::to_string(major(status.st_dev)) + ":"
                           + std::to_string(minor(status.st_dev)));
    Make(stick / kStickPolicy);
    Make(kHigh);

    EXPECT_EQ(Policy().at("policy"), kHigh) << "this is no debug image";
    Make(kDebugImage);

    const json policy = Policy();
    EXPECT_THAT(policy.at("policy").get<std::string>(), StartsWith(kStickPolicy));
    EXPECT_EQ(policy.at("why"), "this is a debug image, and the USB device has the file");
    EXPECT_EQ(policy.at("usb"), true);
    EXPECT_EQ(policy.at("device-mode"), 3);
    EXPECT_EQ(policy.at("policy-mode"), 2); // the device's own files have it
    EXPECT_EQ(policy.at("debug-image"), true);
}

} // namespace kel::test
