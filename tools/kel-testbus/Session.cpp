#include "Session.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>

#include "Bus.h"
#include "Family.h"
#include "Script.h"
#include "ScriptedAgent.h"
#include "SharedTmp.h"
#include "Surroundings.h"

namespace kel {
namespace testbus {

namespace {

namespace fs = std::filesystem;
using tools::TCDescriptor;

constexpr int kWrongUsage = 2;

std::string Variable(const char* name)
{
    const char* const value = getenv(name);
    return value != nullptr ? value : "";
}

std::vector<std::string> Split(const std::string& paths)
{
    std::vector<std::string> all;
    std::istringstream stream(paths);
    for (std::string path; std::getline(stream, path, ':');) {
        all.push_back(path);
    }
    return all;
}

std::string OwnPlace() { return fs::read_symlink("/proc/self/exe").parent_path(); }

// Beside this program, where both are installed or built, or where else programs are.
std::string FindAgent()
{
    std::vector<std::string> places{OwnPlace() + "/../sbin", OwnPlace() + "/../kel-agent"};
    for (const std::string& place : Split(Variable("PATH") + ":/usr/local/sbin:/usr/sbin")) {
        places.push_back(place);
    }
    for (const std::string& place : places) {
        const std::string agent = fs::path(place + "/kel-agent").lexically_normal();
        if (fs::is_regular_file(agent) && access(agent.c_str(), X_OK) == 0) {
            return fs::absolute(agent);
        }
    }
    throw std::runtime_error("there is no program kel-agent");
}

// What of the machine's "/tmp" the command is going to look for.
std::vector<std::string> PathsInUse(const TSOptions& options)
{
    std::vector<std::string> paths = options.m_command;
    std::error_code none;
    const fs::path current = fs::current_path(none);
    paths.push_back(current / options.m_command[0]);
    paths.push_back(current);
    paths.push_back(OwnPlace());
    paths.push_back(Variable("TMPDIR"));
    for (const char* const variable : {"PATH", "LD_LIBRARY_PATH"}) {
        for (const std::string& path : Split(Variable(variable))) {
            paths.push_back(path);
        }
    }
    return paths;
}

/// A directory, gone with this object.
class TCDirectory
{
public:
    explicit TCDirectory(const std::string& parent) : m_path(parent + "/kel-testbus.XXXXXX")
    {
        // Other users connect to the bus in it.
        if (mkdtemp(m_path.data()) == nullptr || chmod(m_path.c_str(), 0755) != 0) {
            throw std::runtime_error(m_path + ": " + std::strerror(errno));
        }
    }
    ~TCDirectory()
    {
        std::error_code ignored;
        fs::remove_all(m_path, ignored);
    }
    TCDirectory(const TCDirectory&) = delete;
    TCDirectory& operator=(const TCDirectory&) = delete;

