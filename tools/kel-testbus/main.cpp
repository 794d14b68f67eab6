#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <CLI/CLI.hpp>

#include "Session.h"

namespace {

constexpr int kWrongUsage = 2;

int EndOfOutput()
{
    if (std::fflush(stdout) == 0) {
        return EXIT_SUCCESS;
    }
    std::fprintf(stderr, "kel-testbus: the output cannot be written: %s\n", std::strerror(errno));
    return kel::testbus::kOwnFailure;
}

} // namespace

int main(int argc, char** argv)
{
    kel::testbus::TSOptions options;
    // The command's words are its own: only what is before them is read here.
    char** const end = argv + argc;
    char** const dashes
        = std::find_if(argv, end, [](const char* word) { return std::strcmp(word, "--") == 0; });
    if (dashes != end) {
        options.m_command.assign(dashes + 1, end);
    }

    CLI::App app("Runs a command with a private system bus and an agent of its own:\n"
                 "kel-testbus [OPTIONS] -- COMMAND...",
                 "kel-testbus");
    app.add_option("--agent", options.m_agent,
                   "none, reference (the default), or the file of a script")
        ->type_name("AGENT");
    app.add_flag("--test", options.m_test, "Have the agent serve the test channel");
    app.add_flag("--verbose", options.m_verbose, "What bus and agent say goes to standard error");
    app.set_version_flag("--version", std::string("kel-testbus " KEL_VERSION), "Print the version");
    app.failure_message([](const CLI::App*, const CLI::Error& error) {
        return std::string("kel-testbus: ") + error.what() + "\n";
    });
    try {
        app.parse(static_cast<int>(dashes - argv), argv);
        if (options.m_command.empty()) {
            throw CLI::RequiredError("A command behind --");
        }
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? EndOfOutput() : kWrongUsage;
    }
    return kel::testbus::RunSession(options);
}
