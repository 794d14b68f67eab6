#include "e2e/ReportRoad.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <thread>

#include <nlohmann/json.hpp>

#include "requests/TakenName.h"

namespace kel::test {

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

// Where the host's key-value store of the superuser keeps "memory/kel/ndf_one".
const fs::path kStore = "/run/kel-vconf";
const fs::path kSlotFile = kStore / "memory/kel/ndf_one";

bool IsHidden(const std::string& name) { return name[0] == '.'; }

void ExpectMode(const fs::path& path, mode_t mode) { EXPECT_EQ(ModeOf(path), mode) << path; }

// The files are those that report.json tells of, with the sizes that it tells.
void ExpectWhole(const TSReport& report)
{
    TNames files = {"report.json"};
    if (report["/artefact/file"] == "artefact") {
        files.emplace_back("artefact");
        std::error_code error;
        EXPECT_EQ(std::to_string(fs::file_size(report.m_directory / "artefact", error)),
                  report["/artefact/bytes"])
            << report.m_directory;
    }
    if (report["/kernel-log/file"] == "kernel.log") {
        files.emplace_back("kernel.log");
        const std::string log = ReadFile(report.m_directory / "kernel.log");
        EXPECT_EQ(std::to_string(std::count(log.begin(), log.end(), '\n')),
                  report["/kernel-log/lines"])
            << report.m_directory;
    }
    std::sort(files.begin(), files.end());
    EXPECT_EQ(NamesIn(report.m_directory), files) << report.m_directory;
    EXPECT_EQ(std::to_string(std::stoull(report.m_directory.filename())), report["/id"]);

    ExpectMode(report.m_directory, 0700);
    for (const std::string& file : files) {
        ExpectMode(report.m_directory / file, 0600);
    }
}

// Nothing when the agent has dropped it meanwhile.
std::optional<TSReport> ReadReport(const fs::path& directory)
{
    const std::string text = ReadFile(directory / "report.json");
    if (text.empty() && !fs::exists(directory)) {
        return std::nullopt;
    }
    const json parsed = json::parse(text, nullptr, false);
    EXPECT_TRUE(parsed.is_object()) << directory << ": " << text;
    TSReport report{directory, {}};
    if (!parsed.is_object()) {
        return report;
    }
    const json members = parsed.flatten();
    for (const auto& [pointer, value] : members.items()) {
        report.m_members[pointer] = value.dump();
    }
    ExpectWhole(report);
    return report;
}

} // namespace

std::string TSReport::operator[](const std::string& pointer) const
{
    const auto member = m_members.find(pointer);
    if (member == m_members.end()) {
        return "(absent)";
    }
    const json value = json::parse(member->second);
    return value.is_string() ? value.get<std::string>() : member->second;
}

ReportRoad::ReportRoad() : m_reports(fs::path(m_stateDir) / "reports")
{
    for (const fs::path& path : {kDrop, kRebootDrop, kTaken, kStore}) {
        fs::remove_all(path);
    }
    const fs::path tools = m_bus.Directory() + "/tools";
    fs::create_directory(tools);
    SetKernelLog("");
    WriteFile(tools / "dmesg", "#!/bin/sh\nexec cat '" + m_bus.Directory() + "/kernel-log'\n");
    fs::permissions(tools / "dmesg", fs::perms::owner_all);
}

ReportRoad::~ReportRoad()
{
    for (const fs::path& path : {kDrop, kRebootDrop, kTaken, kStore}) {
        std::error_code ignored;
        fs::remove_all(path, ignored);
    }
}

TNames ReportRoad::AgentCommand(const TNames& arguments) const
{
    TNames command{KEL_NOT_IDLE, KEL_AGENT};
    if (std::find(arguments.begin(), arguments.end(), "--state-dir") == arguments.end()) {
        command.insert(command.end(), {"--state-dir", m_stateDir});
    }
    command.insert(command.end(), arguments.begin(), arguments.end());
    return command;
}

std::unique_ptr<ChildProcess> ReportRoad::StartAgent(const TNames& arguments,
                                                     ChildProcess::TEnvironment environment) const
{
    environment.emplace("PATH", Path());
    return std::make_unique<ChildProcess>(AgentCommand(arguments), environment);
}

std::unique_ptr<ChildProcess> ReportRoad::StartCollector(const TNames& arguments) const
{
    std::unique_ptr<ChildProcess> agent = StartAgent(arguments);
    EXPECT_TRUE(Says(*agent, "kel-agent: ready\n"));
    return agent;
}

void ReportRoad::SetKernelLog(const std::string& text) const
{
    const fs::path log = m_bus.Directory() + "/kernel-log";
    WriteFile(log.string() + ".new", text);
    fs::rename(log.string() + ".new", log);
}

