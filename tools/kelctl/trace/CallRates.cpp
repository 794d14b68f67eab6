#include "trace/CallRates.h"

namespace kel {
namespace ctl {

namespace {

constexpr TMicroseconds kSecond = 1'000'000;
constexpr size_t kMostCalls = 100;
constexpr size_t kMostPairs = 4096;

} // namespace

void TCCallRates::Add(const std::string& from, const std::string& to)
{
    const std::pair<std::string, std::string> peers(from, to);
    if (m_calls.size() < kMostPairs || m_calls.count(peers) > 0) {
        ++m_calls[peers];
    }
}

std::vector<TSFlood> TCCallRates::Look(TMicroseconds time)
{
    if (time >= m_begin && time - m_begin < kSecond) { // a clock may have been set back
        return {};
    }
    m_begin = time;
    return End();
}

std::vector<TSFlood> TCCallRates::End()
{
    std::vector<TSFlood> floods;
    for (const auto& [peers, calls] : m_calls) {
        if (calls > kMostCalls) {
            floods.push_back({peers.first, peers.second, calls});
        }
    }
    m_calls.clear();
    return floods;
}

} // namespace ctl
} // namespace kel
