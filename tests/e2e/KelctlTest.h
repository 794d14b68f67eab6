#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "e2e/AgentRoad.h"

namespace kel::test {

typedef std::vector<std::string> TWords;

/// What kelctl finds on a device without a bus: the agent's directory of state, the drop
/// directories, the key-value store and the kernel log, all empty and gone with the fixture.
class KelctlTest : public SandboxTest
{
protected:
    KelctlTest();
    ~KelctlTest() override;

    /// Runs kelctl to its end.
    static TSFinished Run(const TWords& arguments, const ChildProcess::TEnvironment& changes = {});

    /// The same, without what lets the superuser read and write everywhere.
    static TSFinished RunAsPlainUser(const TWords& arguments);

    /// The output of one that succeeds.
    static std::string Output(const TWords& arguments);

    /// Runs a shell's command line to its end.
    static TSFinished RunInShell(const std::string& line);

    static ChildProcess::TEnvironment Environment();

    /// At once: a dmesg that runs is the old one or the new one.
    static void SetDmesg(const std::string& script);
    static void SetKernelLog(const std::string& text);

    static TSFinished Klog();
    static std::unique_ptr<ChildProcess> FollowKlog();

    static TSFinished Reports(const TWords& arguments = {});

    /// A report of this name in the directory of state.
    static void WriteText(const std::string& name, const std::string& text);
    static void WriteReport(const std::string& name, const nlohmann::json& report);

    static const std::filesystem::path kState;
    static const std::filesystem::path kReports;
    static const std::filesystem::path kDrop;
    static const std::filesystem::path kRebootDrop;
    static const std::filesystem::path kStore;
    static const std::filesystem::path kTools;
    static const std::filesystem::path kDebugImage;
    static const std::filesystem::path kSnapshot; // of the kernel log

private:
    static void m_Clear();
};

/// What the agent writes.
nlohmann::json WholeReport(int id, const std::string& process = "player");

/// The directories that "kelctl reports --json" tells of.
TWords Directories(const nlohmann::json& reports);

/// The lines of a text, without their ends.
TWords Lines(const std::string& text);

} // namespace kel::test
