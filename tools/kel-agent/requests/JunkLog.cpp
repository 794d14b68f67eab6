#include "requests/JunkLog.h"

#include <cstdio>

#include "common/Text.h"

namespace kel {
namespace agent {

using tools::Printable;

namespace {

constexpr std::chrono::minutes kMinute(1);
constexpr size_t kMostRemembered = 256; // kinds and users: who has many users shares one line

std::string Name(const std::optional<uid_t>& user)
{
    return user ? "user " + std::to_string(*user) : "further users";
}

} // namespace

void TCJunkLog::Tell(const std::string& name, const std::string& place, uid_t user,
                     const std::string& kind)
{
    TKey key(kind, user);
    if (m_minutes.count(key) == 0 && m_minutes.size() >= kMostRemembered) {
        key.second.reset();
    }
    const auto [minute, isFirst] = m_minutes.try_emplace(key);
    if (!isFirst) {
        ++minute->second.m_more;
        return;
    }
    minute->second.m_end = TClock::now() + kMinute;
    std::fprintf(stderr, "kel-agent: %s of user %u in %s %s\n", Printable(name).c_str(), user,
                 place.c_str(), kind.c_str());
}

void TCJunkLog::Flush(TClock::time_point now)
{
    for (auto minute = m_minutes.begin(); minute != m_minutes.end();) {
        if (minute->second.m_end <= now) {
            m_TellMore(minute->first, minute->second);
            minute = m_minutes.erase(minute);
        } else {
            ++minute;
        }
    }
}

void TCJunkLog::FlushAll() { Flush(TClock::time_point::max()); }

void TCJunkLog::m_TellMore(const TKey& key, const TSMinute& minute)
{
    if (minute.m_more > 0) {
        std::fprintf(stderr, "kel-agent: %zu more of %s within a minute %s\n", minute.m_more,
                     Name(key.second).c_str(), key.first.c_str());
    }
}

} // namespace agent
} // namespace kel