    const std::string& Path() const { return m_path; }

private:
    std::string m_path;
};

/// The bus, the agent and the command.
class TCSession
{
public:
    TCSession(const TSOptions& options, const TCScript* script, const std::string& agent,
              const std::string& directory)
        : m_options(options), m_script(script), m_directory(directory), m_agentProcess(-1)
    {
        const std::string state = directory + "/state";
        const std::string store = directory + "/store";
        mkdir(state.c_str(), 0755);
        mkdir(store.c_str(), 0755);
        setenv("KEL_HOST_VCONF_DIR", store.c_str(), 1);
        setenv("KEL_TESTBUS_STATE", state.c_str(), 1);
        setenv("KEL_TESTBUS_LOG", (directory + "/log").c_str(), 1);
        m_log.Reset(
            open((directory + "/log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
        if (!agent.empty()) {
            m_agent = {agent, "--state-dir", state};
            if (options.m_test) {
                m_agent.push_back("--test");
            }
        }
        if (script != nullptr) {
            m_progress = std::make_unique<TCProgress>(*script);
        }
    }

    int Run()
    {
        try {
            const int log = m_options.m_verbose ? STDERR_FILENO : m_log.Get();
            const TCBus bus(m_family, m_directory, log, m_options.m_test, m_agent);
            m_StartAgent(bus, log);
            const pid_t command = m_family.Start(TCFamily::EGroup::Ours,
                                                 [this] { BecomeProgram(m_options.m_command); });
            return m_family.Wait(
                command, [&](pid_t process, int status) { m_NoteEnd(bus, process, status); });
        } catch (const std::runtime_error&) {
            std::cerr << std::ifstream(m_directory + "/log").rdbuf();
            throw;
        }
    }

private:
    // Returns when it is there, or the script has it away.
    void m_StartAgent(const TCBus& bus, int log)
    {
        if (!m_agent.empty()) {
            bus.StartAgent(m_family, log, m_options.m_test);
        } else if (m_script != nullptr) {
            TSPipe ready;
            m_StartScriptedAgent(ready.m_input.Get());
            ready.m_input.Reset();
            m_family.WaitReadable(ready.m_output.Get());
            char byte = 0;
            if (read(ready.m_output.Get(), &byte, 1) != 1) {
                throw std::runtime_error("the scripted agent does not start");
            }
        }
    }

    void m_StartScriptedAgent(int ready)
    {
        m_agentProcess = m_family.Start(TCFamily::EGroup::Own, [&] {
            if (!m_options.m_verbose) {
                dup2(m_log.Get(), STDERR_FILENO);
            }
            RunScriptedAgent(*m_script, *m_progress, m_options.m_test, ready);
        });
    }

    void m_NoteEnd(const TCBus& bus, pid_t process, int status)
    {
        if (process == bus.Process()) {
            std::fprintf(stderr, "kel-testbus: the bus has ended\n");
        } else if (process == m_agentProcess) {
            if (WIFEXITED(status) && WEXITSTATUS(status) == kVanished) {
                m_StartScriptedAgent(-1);
            } else {
                std::fprintf(stderr, "kel-testbus: the scripted agent has ended\n");
            }
        }
    }

    const TSOptions& m_options;
    const TCScript* const m_script;
    const std::string m_directory;
    TCDescriptor m_log;
    std::vector<std::string> m_agent; // what the bus starts
    std::unique_ptr<TCProgress> m_progress;
    pid_t m_agentProcess; // of the scripted one
    TCFamily m_family;    // last: nobody runs any more when the others go
};

int RunInDirectories(const TSOptions& options, const TCScript* script)
{
    const std::string agent = options.m_agent == "reference" ? FindAgent() : "";
    std::vector<std::string> inUse = PathsInUse(options);
    inUse.push_back(agent);
    const tools::TCOutcome entered = EnterPrivateDirectories(inUse);
    std::optional<TCSharedTmp> shared;
    std::string parent = "/tmp";
    if (!entered) {
        std::fprintf(stderr,
                     "kel-testbus: no mount namespace here (%s): the command has the machine's "
                     "/tmp and /etc\n",
                     entered.Reason().c_str());
        shared.emplace(!agent.empty());
        parent = Variable("TMPDIR").empty() ? parent : Variable("TMPDIR");
    }
    const TCDirectory directory(parent);
    return TCSession(options, script, agent, directory.Path()).Run();
}

} // namespace

int RunSession(const TSOptions& options)
{
    TCScript script;
    const bool isScript = options.m_agent != "none" && options.m_agent != "reference";
    if (isScript) {
        const tools::TCOutcome read = TCScript::Read(options.m_agent, script);
        if (!read) {
            std::fprintf(stderr, "kel-testbus: %s\n", read.Reason().c_str());
            return kWrongUsage;
        }
    }
    try {
        return RunInDirectories(options, isScript ? &script : nullptr);
    } catch (const TSInterrupted& interrupted) {
        return 128 + interrupted.m_signal;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "kel-testbus: %s\n", failure.what());
        return kOwnFailure;
    }
}

} // namespace testbus
} // namespace kel
