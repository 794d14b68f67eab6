#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <kel/KELDebug.h>

#include "Commands.h"

namespace kel {
namespace ctl {

namespace {

// The error that tells so may be that of an earlier write.
bool IsReaderGone()
{
    pollfd output = {STDOUT_FILENO, 0, 0};
    return poll(&output, 1, 0) == 1 && (output.revents & (POLLERR | POLLHUP)) != 0;
}

// Has what was printed reach its reader. One who has read enough and gone knows that.
EStatus FlushOutput()
{
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) {
        return EStatus::Success;
    }
    const int failure = errno;
    if (!IsReaderGone()) {
        std::fprintf(stderr, "kelctl: the output cannot be written: %s\n", std::strerror(failure));
    }
    return EStatus::NoOutput;
}

// Every line of the library's from here on comes to standard error, too.
void ShowLog(std::int64_t)
{
    TCDebug::m_instance.m_logFile = stderr; // in place of the file that would be made
    TCDebug::m_instance.EnableFileLog(true);
}

void AddCommon(CLI::App& taker, TSCommon& common)
{
    taker.add_flag("--test", common.m_test, "Use the test channel");
    taker.add_flag("--verbose", std::function<void(std::int64_t)>(&ShowLog),
                   "Show the library's log");
}

// Success is what has been told, too. Any other status says more than that its words are lost.
int ExitStatus(EStatus status)
{
    return static_cast<int>(status == EStatus::Success ? FlushOutput() : status);
}

} // namespace

} // namespace ctl
} // namespace kel

int main(int argc, char** argv)
{
    using kel::ctl::EStatus;

    std::signal(SIGPIPE, SIG_IGN); // a reader that goes is seen otherwise
    CLI::App app("Steers the issue-reporting agent of this device.", "kelctl");
    kel::ctl::TSCommon common;
    EStatus status = EStatus::Success;
    app.set_version_flag("--version", std::string("kelctl " KEL_VERSION), "Print the version");
    app.failure_message([](const CLI::App*, const CLI::Error& error) {
        return std::string("kelctl: ") + error.what() + "\n";
    });
    kel::ctl::AddSetPolicy(app, common, status);
    kel::ctl::AddMonitor(app, common, status);
    kel::ctl::AddStatus(app, common, status);
    kel::ctl::AddReport(app, status);
    kel::ctl::AddReports(app, status);
    kel::ctl::AddKernelLog(app, status);
    kel::ctl::AddPolicy(app, status);
    kel::ctl::AddProcessInfo(app, common, status);
    kel::ctl::AddTrace(app, common, status);
    kel::ctl::AddReplay(app, common, status);
    kel::ctl::AddDoctor(app, common, status);
    std::vector<CLI::App*> takers = app.get_subcommands({});
    takers.push_back(&app);
    for (CLI::App* const taker : takers) {
        kel::ctl::AddCommon(*taker, common);
    }
    try {
        app.parse(argc, argv);
        if (app.get_subcommands().empty()) { // asked here, so that a misspelt one is named first
            throw CLI::ParseError("a command is required: see kelctl --help",
                                  CLI::ExitCodes::RequiredError);
        }
    } catch (const CLI::ParseError& error) {
        status = app.exit(error) == 0 ? EStatus::Success : EStatus::WrongUsage;
    }
    return kel::ctl::ExitStatus(status);
}
