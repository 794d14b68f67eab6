#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "Commands.h"

namespace kel {
namespace ctl {

namespace {

// Has what was printed reach its reader.
EStatus FlushOutput()
{
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) {
        return EStatus::Success;
    }
    std::fprintf(stderr, "kelctl: the output cannot be written: %s\n", std::strerror(errno));
    return EStatus::NoOutput;
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

    CLI::App app("Steers the issue-reporting agent of this device.", "kelctl");
    EStatus status = EStatus::Success;
    app.set_version_flag("--version", std::string("kelctl " KEL_VERSION), "Print the version");
    app.failure_message([](const CLI::App*, const CLI::Error& error) {
        return std::string("kelctl: ") + error.what() + "\n";
    });
    kel::ctl::AddSetPolicy(app, status);
    kel::ctl::AddMonitor(app, status);
    kel::ctl::AddStatus(app, status);
    kel::ctl::AddReport(app, status);
    kel::ctl::AddReports(app, status);
    kel::ctl::AddKernelLog(app, status);
    kel::ctl::AddPolicy(app, status);
    try {
        app.parse(argc, argv);
        if (app.get_subcommands().empty()) { // asked here, so that a misspelt one is named first
            throw CLI::RequiredError("A command");
        }
    } catch (const CLI::ParseError& error) {
        status = app.exit(error) == 0 ? EStatus::Success : EStatus::WrongUsage;
    }
    return kel::ctl::ExitStatus(status);
}
