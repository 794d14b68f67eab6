#include "e2e/KelctlTest.h"

#include <fstream>
#include <sstream>

#include <nlohmann/json.hpp>

namespace kel::test {

namespace fs = std::filesystem;
using nlohmann::json;

const fs::path KelctlTest::kState = "/tmp/the state";
const fs::path KelctlTest::kReports = kState / "reports";
const fs::path KelctlTest::kDrop = "/tmp/kel_NDF";
const fs::path KelctlTest::kRebootDrop = "/tmp/kel_NDF_reboot";
const fs::path KelctlTest::kStore = "/tmp/store";
const fs::path KelctlTest::kTools = "/tmp/tools";
const fs::path KelctlTest::kDebugImage = "/etc/debug";
const fs::path KelctlTest::kSnapshot = "/tmp/Device_Tracker.log";

KelctlTest::KelctlTest()
{
    m_Clear();
    for (const fs::path& directory : {kState, kDrop, kRebootDrop, kStore, kTools}) {
        fs::create_directory(directory);
    }
    SetDmesg("exec cat /tmp/kernel-log");
    SetKernelLog("");
}

KelctlTest::~KelctlTest() { m_Clear(); }

void KelctlTest::m_Clear()
{
    for (const fs::path& path :
         {kState, kDrop, kRebootDrop, kStore, kTools, kDebugImage, kSnapshot, fs::path("/opt/usr"),
          fs::path("/tmp/running"), fs::path("/tmp/go"), fs::path("/tmp/pipe")}) {
        fs::remove_all(path);
    }
}

TSFinished KelctlTest::Run(const TWords& arguments, const ChildProcess::TEnvironment& changes)
{
    TWords command{KEL_CTL};
    command.insert(command.end(), arguments.begin(), arguments.end());
    ChildProcess::TEnvironment environment = changes;
    environment.emplace("KEL_HOST_VCONF_DIR", kStore);
    return RunProgram(command, environment);
}

TSFinished KelctlTest::RunAsPlainUser(const TWords& arguments)
{
    TWords command{"setpriv", "--bounding-set=-all", "--inh-caps=-all", "--", KEL_CTL};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return RunProgram(command);
}

std::string KelctlTest::Output(const TWords& arguments)
{
    const TSFinished ended = Run(arguments);
    EXPECT_EQ(ended.m_exit, 0) << Text(ended);
    EXPECT_EQ(ended.m_errorOutput, "");
    return ended.m_output;
}

TSFinished KelctlTest::RunInShell(const std::string& line)
{
    return RunProgram({"bash", "-c", line}, Environment());
}

ChildProcess::TEnvironment KelctlTest::Environment()
{
    return {{"PATH", kTools.string() + ":/usr/bin:/bin"}, {"KEL_HOST_VCONF_DIR", kStore}};
}

void KelctlTest::SetDmesg(const std::string& script)
{
    std::ofstream("/tmp/dmesg.new") << "#!/bin/sh\n" << script << "\n";
    fs::permissions("/tmp/dmesg.new", fs::perms::owner_all);
    fs::rename("/tmp/dmesg.new", kTools / "dmesg");
}

void KelctlTest::SetKernelLog(const std::string& text)
{
    std::ofstream("/tmp/kernel-log.new") << text;
    fs::rename("/tmp/kernel-log.new", "/tmp/kernel-log");
}

// Out of the idle class, in which nothing runs on a machine that is busy with tests.
TSFinished KelctlTest::Klog() { return RunProgram({KEL_NOT_IDLE, KEL_CTL, "klog"}, Environment()); }

std::unique_ptr<ChildProcess> KelctlTest::FollowKlog()
{
    return std::make_unique<ChildProcess>(TWords{KEL_NOT_IDLE, KEL_CTL, "klog", "--follow"},
                                          Environment());
}

TSFinished KelctlTest::Reports(const TWords& arguments)
{
    TWords all{"reports", "--state-dir", kState};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return Run(all);
}

void KelctlTest::WriteText(const std::string& name, const std::string& text)
{
    fs::create_directories(kReports / name);
    std::ofstream(kReports / name / "report.json") << text;
}

void KelctlTest::WriteReport(const std::string& name, const json& report)
{
    WriteText(name, report.dump(2));
}

json WholeReport(int id, const std::string& process)
{
    return {
        {"id", id},
        {"time", "2026-11-21T09:30:00.250Z"},
        {"request",
         {{"source", "/tmp/kel_NDF"},
          {"name", process + "-decoder-ONCE_ONLY.log"},
          {"process", process},
          {"thread", "decoder"},
          {"mode", "ONCE_ONLY"},
          {"reboot", true},
          {"cut", false},
          {"upload-path", "/var/log/x.log"},
          {"user", 1000},
          {"filed", "2026-11-21T09:30:00.100Z"}}},
        {"artefact", {{"file", "artefact"}, {"bytes", 1234}}},
        {"applications", {{"handled", 2}, {"failed", 0}}},
        {"kernel-log", {{"file", "kernel.log"}, {"lines", 12}}},
        {"policy", {{"path", "/opt/p.xml"}, {"policy-mode", 0}, {"device-mode", 3}}},
        {"system", {{"machine", "arm"}, {"cores", 2}}},
    };
}

TWords Directories(const json& reports)
{
    TWords directories;
    for (const json& report : reports) {
        directories.push_back(report.at("directory"));
    }
    return directories;
}

TWords Lines(const std::string& text)
{
    TWords lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

} // namespace kel::test
