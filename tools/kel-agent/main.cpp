#include <malloc.h>
#include <sys/stat.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <string>

#include <CLI/CLI.hpp>

#include "Agent.h"
#include "reports/ReaderServer.h"

namespace {

constexpr char kDefaultStateDirectory[] = "/var/lib/kel-agent";
constexpr int kWrongUsage = 2;

constexpr size_t kMaxReports = 4096;
constexpr uint64_t kMaxBytes = 256U << 20;
constexpr uint64_t kMostBytes = UINT32_MAX; // the library tells sizes modulo 4 GiB
constexpr uint64_t kLeastBytes = 64U << 10; // a report needs some room besides its artefact

// Blocks from this size on go back to the system when they are freed. Left to itself the allocator
// keeps what one message of 31 MiB took, for good.
constexpr int kLargeBlock = 128 << 10;

int EndOfOutput()
{
    if (std::cout.flush() && std::fflush(stdout) == 0) {
        return EXIT_SUCCESS;
    }
    std::fprintf(stderr, "kel-agent: the output cannot be written: %s\n", std::strerror(errno));
    return EXIT_FAILURE;
}

int Serve(bool test, const std::string& stateDirectory,
          const kel::agent::TCReportStore::TSLimits& limits)
{
    kel::agent::TCReaderServer readerServer; // first, before threads and whatever takes memory
    mallopt(M_MMAP_THRESHOLD, kLargeBlock);
    std::signal(SIGPIPE, SIG_IGN); // whoever reads our standard error may be gone
    std::signal(SIGUSR1, SIG_IGN); // until the agent handles it, there is nobody to ask
    std::signal(SIGIO, SIG_IGN);   // comes to whom has a lease on a file that is then opened
    try {
        return kel::agent::TCAgent(test, stateDirectory, limits, readerServer).Run() ? EXIT_SUCCESS
                                                                                     : EXIT_FAILURE;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "kel-agent: %s\n", failure.what());
        return EXIT_FAILURE;
    }
}

} // namespace

int main(int argc, char** argv)
{
    CLI::App app("Reference agent: takes the reporting policy that applications set, and collects "
                 "the reports that they ask for.",
                 "kel-agent");
    std::string stateDirectory(kDefaultStateDirectory);
    kel::agent::TCReportStore::TSLimits limits = {kMaxReports, kMaxBytes};
    bool test = false;
    app.set_version_flag("--version", std::string("kel-agent " KEL_VERSION), "Print the version");
    app.add_option("--state-dir", stateDirectory, "The directory that keeps policy and reports")
        ->type_name("DIR")
        ->capture_default_str();
    app.add_option("--max-reports", limits.m_reports, "Drop the oldest reports beyond so many")
        ->type_name("N")
        ->check(CLI::Range(size_t(1), size_t(1) << 30).description(""))
        ->capture_default_str();
    app.add_option("--max-bytes", limits.m_bytes, "Drop the oldest reports beyond so many bytes")
        ->type_name("N")
        ->check(CLI::Range(kLeastBytes, kMostBytes).description(""))
        ->capture_default_str();
    app.add_flag("--test", test, "Serve the test channel");
    app.failure_message([](const CLI::App*, const CLI::Error& error) {
        return std::string("kel-agent: ") + error.what() + "\n";
    });
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? EndOfOutput() : kWrongUsage;
    }

    // Its own directory the agent makes; one that the user named has to be there, so that a
    // misspelt name is noticed.
    if (app.count("--state-dir") == 0 && mkdir(kDefaultStateDirectory, 0750) != 0
        && errno != EEXIST) {
        std::fprintf(stderr, "kel-agent: %s: %s\n", kDefaultStateDirectory, std::strerror(errno));
    }
    return Serve(test, stateDirectory, limits);
}
