#pragma once

#include <sys/prctl.h>
#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>

#include "support/ChildProcess.h"
#include "support/PrivateBus.h"
#include "support/Sandbox.h"

namespace kel::test {

/// Runs scripts/demo with the programs of this build, and with odd characters in its path.
class Demo : public SandboxTest
{
protected:
    Demo() : m_directory(MakeDirectory()), m_scratch(m_directory + "/it's <a> & \"b\" %20 $HOME")
    {
        std::filesystem::create_directory(m_scratch);
        prctl(PR_SET_CHILD_SUBREAPER, 1);
    }
    ~Demo() override { std::filesystem::remove_all(m_directory); }

    ChildProcess::TEnvironment Environment(const std::string& binaries) const
    {
        return {{"KEL_DEMO_BINARIES", binaries}, {"TMPDIR", m_scratch}};
    }

    // It waits ten seconds for a report that does not come, and starts hundreds of programs
    // meanwhile.
    static constexpr std::chrono::seconds kDemoDeadline{120};

    // A build directory with a kelctl or kel-agent of ours, a script of bash, and the other tool of
    // this build.
    std::string BinariesWith(const std::string& own, const std::string& script) const
    {
        const std::filesystem::path tools = m_directory + "/build/tools";
        const std::string other = own == "kelctl" ? "kel-agent" : "kelctl";
        std::filesystem::create_directories(tools / own);
        std::filesystem::create_directory_symlink(KEL_BINARIES "/tools/" + other, tools / other);
        std::ofstream(tools / own / own) << "#!/bin/bash\n" << script << "\n";
        std::filesystem::permissions(tools / own / own, std::filesystem::perms::owner_all);
        return m_directory + "/build";
    }

    void ExpectNothingLeft() const
    {
        EXPECT_TRUE(std::filesystem::is_empty(m_scratch));
        // Also every process that has been left to us has ended.
        EXPECT_TRUE(WaitUntil([] { return waitpid(-1, nullptr, WNOHANG) < 0 && errno == ECHILD; }));
    }

    const std::string m_directory;
    const std::string m_scratch;
};

} // namespace kel::test
