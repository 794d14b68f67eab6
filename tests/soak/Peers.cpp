#include "soak/Peers.h"

#include <chrono>
#include <condition_variable>
#include <iostream>
#include <limits>
#include <mutex>
#include <set>

#include <kel/KELDbusClient.h>
#include <kel/KELDbusServer.h>

#include "support/HostLoop.h"

namespace kel::test {

namespace {

typedef std::vector<unsigned char> TWords;

constexpr int kNote = 1;  // to the agent, which keeps the words
constexpr int kAsk = 2;   // to the agent, which answers with the words when it has kept them
constexpr int kNoise = 3; // to the agent, which has no callback for it
constexpr int kTell = 4;  // to the applications

constexpr int kTimeout = 20'000; // milliseconds

void Say(const std::string& line) { std::cout << line << std::endl; }

} // namespace

std::unique_ptr<ChildProcess> StartRole(const std::string& option, size_t number)
{
    return std::make_unique<ChildProcess>(
        std::vector<std::string>{"/proc/self/exe", option, std::to_string(number)});
}

int RunAgent(size_t applications)
{
    std::set<TWords> noted; // used on the loop's thread alone
    auto server = std::make_unique<TCDbusServer>(false);
    server->SetCallback(
        kNote, [&noted](const TWords& words, TWords&) { return noted.insert(words).second; });
    server->SetCallback(kAsk, [&noted](const TWords& words, TWords& answer) {
        answer = words;
        return noted.erase(words) == 1;
    });
    const HostLoop loop; // nobody is served before all is set
    if (!WaitUntil([&server] { return server->IsReady(); })) {
        return 1;
    }
    Say("ready");

    if (applications != 0) {
        WaitUntil([&] { return server->NumberOfClients() >= applications; });
        const auto [successes, failures] = server->SendMessage(kTell, {}, kTimeout);
        Say("told " + std::to_string(successes) + " " + std::to_string(failures));
    }
    std::cin.ignore(std::numeric_limits<std::streamsize>::max());
    server.reset(); // while applications call it
    return 0;
}

int RunApplication(size_t number)
{
    std::mutex mutex;
    std::condition_variable changed;
    size_t told = 0; // guarded by mutex

    const auto client = TCDbusClientProvider::Get(false);
    client->SetCallback(kTell, [&](const TWords&, TWords&) {
        const std::lock_guard<std::mutex> lock(mutex);
        ++told;
        changed.notify_one();
        return true;
    });
    const HostLoop loop;
    Say("ready");

    const TWords words{static_cast<unsigned char>(number), static_cast<unsigned char>(number >> 8)};
    for (size_t heard = 0;; ++heard) {
        std::unique_lock<std::mutex> lock(mutex);
        // Whether there is an agent or not, and whether it is one that begins or ends.
        while (
            !changed.wait_for(lock, std::chrono::milliseconds(20), [&] { return told > heard; })) {
            lock.unlock();
            TWords ignored;
            client->SendMessage(kNoise, words, ignored, true);
            lock.lock();
        }
        lock.unlock();
        std::cout << (Converse(*client, words) ? '+' : '-') << std::flush;
    }
}

bool Converse(IDbusClient& client, const TWords& words)
{
    TWords answer;
    client.SendMessage(kNote, words, answer, true);
    return client.SendMessage(kAsk, words, answer, false) && answer == words;
}

} // namespace kel::test
