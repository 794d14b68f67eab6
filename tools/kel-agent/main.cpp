#include <malloc.h>
#include <sys/stat.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>

#include "Agent.h"
#include "Options.h"
#include "reports/ReaderServer.h"

namespace {

using kel::agent::TSOptions;

constexpr int kWrongUsage = 2;

// Blocks from this size on go back to the system when they are freed. Left to itself the allocator
// keeps what one message of 31 MiB took, for good.
constexpr int kLargeBlock = 128 << 10;

int EndOfOutput()
{
    if (std::fflush(stdout) == 0) {
        return EXIT_SUCCESS;
    }
    std::fprintf(stderr, "kel-agent: the output cannot be written: %s\n", std::strerror(errno));
    return EXIT_FAILURE;
}

int Serve(const TSOptions& options)
{
    kel::agent::TCReaderServer readerServer; // first, before threads and whatever takes memory
    mallopt(M_MMAP_THRESHOLD, kLargeBlock);
    std::signal(SIGPIPE, SIG_IGN); // whoever reads our standard error may be gone
    std::signal(SIGUSR1, SIG_IGN); // until the agent handles it, there is nobody to ask
    std::signal(SIGIO, SIG_IGN);   // comes to whom has a lease on a file that is then opened
    try {
        kel::agent::TCAgent agent(options.m_test, options.m_stateDirectory, options.m_limits,
                                  readerServer);
        return agent.Run() ? EXIT_SUCCESS : EXIT_FAILURE;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "kel-agent: %s\n", failure.what());
        return EXIT_FAILURE;
    }
}

} // namespace

int main(int argc, char** argv)
{
    TSOptions options;
    switch (options.Read(argc, argv)) {
    case TSOptions::ENext::Serve:
        break;
    case TSOptions::ENext::End:
        return EndOfOutput();
    case TSOptions::ENext::WrongUsage:
        return kWrongUsage;
    }

    // Its own directory the agent makes; one that the user named has to be there, so that a
    // misspelt name is noticed.
    const char* const directory = options.m_stateDirectory.c_str();
    if (options.m_isOwnDirectory && mkdir(directory, 0750) != 0 && errno != EEXIST) {
        std::fprintf(stderr, "kel-agent: %s: %s\n", directory, std::strerror(errno));
    }
    return Serve(options);
}
