#include <sys/stat.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>

#include <CLI/CLI.hpp>

#include "Agent.h"

namespace {

constexpr char kDefaultStateDirectory[] = "/var/lib/kel-agent";
constexpr int kWrongUsage = 2;

int Serve(bool test, const std::string& stateDirectory)
{
    std::signal(SIGPIPE, SIG_IGN); // whoever reads our standard error may be gone
    std::signal(SIGUSR1, SIG_IGN); // until the agent handles it, there is nobody to ask
    try {
        return kel::agent::TCAgent(test, stateDirectory).Run() ? EXIT_SUCCESS : EXIT_FAILURE;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "kel-agent: %s\n", failure.what());
        return EXIT_FAILURE;
    }
}

} // namespace

int main(int argc, char** argv)
{
    CLI::App app("Reference agent: takes the reporting policy that applications set.", "kel-agent");
    std::string stateDirectory(kDefaultStateDirectory);
    bool test = false;
    app.set_version_flag("--version", std::string("kel-agent " KEL_VERSION), "Print the version");
    app.add_option("--state-dir", stateDirectory, "The directory that keeps the policy")
        ->type_name("DIR")
        ->capture_default_str();
    app.add_flag("--test", test, "Serve the test channel");
    app.failure_message([](const CLI::App*, const CLI::Error& error) {
        return std::string("kel-agent: ") + error.what() + "\n";
    });
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? EXIT_SUCCESS : kWrongUsage;
    }

    // Its own directory the agent makes; one that the user named has to be there, so that a
    // misspelt name is noticed.
    if (app.count("--state-dir") == 0 && mkdir(kDefaultStateDirectory, 0750) != 0
        && errno != EEXIST) {
        std::fprintf(stderr, "kel-agent: %s: %s\n", kDefaultStateDirectory, std::strerror(errno));
    }
    return Serve(test, stateDirectory);
}
