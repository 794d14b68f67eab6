#pragma once

#include <chrono>
#include <cstddef>

namespace kel::test {

/// How long a part of the soak goes on: so many times, and until then.
struct TSEnough
{
    bool IsReached(size_t done) const
    {
        return done >= m_count && std::chrono::steady_clock::now() >= m_end;
    }

    size_t m_count;
    std::chrono::steady_clock::time_point m_end;
};

/// Four threads take the process's client, send to an agent that lives on, and release it: there is
/// always one that ends while the next one begins. True when no send was lost and nothing is left
/// behind, here or in the agent.
bool TakeSendRelease(const TSEnough& rounds);

/// So many applications live through the ends of many agents. Each agent tells them all, and each
/// of them sends to it. True when no message was lost and nothing is left behind.
bool RestartAgents(const TSEnough& restarts, size_t applications);

} // namespace kel::test
