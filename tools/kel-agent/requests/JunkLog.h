#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <utility>

namespace kel {
namespace agent {

/// Tells of what is no request, in one line for each kind and user a minute: the first of a minute
/// by its name, and the others by their number when the minute is over.
///
/// Threads: one at a time.
class TCJunkLog
{
public:
    typedef std::chrono::steady_clock TClock;

    /// @param place  where it was.
    /// @param kind   why it is no request, and what has become of it: "removed: its name is ..."
    void Tell(const std::string& name, const std::string& place, uid_t user,
              const std::string& kind);

    /// Tells of the minutes that are over.
    void Flush(TClock::time_point now = TClock::now());

    /// Tells of all, before the end.
    void FlushAll();

private:
    typedef std::pair<std::string, std::optional<uid_t>> TKey; // kind, and user or all further ones

    struct TSMinute
    {
        TClock::time_point m_end;
        size_t m_more = 0; // after the first
    };

    static void m_TellMore(const TKey& key, const TSMinute& minute);

    std::map<TKey, TSMinute> m_minutes; // that are not over
};

} // namespace agent
} // namespace kel
