#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <kel/KELIssueReport.h>

#include "e2e/AgentRoad.h"

namespace kel::test {

/// What the agent has made of one request.
struct TSReport
{
    std::filesystem::path m_directory;
    std::map<std::string, std::string> m_members; // of report.json, as JSON, by JSON pointer

    /// A member: the text of a string, the JSON of a number and the like, "(absent)" of none.
    std::string operator[](const std::string& pointer) const;

    std::string Name() const { return (*this)["/request/name"]; }
};

typedef std::vector<std::string> TNames;

/// A directory of the test's own, gone with it.
class Scratch
{
public:
    Scratch() { std::filesystem::create_directory(m_path); }
    ~Scratch() { std::filesystem::remove_all(m_path); }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;

    std::filesystem::path operator/(const std::string& name) const { return m_path / name; }

private:
    const std::filesystem::path m_path = "/tmp/scratch";
};

/// The road from a request to its report: the library, the drop directories and the key, an agent,
/// and its directory of state. The agent's kernel log is the test's.
class ReportRoad : public AgentRoad
{
protected:
    ReportRoad();
    ~ReportRoad() override;

    /// How to start an agent outside the idle class, with more arguments.
    TNames AgentCommand(const TNames& arguments = {}) const;

    /// Starts one; it need not be ready.
    std::unique_ptr<ChildProcess> StartAgent(const TNames& arguments = {},
                                             ChildProcess::TEnvironment environment = {}) const;

    /// The same, and waits until it owns its name.
    std::unique_ptr<ChildProcess> StartCollector(const TNames& arguments = {}) const;

    /// The agent's PATH: the test's dmesg comes first.
    std::string Path() const { return m_bus.Directory() + "/tools:/usr/bin:/bin"; }

    /// What the agent's dmesg shows from now on.
    void SetKernelLog(const std::string& text) const;

    // Requests, by way of the library. What it prints is dropped.

    template <typename... Arguments>
    static int Request(artifactSendFlag mode, std::string process, std::string thread,
                       Arguments... arguments)
    {
        const Silence silence;
        return Request_NDF(mode, process.data(), thread.data(), arguments...);
    }
    static void RequestSlot(std::string process, std::string thread, int reboot = 0);

    // The same by hand. A file comes into its directory whole.

    static void File(const std::string& name, const std::string& content = "NO_PATH",
                     uid_t owner = 0);
    static void SetSlot(const std::string& value);
    static std::string Slot();

    /// The directories of reports, in order.
    TNames Ids() const { return Ids(m_stateDir); }
    static TNames Ids(const std::filesystem::path& stateDir);

    /// The reports, in order. Each must be whole.
    std::vector<TSReport> Reports() const { return Reports(m_stateDir); }
    static std::vector<TSReport> Reports(const std::filesystem::path& stateDir);

    /// Their requests' names, sorted.
    TNames Names() const;

    /// Waits until there are so many reports.
    bool WaitForReports(size_t count) const;

    /// Has the agent look at its drop directories once more, from the first to the last. Makes two
    /// reports.
    static void LetItLook();

    /// The names of the requests that the agent has taken and not made a report of, the oldest
    /// first.
    static TNames Taken();
    static bool IsTaken(const std::string& name);

    const std::filesystem::path m_reports;
    const Scratch m_scratch;

private:
    /// Drops what this process writes to standard output.
    class Silence
    {
    public:
        Silence();
        ~Silence();
        Silence(const Silence&) = delete;
        Silence& operator=(const Silence&) = delete;

    private:
        const int m_before;
    };
};

/// A request that is like any other.
constexpr char kGood[] = "proc-good-ALWAYS.log";

const std::filesystem::path kDrop = "/tmp/kel_NDF";
const std::filesystem::path kRebootDrop = "/tmp/kel_NDF_reboot";
const std::filesystem::path kTaken = "/tmp/.kel_NDF.taken";

/// The permission bits; 0 when there is nothing.
mode_t ModeOf(const std::filesystem::path& path);

/// The processes that any thread of a process has started.
std::vector<pid_t> ChildrenOf(pid_t process);

/// Of an agent: the process that starts readers of artefacts, negative for none, and the readers.
pid_t ReaderServerOf(pid_t agent);
std::vector<pid_t> ReadersOf(pid_t agent);

void WriteFile(const std::filesystem::path& path, const std::string& content);

} // namespace kel::test
