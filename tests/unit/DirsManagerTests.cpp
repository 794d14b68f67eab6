#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kel/KELDebug.h>
#include <kel/KELDirsManager.h>

#include "Messages.h"
#include "StandardOutput.h"
#include "support/ChildProcess.h"
#include "support/FakePlatform.h"
#include "support/LogRecorder.h"
#include "support/Sandbox.h"

namespace {

namespace fs = std::filesystem;
using kel::TCDirsManager;

const std::string kHigh = "/opt/usr/share/dlog/yol_kel_policy_high.xml";
const std::string kVendor = "/opt/usr/share/vostek/vostek_kel_policy.xml";
const std::string kVariant = "/opt/usr/share/dlog/yol_kel_policy.xml";
const std::string kDefault = "/opt/usr/share/dlog/default_kel_policy.xml";
const std::string kVendorMissing
    = "3 Policy /opt/usr/share/vostek/vostek_kel_policy.xml does not exist";
const std::string kNotDebug = "6 This image is not debug!";

const fs::path kStick = "/tmp/stick";
const std::string kStickPolicy = "/tmp/stick/vostek/vostek_kel_policy.xml";

typedef std::vector<std::string> TTexts;

// Before any test has set it.
const std::string pathAtLoad = TCDirsManager::m_policyXmlPath;
const int modesAtLoad[] = {TCDirsManager::PolicyMode, TCDirsManager::KELMode};

void MakeFile(const fs::path& path)
{
    fs::create_directories(path.parent_path());
    std::ofstream stream(path);
}

// The fields of the library's own, as before its first call.
class DirsManager : public kel::test::SandboxTest
{
protected:
    void SetUp() override
    {
        m_Clear();
        TCDirsManager::KELMode = 0;
        TCDirsManager::PolicyMode = 0;
        TCDirsManager::m_policyXmlPath = kDefault;
    }
    void TearDown() override { m_Clear(); }

    void MakeDebugImage() { MakeFile("/etc/debug"); }

    void PlugIn(const std::string& mountPath) { m_platform.Usb().m_mountPaths = {mountPath}; }

    TTexts TakeMessages() { return ::TakeMessages(m_log); }

