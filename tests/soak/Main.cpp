// What an hour brings to light and a test does not: clients that begin while others end, agents
// that come and go under many applications, and what is lost or left behind meanwhile.
//
//   kel-soak [--rounds N] [--restarts N] [--applications N] [--minutes N]
//
// With --minutes it goes on until then, each of its two parts for half of the time. The exit status
// tells whether all went well.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <string>

#include <glib.h>

#include "soak/Peers.h"
#include "soak/Soak.h"

namespace kel::test {

namespace {

typedef std::map<std::string, size_t> TNumbers;

/// Sets the numbers that the arguments name; false when they are none of these.
bool ReadArguments(int argumentCount, char** arguments, TNumbers& numbers)
{
    for (int i = 1; i < argumentCount; i += 2) {
        const auto number = numbers.find(arguments[i]);
        if (number == numbers.end() || i + 1 == argumentCount) {
            return false;
        }
        number->second = std::strtoul(arguments[i + 1], nullptr, 10);
    }
    return true;
}

bool RunPart(const char* name, const std::function<bool()>& part)
{
    const auto begin = std::chrono::steady_clock::now();
    std::printf("== %s\n", name);
    const bool isGood = part();
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begin;
    std::printf("  %s, %.1f s\n", isGood ? "good" : "BAD", taken.count());
    std::fflush(stdout);
    return isGood;
}

int RunSoak(int argumentCount, char** arguments)
{
    TNumbers numbers{
        {"--rounds", 10'000}, {"--restarts", 1'000}, {"--applications", 50}, {"--minutes", 0}};
    if (!ReadArguments(argumentCount, arguments, numbers)) {
        std::fprintf(stderr, "usage: kel-soak [--rounds N] [--restarts N] [--applications N] "
                             "[--minutes N]\n");
        return 2;
    }
    const auto half = std::chrono::seconds(30 * numbers["--minutes"]);
    const auto now = [] { return std::chrono::steady_clock::now(); };

    const bool areRoundsGood = RunPart("take, send, release", [&] {
        return TakeSendRelease({numbers["--rounds"], now() + half});
    });
    const bool areRestartsGood = RunPart("restarts of the agent", [&] {
        return RestartAgents({numbers["--restarts"], now() + half}, numbers["--applications"]);
    });
    return areRoundsGood && areRestartsGood ? EXIT_SUCCESS : EXIT_FAILURE;
}

} // namespace

} // namespace kel::test

int main(int argumentCount, char** arguments)
{
    setenv("KEL_HOST_LOG", "none", 0);
    g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_FATAL_MASK | G_LOG_LEVEL_CRITICAL));

    if (argumentCount == 3 && std::strcmp(arguments[1], kel::test::kAgentOption) == 0) {
        return kel::test::RunAgent(std::strtoul(arguments[2], nullptr, 10));
    }
    if (argumentCount == 3 && std::strcmp(arguments[1], kel::test::kApplicationOption) == 0) {
        return kel::test::RunApplication(std::strtoul(arguments[2], nullptr, 10));
    }
    return kel::test::RunSoak(argumentCount, arguments);
}
