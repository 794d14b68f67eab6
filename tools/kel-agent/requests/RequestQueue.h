#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <string>

namespace kel {
namespace agent {

/// The requests that were taken and wait for their reports, by user: each has room for so many, and
/// users are served in turns, each one's oldest first. Nobody waits for another one's flood.
///
/// Threads: one at a time.
class TCRequestQueue
{
public:
    typedef std::chrono::steady_clock TClock;

    static constexpr size_t kMostOfAUser = 4096;
    static constexpr size_t kMostOfAll = 16384;
    static constexpr size_t kMostWriters = 64; // of a user, that are waited for

    /// A writer that still has a request open.
    struct TSWriter
    {
        TClock::time_point m_next;         // when to look again without having been told
        TClock::time_point m_end;          // of the patience with it
        std::chrono::milliseconds m_delay; // until the look after the next
        timespec m_changed;                // the file, when it was looked at
        bool m_isOver = false;             // the patience, or what was waited for
    };

    struct TSEntry
    {
        bool m_new = true; // since what its report is to tell of the system was gathered
        std::optional<TSWriter> m_writer;
    };

    /// Whether there is room for one more of a user: as long as all have fewer than kMostOfAll, for
    /// kMostOfAUser; otherwise for an equal share.
    bool HasRoom(uid_t user) const;

    void Add(uid_t user, const std::string& name);
    void Remove(const std::string& name);
    void Clear();

    bool IsEmpty() const { return m_users.empty(); }
    size_t Size() const { return m_owners.size(); }

    enum class EAnswer { Ready, NotYet, Gone };
    typedef std::function<EAnswer(const std::string& name, TSEntry& entry)> TQuestion;

    /// Asks in turns, from the user behind the last one of whom one was removed on, until so many
    /// are ready. Those that are gone are removed.
    void AskInTurns(size_t most, const TQuestion& question);

    /// Whether one more writer of the user who has left this one is waited for.
    bool HasRoomForAWriter(const std::string& name) const;
    void SetWriter(const std::string& name, TSEntry& entry, const TSWriter& writer);

    /// When the first of the writers is to be looked at again.
    TClock::time_point NextWriter() const;

    void ForEach(const std::function<void(const std::string& name, TSEntry& entry)>& visit);

private:
    struct TSUser
    {
        std::map<std::string, TSEntry> m_entries;
        size_t m_writers = 0;
    };

    std::map<uid_t, TSUser> m_users; // none is empty
    std::map<std::string, uid_t> m_owners;
    uid_t m_last = 0; // whose turn was the last
};

} // namespace agent
} // namespace kel
