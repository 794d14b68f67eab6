// kelctl policy: what the library resolves on this device, and why.

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
        const json policy = json::parse(Output({"policy", "--json"}));
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
        EXPECT_EQ(Output({"policy"}),
                  "policy: " + used + (usedExists ? "\n" : " (missing)\n")
                      + "why: " + policy.at("why").get<std::string>() + "\npolicy mode: "
                      + (policyMode == 0 ? "0 (default)\n" : "2 (vendor's or variant's)\n")
                      + "device mode: " + (deviceMode == 0 ? "0 (normal)\n" : "3 (USB test)\n")
                      + "debug image: " + (policy.at("debug-image") ? "yes\n" : "no\n")
                      + "candidates:\n" + candidates);
        return policy;
    }
};

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
