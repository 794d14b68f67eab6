#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

#include <kel/KELDbusClient.h>

#include "soak/Footprint.h"
#include "soak/Peers.h"
#include "soak/Soak.h"
#include "support/HostLoop.h"
#include "support/PrivateBus.h"

namespace kel::test {

namespace {

constexpr size_t kThreads = 4;
constexpr unsigned int kLongestPause = 500; // microseconds; a round takes as long
constexpr size_t kWarmUp = 400;             // rounds, after which everything is as large as it gets

/// Runs rounds until there are enough; returns how many sends were lost. The rounds' numbers go on
/// from the one given.
size_t Run(const TSEnough& enough, std::atomic<size_t>& next)
{
    std::atomic<size_t> lost{0};
    std::vector<std::thread> threads;
    for (size_t i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, random = std::minstd_rand(i + 1)]() mutable {
            for (size_t round = next++; !enough.IsReached(round); round = next++) {
                std::vector<unsigned char> words(sizeof(round));
                std::memcpy(words.data(), &round, sizeof(round));
                if (!Converse(*TCDbusClientProvider::Get(false), words)) {
                    ++lost;
                }
                // Without it somebody would hold the client all the time, and none would end.
                std::this_thread::sleep_for(std::chrono::microseconds(random() % kLongestPause));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    return lost;
}

/// The last client, which has had many before it, becomes ready like the first.
bool BecomesReady()
{
    const auto client = TCDbusClientProvider::Get(false);
    return WaitUntil([&client] { return client->IsReady(); });
}

} // namespace

bool TakeSendRelease(const TSEnough& rounds)
{
    const PrivateBus bus;
    const HostLoop loop;
    const auto agent = StartRole(kAgentOption, 0);
    if (!agent->WaitForOutput("ready")) {
        std::printf("the agent does not start: %s\n", agent->ErrorOutput().c_str());
        return false;
    }

    std::atomic<size_t> next{0};
    size_t lost = Run({kWarmUp, {}}, next);
    PrivateBus::WaitForDisconnection();
    const TSFootprint before = FootprintOf({getpid()});
    const TSFootprint agentBefore = FootprintOf({agent->Id()});

    next = kWarmUp;
    lost += Run(rounds, next);
    const bool isReady = BecomesReady();
    const bool isClosed = PrivateBus::WaitForDisconnection();

    std::printf("  %zu rounds of take, send, release on %zu threads: %zu sends lost%s%s\n",
                next - kThreads, kThreads, lost, isReady ? "" : "; the last client is NOT READY",
                isClosed ? "" : "; the connection is STILL OPEN");
    const bool isSmall = HasNotGrown("this process", before, {getpid()});
    const bool isAgentSmall = HasNotGrown("the agent", agentBefore, {agent->Id()});
    return lost == 0 && isReady && isClosed && isSmall && isAgentSmall;
}

} // namespace kel::test