    kel::test::FakePlatform m_platform;
    kel::test::LogRecorder m_log;

private:
    static void m_Clear()
    {
        fs::remove_all("/opt/usr/share/dlog");
        fs::remove_all("/opt/usr/share/vostek");
        fs::remove_all("/etc/debug");
        fs::remove_all(kStick);
    }
};

TEST_F(DirsManager, StartsWithTheDefaultPolicyInNormalMode)
{
    EXPECT_EQ(pathAtLoad, kDefault);
    EXPECT_THAT(modesAtLoad, testing::Each(0));
    EXPECT_EQ(TCDirsManager::GetPolicyMode(), 0);
    EXPECT_EQ(TCDirsManager::GetKELMode(), 0);
    EXPECT_EQ(TakeMessages(), TTexts()) << "a getter of a mode resolves nothing";
}

struct TSPolicyRow
{
    bool m_high;
    bool m_vendor;
    bool m_variant;
    std::string m_path;
    int m_mode;
};

const TSPolicyRow kPolicyRows[] = {
    {false, false, false, kDefault, 0}, {false, false, true, kVariant, 2},
    {false, true, false, kVendor, 2},   {false, true, true, kVendor, 2},
    {true, false, false, kHigh, 2},     {true, false, true, kHigh, 2},
    {true, true, false, kHigh, 2},      {true, true, true, kHigh, 2},
};

TEST_F(DirsManager, RanksThePolicyFilesAndSaysWhenTheVendorsIsMissing)
{
    for (const TSPolicyRow& row : kPolicyRows) {
        SetUp();
        const std::pair<bool, std::string> files[]
            = {{row.m_high, kHigh}, {row.m_vendor, kVendor}, {row.m_variant, kVariant}};
        for (const auto& [present, path] : files) {
            if (present) {
                MakeFile(path);
            }
        }
        SCOPED_TRACE(testing::Message() << row.m_high << row.m_vendor << row.m_variant);

        // When all three are missing, ...
        TCDirsManager::Initialize();
        TTexts expected = {"3 KELMode: 0, policyXmlPath: " + row.m_path, kNotDebug,
                           "3 KELMode: 0, policy xml path: " + row.m_path};
        if (row.m_mode == 0) {
            expected.insert(expected.begin(), kVendorMissing);
        }
        EXPECT_EQ(TakeMessages(), expected);
        EXPECT_EQ(TCDirsManager::GetPolicyMode(), row.m_mode);
        EXPECT_EQ(TCDirsManager::m_policyXmlPath, row.m_path);

        // ... and whenever it is.
        TCDirsManager::PolicyMode = 7;
        EXPECT_EQ(TCDirsManager::GetPolicyXmlPath(), row.m_path);
        expected
            = {"3 PolicyMode: " + std::to_string(row.m_mode) + ", policy xml path: " + row.m_path};
        if (!row.m_vendor) {
            expected.insert(expected.begin(), kVendorMissing);
        }
        EXPECT_EQ(TakeMessages(), expected);
        EXPECT_EQ(TCDirsManager::GetPolicyMode(), row.m_mode);
    }
    EXPECT_EQ(m_platform.UsbCalls(), TTexts());
}

TEST_F(DirsManager, EveryLineNamesItsPlaceInBothCopies)
{
    kel::TCDebug::m_instance.EnableStdoutLog(true);
    const std::string output = StandardOutputOf([] {
        TCDirsManager::Initialize();
        TCDirsManager::GetPolicyXmlPath();
    });
    kel::TCDebug::m_instance.EnableStdoutLog(false);

    std::string copies;
    TTexts functions;
    for (const kel::test::TSLogLine& line : m_log.Lines()) {
        EXPECT_EQ(line.m_buffer, 2);
        EXPECT_EQ(line.m_tag, "KEL");
        EXPECT_EQ(line.m_source, "KELDirsManager");
        functions.push_back(line.m_function);
        copies += "KEL >kel::TCDirsManager:" + line.m_function + ":" + std::to_string(line.m_line)
                  + "< " + line.m_message + "\n";
    }
    EXPECT_EQ(functions, (TTexts{"Initialize", "Initialize", "Initialize", "Initialize",
                                 "getPolicyPath", "getPolicyPath"}));
    EXPECT_EQ(output, copies);
}

TEST_F(DirsManager, WhateverHasThePolicyFilesNameCountsButALinkToNowhere)
{
    fs::create_directories(fs::path(kVariant).parent_path());
    fs::create_symlink("/nonexistent", kVariant);
    EXPECT_EQ(TCDirsManager::GetPolicyXmlPath(), kDefault);

    fs::remove(kVariant);
    fs::create_directory(kVariant);
    EXPECT_EQ(TCDirsManager::GetPolicyXmlPath(), kVariant);
    EXPECT_EQ(TCDirsManager::GetPolicyMode(), 2);

    fs::remove(kVariant);
    EXPECT_EQ(TCDirsManager::GetPolicyXmlPath(), kDefault);
    EXPECT_EQ(TCDirsManager::GetPolicyMode(), 0) << "the mode goes with the file";
}

TEST_F(DirsManager, WithoutTheMarkerTheUsbServiceIsNotCalledAndTheModeIsNormal)
{
    MakeFile(kStickPolicy);
    PlugIn(kStick);
    TCDirsManager::KELMode = 3;

    TCDirsManager::Initialize();

    EXPECT_EQ(TakeMessages(), (TTexts{kVendorMissing, "3 KELMode: 3, policyXmlPath: " + kDefault,
                                      kNotDebug, "3 KELMode: 0, policy xml path: " + kDefault}));
    EXPECT_EQ(TCDirsManager::GetKELMode(), 0);
    EXPECT_EQ(m_platform.UsbCalls(), TTexts());
}

TEST_F(DirsManager, DirectoriesWillDoAsTheMarkerAndAsTheSticksPolicyFile)
{
    fs::create_directory("/etc/debug");
    fs::create_directories(kStickPolicy);
    PlugIn(kStick);

    TCDirsManager::Initialize();

    EXPECT_EQ(TCDirsManager::GetKELMode(), 3);
}

TEST_F(DirsManager, AStickWithAPolicyFileStartsUsbTestMode)
{
    MakeDebugImage();
    MakeFile(kVendor);
    MakeFile(kStickPolicy);
    PlugIn(kStick);
    m_platform.Usb().m_initResult = -1; // not looked at

    TCDirsManager::Initialize();

    EXPECT_EQ(TakeMessages(), (TTexts{"3 KELMode: 0, policyXmlPath: " + kVendor, "3 USB test mode!",
                                      "3 KELMode: 3, policy xml path: " + kStickPolicy}));
    EXPECT_EQ(TCDirsManager::GetKELMode(), 3);
    EXPECT_EQ(TCDirsManager::GetPolicyMode(), 2);
    EXPECT_EQ(TCDirsManager::m_policyXmlPath, kStickPolicy);
    EXPECT_EQ(m_platform.UsbCalls(),
              (TTexts{"init", "list 8", "count", "first", "mountpath", "fini"}));

    // Asking for the path gives up the stick's, and keeps the mode.
    EXPECT_EQ(TCDirsManager::GetPolicyXmlPath(), kVendor);
    EXPECT_EQ(TCDirsManager::m_policyXmlPath, kVendor);
    EXPECT_EQ(TCDirsManager::GetKELMode(), 3);
}

TEST_F(DirsManager, AStickWithoutAPolicyFileLeavesThePathAndEndsUsbTestMode)
{
    MakeDebugImage();
    MakeFile(kVendor);
    fs::create_directories(kStick / "vostek");
    PlugIn(kStick);
    TCDirsManager::KELMode = 3;

    TCDirsManager::Initialize();

    EXPECT_EQ(TakeMessages(), (TTexts{"3 KELMode: 3, policyXmlPath: " + kVendor,
                                      "3 USB test Policy file is not detected!",
                                      "3 KELMode: 0, policy xml path: " + kVendor}));
    EXPECT_EQ(TCDirsManager::GetKELMode(), 0);
    EXPECT_EQ(m_platform.UsbCalls(),
              (TTexts{"init", "list 8", "count", "first", "mountpath", "fini"}));
}

TEST_F(DirsManager, OnlyTheFirstStickIsLookedAt)
{
    MakeDebugImage();
    MakeFile(kStickPolicy);
    m_platform.Usb().m_mountPaths = {"/tmp/other", kStick.string()};

    TCDirsManager::Initialize();

    EXPECT_TRUE(m_log.Has(3, "USB test Policy file is not detected!"));
    EXPECT_EQ(TCDirsManager::GetKELMode(), 0);
    EXPECT_EQ(m_platform.UsbCalls(),
              (TTexts{"init", "list 8", "count", "first", "mountpath", "fini"}));
}

TEST_F(DirsManager, AMountPathMayEndInASlashOrBeRelative)
{
    MakeDebugImage();
    MakeFile(kStickPolicy);
    PlugIn("/tmp/stick/");

    TCDirsManager::Initialize();

    EXPECT_EQ(TCDirsManager::m_policyXmlPath, kStickPolicy);

    const fs::path before = fs::current_path();
    fs::current_path("/tmp");
    PlugIn("stick");
    TCDirsManager::Initialize();
    fs::current_path(before);

    EXPECT_EQ(TCDirsManager::m_policyXmlPath, "stick/vostek/vostek_kel_policy.xml");
    EXPECT_EQ(TCDirsManager::GetKELMode(), 3);
}

// The file is there, but below this process's own directory, which no stick is mounted on.
TEST_F(DirsManager, ADeviceThatIsNotMountedHasNoPolicyFile)
{
    MakeDebugImage();
    MakeFile(kStickPolicy);
    const fs::path before = fs::current_path();
    fs::current_path(kStick);

    for (const auto& mountPath : {std::optional<std::string>(), std::optional<std::string>("")}) {
        m_platform.Usb().m_mountPaths = {mountPath};
        TCDirsManager::KELMode = 3;
        TCDirsManager::Initialize();

        EXPECT_TRUE(m_log.Has(3, "USB test Policy file is not detected!"));
        EXPECT_EQ(TCDirsManager::GetKELMode(), 0);
        EXPECT_EQ(TCDirsManager::m_policyXmlPath, kDefault);
        EXPECT_EQ(m_platform.UsbCalls().back(), "fini");
        m_log.Clear();
    }
    fs::current_path(before);
}

struct TSFailure
{
    std::string m_message;
    kel::test::FakePlatform::TSUsb m_usb;
    TTexts m_calls;
};

TEST_F(DirsManager, AUsbServiceThatFailsLeavesTheModeAsItWas)
{
    MakeDebugImage();
    MakeFile(kStickPolicy);
    const std::vector<std::optional<std::string>> one = {kStick.string()};
    const TSFailure failures[] = {
        {"6 Cant get usb device list! Default dirs will be returned!",
         {0, -1, std::nullopt, 0, one},
         {"init", "list 8", "fini"}},
        {"6 Cant get usb device list! Default dirs will be returned!",
         {0, 1, std::nullopt, 0, one},
         {"init", "list 8", "fini"}},
        {"6 No usb devices! Default dirs will be returned!",
         {0, 0, 0, 0, one},
         {"init", "list 8", "count", "fini"}},
        {"6 No usb devices! Default dirs will be returned!",
         {0, 0, -1, 0, one},
         {"init", "list 8", "count", "fini"}},
        {"6 Cant get first usb device! Default dirs will be returned!",
         {0, 0, 1, -1, one},
         {"init", "list 8", "count", "first", "fini"}},
        {"6 Cant get first usb device! Default dirs will be returned!",
         {0, 0, 1, 2, one},
         {"init", "list 8", "count", "first", "fini"}},
    };
    for (const int mode : {0, 3}) {
        for (const TSFailure& failure : failures) {
            const size_t callsBefore = m_platform.UsbCalls().size();
            m_platform.Usb() = failure.m_usb;
            TCDirsManager::KELMode = mode;

            TCDirsManager::Initialize();

            const std::string shown = "3 KELMode: " + std::to_string(mode);
            EXPECT_EQ(TakeMessages(),
                      (TTexts{kVendorMissing, shown + ", policyXmlPath: " + kDefault,
                              failure.m_message, shown + ", policy xml path: " + kDefault}));
            EXPECT_EQ(TCDirsManager::GetKELMode(), mode);
            const TTexts calls = m_platform.UsbCalls();
            EXPECT_EQ(TTexts(calls.begin() + static_cast<ptrdiff_t>(callsBefore), calls.end()),
                      failure.m_calls);
        }
    }
}

TEST_F(DirsManager, ASecondInitializeResolvesEverythingAgain)
{
    MakeDebugImage();
    MakeFile(kStickPolicy);
    PlugIn(kStick);
    TCDirsManager::Initialize();
    ASSERT_EQ(TCDirsManager::GetKELMode(), 3);

    m_platform.Usb().m_mountPaths.clear();
    MakeFile(kHigh);
    TCDirsManager::Initialize();

    EXPECT_EQ(TCDirsManager::GetKELMode(), 3) << "nobody looked at a stick";
    EXPECT_EQ(TCDirsManager::GetPolicyMode(), 2);
    EXPECT_EQ(TCDirsManager::m_policyXmlPath, kHigh);

    fs::remove("/etc/debug");
    TCDirsManager::Initialize();

    EXPECT_EQ(TCDirsManager::GetKELMode(), 0);
}

TEST_F(DirsManager, WithoutAUsbServiceTheLibraryLoadsAndTheListCannotBeHad)
{
    MakeDebugImage();

    const kel::test::TSFinished child
        = kel::test::RunProgram({KEL_NO_USB_CHILD}, {{"LD_LIBRARY_PATH", KEL_NO_USB_DIR}});

    EXPECT_EQ(child.m_exit, 0) << child.m_errorOutput;
    EXPECT_EQ(child.m_output, kVendorMissing + "\n3 KELMode: 0, policyXmlPath: " + kDefault
                                  + "\n6 Cant get usb device list! Default dirs will be returned!\n"
                                  + "3 KELMode: 0, policy xml path: " + kDefault + "\n");
}

TEST_F(DirsManager, GettersSeeWholeValuesWhileInitializeRuns)
{
    MakeDebugImage();
    MakeFile(kVendor);
    MakeFile(kStickPolicy);
    std::atomic<bool> stop{false};
    std::atomic<size_t> torn{0};
    std::vector<std::thread> readers;
    for (int i = 0; i < 4; ++i) {
        readers.emplace_back([&] {
            while (!stop) {
                const std::string path = TCDirsManager::GetPolicyXmlPath();
                const int mode = TCDirsManager::GetKELMode();
                const int policy = TCDirsManager::GetPolicyMode();
                if ((path != kVendor && path != kStickPolicy) || (mode != 0 && mode != 3)
                    || (policy != 0 && policy != 2)) {
                    ++torn;
                }
            }
        });
    }

    for (int i = 0; i < 300; ++i) {
        m_platform.Usb().m_mountPaths = {i % 2 == 0 ? kStick.string() : "/tmp/other"};
        TCDirsManager::Initialize();
    }
    stop = true;
    for (std::thread& reader : readers) {
        reader.join();
    }

    EXPECT_EQ(torn, 0u);
}

} // namespace
