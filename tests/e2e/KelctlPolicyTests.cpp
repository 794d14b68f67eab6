// kelctl policy: what the library resolves on this device, and why.

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <filesystem>
#include <fstream>
#include <optional>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "e2e/AgentRoad.h"
#include "support/Mount.h"
#include "support/Sandbox.h"

namespace kel::test {

using nlohmann::json;
using testing::HasSubstr;
using testing::StartsWith;

namespace fs = std::filesystem;

namespace {

const std::string kHigh = "/opt/usr/share/dlog/yol_kel_policy_high.xml";
const std::string kVendor = "/opt/usr/share/vostek/vostek_kel_policy.xml";
const std::string kVariant = "/opt/usr/share/dlog/yol_kel_policy.xml";
const std::string kDefault = "/opt/usr/share/dlog/default_kel_policy.xml";
const std::string kStickPolicy = "vostek/vostek_kel_policy.xml";

const fs::path kStick = "/tmp/stick";
const fs::path kDebug = "/etc/debug";

void Make(const fs::path& file)
{
    fs::create_directories(file.parent_path());
    std::ofstream(file).flush();
}

} // namespace

class KelctlPolicy : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(Sandbox::IsEntered());
        fs::remove_all("/opt/usr");
        fs::remove(kDebug);
    }
    void TearDown() override
    {
        m_stick.reset();
        m_devices.reset();
        fs::remove_all("/opt/usr");
        fs::remove(kDebug);
    }

    // A mounted file system whose device seems to hang on the USB bus.
    void PlugIn()
    {
        m_stick.emplace(kStick);
        m_devices.emplace("/sys/dev/block", "mode=755");
        struct stat status;
        ASSERT_EQ(stat(kStick.c_str(), &status), 0);
        fs::create_directories("/tmp/devices/usb1/block/sda");
        fs::create_symlink("/tmp/devices/usb1/block/sda",
                           "/sys/dev/block/" + std::to_string(major(status.st_dev)) + ":"
                               + std::to_string(minor(status.st_dev)));
    }

    static std::string Output(std::vector<std::string> arguments = {})
    {
        arguments.insert(arguments.begin(), {KEL_CTL, "policy"});
        const TSFinished ended = RunProgram(arguments);
        EXPECT_EQ(ended.m_exit, 0) << Text(ended);
        EXPECT_EQ(ended.m_errorOutput, "");
        return ended.m_output;
    }

    // The candidate in use; the others must say that they are not.
    static std::string Used(const json& policy)
    {
        std::string used;
        for (const json& candidate : policy.at("candidates")) {
            if (candidate.at("used").get<bool>()) {
                EXPECT_EQ(used, "");
                used = candidate.at("path");
            }
        }
        return used;
    }

    // Whether they exist: on the stick, then by precedence.
    static std::vector<bool> Existing(const json& policy)
    {
        std::vector<bool> existing;
        for (const json& candidate : policy.at("candidates")) {
            existing.push_back(candidate.at("exists"));
        }
        return existing;
    }

    static void ExpectInUse(const std::string& path, int policyMode,
                            const std::vector<bool>& existing)
    {
        const json policy = json::parse(Output({"--json"}));
        EXPECT_EQ(policy.at("policy"), path);
        EXPECT_EQ(Used(policy), path);
        EXPECT_EQ(policy.at("policy-mode"), policyMode);
        EXPECT_EQ(policy.at("device-mode"), 0);
        EXPECT_EQ(policy.at("usb"), false);
        EXPECT_EQ(Existing(policy), existing);

        ExpectTheTextAgrees(policy);
    }

    // The text, whole, from what the JSON object says.
    static void ExpectTheTextAgrees(const json& policy)
    {
        std::string candidates;
        bool usedExists = false;
        for (const json& one : policy.at("candidates")) {
            candidates += one.at("exists") ? "  exists   " : "  missing  ";
            candidates += one.at("path").get<std::string>();
            candidates += one.at("used") ? " (in use)\n" : "\n";
            usedExists = usedExists || (one.at("used") && one.at("exists"));
        }
        const int policyMode = policy.at("policy-mode");
        const int deviceMode = policy.at("device-mode");

        EXPECT_EQ(Output(),
                  "policy: " + policy.at("policy").get<std::string>()
                      + (usedExists ? "\n" : " (missing)\n")
                      + "why: " + policy.at("why").get<std::string>() + "\npolicy mode: "
                      + (policyMode == 0 ? "0 (default)\n" : "2 (vendor's or variant's)\n")
                      + "device mode: " + (deviceMode == 0 ? "0 (normal)\n" : "3 (USB test)\n")
                      + "debug image: " + (policy.at("debug-image") ? "yes\n" : "no\n")
                      + "candidates:\n" + candidates);
    }

