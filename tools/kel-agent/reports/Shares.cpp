#include "reports/Shares.h"

#include <algorithm>
#include <tuple>
#include <vector>

namespace kel {
namespace agent {

void TCShares::Add(uint64_t id, const TOwner& owner, uint64_t bytes)
{
    Remove(id);
    TSHolding& holding = m_holdings[owner];
    holding.m_reports[id] = bytes;
    holding.m_bytes += bytes;
    m_owners[id] = owner;
    m_bytes += bytes;
}

void TCShares::Remove(uint64_t id)
{
    const auto report = m_owners.find(id);
    if (report == m_owners.end()) {
        return;
    }
    const auto holder = m_holdings.find(report->second);
    const auto held = holder->second.m_reports.find(id);
    m_bytes -= held->second;
    holder->second.m_bytes -= held->second;
    holder->second.m_reports.erase(held);
    if (holder->second.m_reports.empty()) {
        m_holdings.erase(holder);
    }
    m_owners.erase(report);
}

uint64_t TCShares::NewestId() const { return m_owners.empty() ? 0 : m_owners.rbegin()->first; }

std::set<uint64_t> TCShares::Ids() const
{
    std::set<uint64_t> ids;
    for (const auto& [id, owner] : m_owners) {
        ids.insert(ids.end(), id);
    }
    return ids;
}

bool TCShares::AreTooMany(const std::optional<TSNew>& added) const
{
    return m_owners.size() + (added ? 1 : 0) > m_limits.m_reports;
}

// All that the owner holds can be given up, and of each other one what exceeds the room.
uint64_t TCShares::RoomFor(const TOwner& owner) const
{
    std::vector<uint64_t> others;
    for (const auto& [holder, holding] : m_holdings) {
        if (holder != owner) {
            others.push_back(holding.m_bytes);
        }
    }
    std::sort(others.begin(), others.end());
    uint64_t room = m_limits.m_bytes;
    uint64_t sharers = others.size() + 1;
    for (const uint64_t other : others) {
        if (other > room / sharers) {
            break;
        }
        room -= other;
        --sharers;
    }
    return room / sharers;
}

std::optional<uint64_t> TCShares::NextToGo(const std::optional<TSNew>& added) const
{
    const bool tooMany = AreTooMany(added);
    if (!tooMany && m_bytes + (added ? added->m_bytes : 0) <= m_limits.m_bytes) {
        return std::nullopt;
    }
    // Of several who hold most it is rather the one who asks for more, otherwise who has the
    // oldest.
    std::tuple<uint64_t, bool, uint64_t> most = {0, false, 0};
    for (const auto& [holder, holding] : m_holdings) {
        const bool asks = added && added->m_owner == holder;
        const uint64_t oldest = holding.m_reports.begin()->first;
        const uint64_t holds = tooMany ? holding.m_reports.size() + (asks ? 1 : 0)
                                       : holding.m_bytes + (asks ? added->m_bytes : 0);
        most = std::max(most, {holds, asks, UINT64_MAX - oldest});
    }
    return m_holdings.empty() ? std::nullopt
                              : std::optional<uint64_t>(UINT64_MAX - std::get<2>(most));
}

} // namespace agent
} // namespace kel
