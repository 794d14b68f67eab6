#pragma once

#include <sys/prctl.h>
#include <sys/wait.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "e2e/AgentRoad.h"
#include "support/ChildProcess.h"
#include "support/PrivateBus.h"
#include "support/Sandbox.h"

namespace kel::test {

/// Runs kel-testbus, in a directory of its own in "/tmp".
class Testbus : public SandboxTest
{
protected:
    typedef std::vector<std::string> TWords;

    Testbus() : m_directory(MakeDirectory()), m_script(m_directory + "/agent.script")
    {
        std::filesystem::permissions(m_directory, std::filesystem::perms::all);
        m_before = NamesIn("/tmp");
        // What it leaves running becomes a child of ours.
        prctl(PR_SET_CHILD_SUBREAPER, 1);
    }
    ~Testbus() override { std::filesystem::remove_all(m_directory); }

    /// Its whole command line.
    static TWords Line(const TWords& options, const TWords& command)
    {
        TWords words{KEL_TESTBUS};
        words.insert(words.end(), options.begin(), options.end());
        words.push_back("--");
        words.insert(words.end(), command.begin(), command.end());
        return words;
    }

    static TSFinished Run(const TWords& options, const TWords& command)
    {
        return RunProgram(Line(options, command));
    }
    static TSFinished Shell(const TWords& options, const std::string& text)
    {
        return Run(options, {"sh", "-c", text});
    }

    void WriteScript(const std::string& text) const { std::ofstream(m_script) << text; }

    static void WriteProgram(const std::string& path, const std::string& text)
    {
        std::ofstream(path) << "#!/bin/sh\n" << text << "\n";
        std::filesystem::permissions(path, std::filesystem::perms(0755));
    }

    void ExpectNothingLeft() const
    {
        EXPECT_TRUE(WaitUntil([] { return waitpid(-1, nullptr, WNOHANG) < 0 && errno == ECHILD; }));
        EXPECT_EQ(NamesIn("/tmp"), m_before);
    }

    const std::string m_directory;
    const std::string m_script;
    TWords m_before; // in "/tmp"
};

} // namespace kel::test
