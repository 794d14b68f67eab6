#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "common/Files.h"
#include "common/Outcome.h"
#include "requests/JunkLog.h"
#include "requests/Places.h"
#include "requests/Request.h"
#include "requests/RequestQueue.h"
#include "requests/TakenRequests.h"
#include "requests/Trash.h"

namespace kel {
namespace agent {

/// Takes in what applications leave in the drop directories. Anybody may leave a request there, and
/// anything else. A pass over them takes the requests and removes the rest; what it leaves behind
/// makes no later pass work.
///
/// Threads: one at a time.
class TCRequestIntake
{
public:
    typedef std::chrono::steady_clock TClock;

    /// Makes the directories, so that requests can be left from now on, with a line in the log for
    /// one that cannot be used.
    TCRequestIntake();
    ~TCRequestIntake();
    TCRequestIntake(const TCRequestIntake&) = delete;
    TCRequestIntake& operator=(const TCRequestIntake&) = delete;

    /// Readable when something has changed.
    int Changes() const { return m_changes.Get(); }

    /// Reads what has changed.
    void ReadChanges();

    /// When there is something to do without a change.
    TClock::time_point Due() const;

    /// Makes a pass, if one is due.
    void Look();

    /// Requests that can be served, of all users in turns. They stay until they are removed.
    ///
    /// @param areNew  set when there is one among them that has not been there at the last
    ///                SetGathered().
    std::vector<TSRequest> Batch(size_t most, bool& areNew);

    /// Those that are there share what was gathered.
    void SetGathered();

    tools::TCOutcome Remove(const TSRequest& request);

    /// Removes those that a killed agent has made a report of. Called before the first report of
    /// this one.
    void RemoveReported(const std::function<bool(const TSRequest&)>& isReported);

private:
    tools::TCOutcome m_OpenParent();
    tools::TCOutcome m_Open();
    void m_FindTaken();
    void m_LookInto(const TSDrop& drop, TCPassLimit& limit);
    void m_SweepAsides(TCPassLimit& limit);
    EFound m_Take(int directory, const std::string& name, const std::string& original,
                  const TSDrop& drop, unsigned char type);
    bool m_TakeOrThrow(int directory, const std::string& name, const TSDrop& drop,
                       unsigned char type, TCPassLimit& limit);
    bool m_Throw(int directory, const std::string& name, const TSDrop& drop, EFound found);
    std::optional<bool> m_Salvage(char kind, int directory, const std::string& name,
                                  unsigned char type, TCPassLimit& limit);
    TCRequestQueue::EAnswer m_Read(const std::string& name, TCRequestQueue::TSEntry& entry,
                                   TSRequest& request);
    bool m_IsWaitedFor(int file, const std::string& name, TCRequestQueue::TSEntry& entry,
                       const struct stat& status);
    void m_LookSoon(std::chrono::milliseconds delay);
    void m_TellUsable(const std::string& path, const tools::TCOutcome& outcome);

    tools::TCDescriptor m_changes;
    int m_takenWatch = -1;
    tools::TCDescriptor m_parent; // of all of them
    TCTakenRequests m_taken;
    TCTrash m_trash;
    TCRequestQueue m_queue;
    TCJunkLog m_junk;
    TClock::time_point m_due;  // of the next pass
    bool m_asides = true;      // there may be some
    bool m_resumed = false;    // the taken ones were found, and not compared with reports
    bool m_writerEnds = false; // one has closed a request that was taken
    std::map<std::string, std::string> m_unusable; // why, by path
};

} // namespace agent
} // namespace kel