private:
    std::optional<Mount> m_stick;
    std::optional<Mount> m_devices;
};

TEST_F(KelctlPolicy, WithoutAnyFileTheDefaultOneIsMissing)
{
    ExpectInUse(kDefault, 0, {false, false, false, false, false});

    const std::string text = Output();
    EXPECT_THAT(text, StartsWith("policy: " + kDefault + " (missing)\n"));
    EXPECT_THAT(text, HasSubstr("why: there is no other policy\n"));
    EXPECT_THAT(text, HasSubstr("debug image: no\n"));
}

TEST_F(KelctlPolicy, TheDefaultOneAppliesWhenThereIsNoOther)
{
    Make(kDefault);

    ExpectInUse(kDefault, 0, {false, false, false, false, true});
    EXPECT_THAT(Output(), StartsWith("policy: " + kDefault + "\nwhy: there is no other policy\n"));
}

TEST_F(KelctlPolicy, AVariantComesBeforeTheDefaultOne)
{
    Make(kDefault);
    Make(kVariant);

    ExpectInUse(kVariant, 2, {false, false, false, true, true});
    EXPECT_THAT(Output(),
                HasSubstr("why: there is neither a high variant nor a vendor's policy\n"));
}

TEST_F(KelctlPolicy, TheVendorsComesBeforeAVariant)
{
    Make(kVariant);
    Make(kVendor);

    ExpectInUse(kVendor, 2, {false, false, true, true, false});
    EXPECT_THAT(Output(), HasSubstr("why: there is no high variant\n"));
}

TEST_F(KelctlPolicy, AHighVariantComesBeforeTheVendors)
{
    Make(kVariant);
    Make(kVendor);
    Make(kHigh);

    ExpectInUse(kHigh, 2, {false, true, true, true, false});
    EXPECT_THAT(Output(), HasSubstr("why: a high variant comes before the others\n"));
}

TEST_F(KelctlPolicy, AHighVariantAloneApplies)
{
    Make(kHigh);

    ExpectInUse(kHigh, 2, {false, true, false, false, false});
}

TEST_F(KelctlPolicy, OneAppliesWhicheverOthersThereAre)
{
    const std::string files[] = {kHigh, kVendor, kVariant, kDefault}; // by precedence
    for (unsigned int set = 0; set < 16; ++set) {
        SCOPED_TRACE(set);
        fs::remove_all("/opt/usr");
        std::vector<bool> existing{false}; // no USB device
        std::string first;
        for (const std::string& file : files) {
            existing.push_back((set >> (existing.size() - 1) & 1U) != 0);
            if (existing.back()) {
                Make(file);
                first = first.empty() ? file : first;
            }
        }

        ExpectInUse(first.empty() ? kDefault : first, first.empty() || first == kDefault ? 0 : 2,
                    existing);
    }
}

TEST_F(KelctlPolicy, WhatIsThereCountsWhateverItIs)
{
    fs::create_directories(kVendor);

    ExpectInUse(kVendor, 2, {false, false, true, false, false});
}

