#include "requests/RequestQueue.h"

#include <algorithm>
#include <vector>

namespace kel {
namespace agent {

bool TCRequestQueue::HasRoom(uid_t user) const
{
    const auto owner = m_users.find(user);
    const size_t count = owner != m_users.end() ? owner->second.m_entries.size() : 0;
    return count < kMostOfAUser
           && (Size() < kMostOfAll || count < kMostOfAll / (m_users.size() + 1));
}

void TCRequestQueue::Add(uid_t user, const std::string& name)
{
    m_users[user].m_entries.try_emplace(name);
    m_owners[name] = user;
}

void TCRequestQueue::Remove(const std::string& name)
{
    const auto owner = m_owners.find(name);
    if (owner == m_owners.end()) {
        return;
    }
    const auto user = m_users.find(owner->second);
    const auto entry = user->second.m_entries.find(name);
    user->second.m_writers -= entry->second.m_writer ? 1 : 0;
    user->second.m_entries.erase(entry);
    m_last = user->first;
    if (user->second.m_entries.empty()) {
        m_users.erase(user);
    }
    m_owners.erase(owner);
}

void TCRequestQueue::Clear()
{
    m_users.clear();
    m_owners.clear();
}

void TCRequestQueue::AskInTurns(size_t most, const TQuestion& question)
{
    struct TSTurn
    {
        std::map<std::string, TSEntry>* m_pEntries;
        std::map<std::string, TSEntry>::iterator m_next;
    };
    std::vector<TSTurn> turns;
    for (auto& [user, waiting] : m_users) {
        turns.push_back({&waiting.m_entries, waiting.m_entries.begin()});
    }
    std::rotate(turns.begin(),
                turns.begin() + std::distance(m_users.begin(), m_users.upper_bound(m_last)),
                turns.end());

    std::vector<std::string> gone;
    size_t ready = 0;
    for (bool asked = true; asked && ready < most;) {
        asked = false;
        for (auto turn = turns.begin(); turn != turns.end() && ready < most; ++turn) {
            bool served = false;
            while (!served && turn->m_next != turn->m_pEntries->end()) {
                const auto one = turn->m_next++;
                const EAnswer answer = question(one->first, one->second);
                served = answer == EAnswer::Ready;
                if (answer == EAnswer::Gone) {
                    gone.push_back(one->first);
                }
            }
            asked = asked || served;
            ready += served ? 1 : 0;
        }
    }
    for (const std::string& name : gone) {
        Remove(name);
    }
}

bool TCRequestQueue::HasRoomForAWriter(const std::string& name) const
{
    return m_users.at(m_owners.at(name)).m_writers < kMostWriters;
}

void TCRequestQueue::SetWriter(const std::string& name, TSEntry& entry, const TSWriter& writer)
{
    m_users[m_owners[name]].m_writers += entry.m_writer ? 0 : 1;
    entry.m_writer = writer;
}

TCRequestQueue::TClock::time_point TCRequestQueue::NextWriter() const
{
    TClock::time_point next = TClock::time_point::max();
    for (const auto& [user, waiting] : m_users) {
        if (waiting.m_writers == 0) {
            continue;
        }
        for (const auto& [name, entry] : waiting.m_entries) {
            if (entry.m_writer && !entry.m_writer->m_isOver) {
                next = std::min(next, entry.m_writer->m_next);
            }
        }
    }
    return next;
}

void TCRequestQueue::ForEach(
    const std::function<void(const std::string& name, TSEntry& entry)>& visit)
{
    for (auto& [user, waiting] : m_users) {
        for (auto& [name, entry] : waiting.m_entries) {
            visit(name, entry);
        }
    }
}

} // namespace agent
} // namespace kel
