#include <string>

#include "Commands.h"

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
    try {
        app.parse(argc, argv);
        if (app.get_subcommands().empty()) { // asked here, so that a misspelt one is named first
            throw CLI::RequiredError("A command");
        }
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : static_cast<int>(EStatus::WrongUsage);
    }
    return static_cast<int>(status);
}