void ReportRoad::RequestSlot(std::string process, std::string thread, int reboot)
{
    const Silence silence;
    ASSERT_EQ(Request_NDF(process.data(), thread.data(), reboot), 1);
}

void ReportRoad::File(const std::string& name, const std::string& content, uid_t owner)
{
    if (owner != geteuid()) {
        Sandbox::NeedOtherUsers();
    }
    static int number = 0;
    const fs::path outside = "/tmp/request-" + std::to_string(++number);
    WriteFile(outside, content);
    ASSERT_EQ(chown(outside.c_str(), owner, static_cast<gid_t>(-1)), 0);
    fs::rename(outside, kDrop / name);
}

void ReportRoad::SetSlot(const std::string& value)
{
    fs::create_directories(kSlotFile.parent_path());
    WriteFile(kSlotFile.parent_path() / ".new", value);
    fs::rename(kSlotFile.parent_path() / ".new", kSlotFile);
}

std::string ReportRoad::Slot() { return ReadFile(kSlotFile); }

TNames ReportRoad::Ids(const fs::path& stateDir)
{
    TNames ids = NamesIn(stateDir / "reports");
    ids.erase(std::remove_if(ids.begin(), ids.end(), IsHidden), ids.end());
    return ids;
}

std::vector<TSReport> ReportRoad::Reports(const fs::path& stateDir)
{
    std::vector<TSReport> reports;
    for (const std::string& id : Ids(stateDir)) {
        if (std::optional<TSReport> report = ReadReport(stateDir / "reports" / id)) {
            reports.push_back(std::move(*report));
        }
    }
    return reports;
}

TNames ReportRoad::Names() const
{
    TNames names;
    for (const TSReport& report : Reports()) {
        names.push_back(report.Name());
    }
    std::sort(names.begin(), names.end());
    return names;
}

bool ReportRoad::WaitForReports(size_t count) const
{
    return WaitUntil(
        [&] {
            const size_t there = Ids().size();
            if (there < count) { // a look at many takes the agent's time
                std::this_thread::sleep_for(std::chrono::microseconds(10 * there));
            }
            return there >= count;
        },
        kCollected);
}

void ReportRoad::LetItLook()
{
    // The look that finds the first request may have begun before; the one that finds the second
    // has not.
    for (const char* const name : {"look-once-ALWAYS.log", "look-twice-ALWAYS.log"}) {
        File(name);
        ASSERT_TRUE(
            WaitUntil([&] { return !fs::exists(kDrop / name) && !IsTaken(name); }, kCollected));
    }
}

TNames ReportRoad::Taken()
{
    TNames names;
    for (const std::string& entry : NamesIn(kTaken)) {
        agent::TSTakenName taken;
        if (entry != "trash") {
            EXPECT_TRUE(agent::TSTakenName::Read(entry, taken)) << entry;
            names.push_back(taken.m_name);
        }
    }
    return names;
}

bool ReportRoad::IsTaken(const std::string& name)
{
    const TNames taken = Taken();
    return std::find(taken.begin(), taken.end(), name) != taken.end();
}

ReportRoad::Silence::Silence() : m_before(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0))
{
    fflush(stdout);
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(nowhere, STDOUT_FILENO);
    close(nowhere);
}

ReportRoad::Silence::~Silence()
{
    fflush(stdout);
    dup2(m_before, STDOUT_FILENO);
    close(m_before);
}

mode_t ModeOf(const fs::path& path)
{
    struct stat status;
    return lstat(path.c_str(), &status) == 0 ? status.st_mode & 07777U : 0;
}

std::vector<pid_t> ChildrenOf(pid_t process)
{
    std::vector<pid_t> children;
    for (const std::string& thread : NamesIn("/proc/" + std::to_string(process) + "/task")) {
        std::ifstream list("/proc/" + std::to_string(process) + "/task/" + thread + "/children");
        for (pid_t child; list >> child;) {
            children.push_back(child);
        }
    }
    return children;
}

pid_t ReaderServerOf(pid_t agent)
{
    for (const pid_t child : ChildrenOf(agent)) {
        if (ReadFile("/proc/" + std::to_string(child) + "/comm") == "kel-agent-read\n") {
            return child;
        }
    }
    return -1;
}

std::vector<pid_t> ReadersOf(pid_t agent)
{
    const pid_t server = ReaderServerOf(agent);
    return server < 0 ? std::vector<pid_t>() : ChildrenOf(server);
}

void WriteFile(const fs::path& path, const std::string& content)
{
    std::ofstream(path, std::ios::binary) << content;
}

} // namespace kel::test