TEST_F(KelctlPolicy, OnADebugImageTheUsbDevicesComesFirst)
{
    Make(kDebug);
    Make(kHigh);
    PlugIn();
    Make(kStick / kStickPolicy);

    const json policy = json::parse(Output({"--json"}));
    EXPECT_THAT(policy.at("policy").get<std::string>(), StartsWith(kStickPolicy));
    EXPECT_EQ(Used(policy), policy.at("policy"));
    EXPECT_EQ(policy.at("usb"), true);
    EXPECT_EQ(policy.at("device-mode"), 3);
    EXPECT_EQ(policy.at("policy-mode"), 2); // the device's own files have it
    EXPECT_EQ(policy.at("debug-image"), true);
    EXPECT_EQ(Existing(policy), (std::vector<bool>{true, true, false, false, false}));

    ExpectTheTextAgrees(policy);
    const std::string text = Output();
    EXPECT_THAT(text, StartsWith("policy: " + kStickPolicy));
    EXPECT_THAT(text, HasSubstr("why: this is a debug image, and the USB device has the file\n"));
    EXPECT_THAT(text, HasSubstr("device mode: 3 (USB test)\n"));
    EXPECT_THAT(text, HasSubstr("debug image: yes\n"));
}

TEST_F(KelctlPolicy, TheUsbDevicesAppliesWithoutAnyOther)
{
    Make(kDebug);
    PlugIn();
    Make(kStick / kStickPolicy);

    const json policy = json::parse(Output({"--json"}));
    EXPECT_EQ(Used(policy), policy.at("policy"));
    EXPECT_EQ(policy.at("usb"), true);
    EXPECT_EQ(policy.at("device-mode"), 3);
    EXPECT_EQ(policy.at("policy-mode"), 0);
    EXPECT_EQ(Existing(policy), (std::vector<bool>{true, false, false, false, false}));
    ExpectTheTextAgrees(policy);
}

TEST_F(KelctlPolicy, AUsbDeviceWithoutThePolicyChangesNothing)
{
    Make(kDebug);
    Make(kVendor);
    PlugIn();

    ExpectInUse(kVendor, 2, {false, false, true, false, false});
    EXPECT_EQ(json::parse(Output({"--json"})).at("debug-image"), true);
}

TEST_F(KelctlPolicy, OnAnotherImageAUsbDeviceIsNotLookedAt)
{
    Make(kDefault);
    PlugIn();
    Make(kStick / kStickPolicy);

    ExpectInUse(kDefault, 0, {false, false, false, false, true});
    EXPECT_EQ(json::parse(Output({"--json"})).at("debug-image"), false);
}

TEST_F(KelctlPolicy, TheCandidatesAreToldByPrecedence)
{
    const json policy = json::parse(Output({"--json"}));
    std::vector<std::string> paths;
    for (const json& candidate : policy.at("candidates")) {
        paths.push_back(candidate.at("path"));
    }

    EXPECT_THAT(paths,
                testing::ElementsAre(StartsWith(kStickPolicy), kHigh, kVendor, kVariant, kDefault));
}

TEST_F(KelctlPolicy, WrongUsageAndAFullOutputAreToldInOneLine)
{
    for (const char* const argument : {"operand", "--count"}) {
        const TSFinished ended = RunProgram({KEL_CTL, "policy", argument});

        EXPECT_EQ(ended.m_exit, 2) << Text(ended);
        EXPECT_TRUE(IsOneLine(ended.m_errorOutput, "kelctl: ")) << Text(ended);
    }
    const TSFinished full = RunProgram({"sh", "-c", "exec '" KEL_CTL "' policy >/dev/full"});

    EXPECT_EQ(full.m_exit, 5) << Text(full);
    EXPECT_TRUE(IsOneLine(full.m_errorOutput, "kelctl: the output cannot be written: "))
        << Text(full);
}

} // namespace kel::test
