#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <functional>
#include <string>

#include "common/Files.h"
#include "common/Outcome.h"
#include "requests/ExactDirectory.h"
#include "requests/Request.h"

namespace kel {
namespace agent {

/// What can be found under a request's name, and what becomes of it.
enum class EFound {
    Request,   // it was taken
    Gone,      // meanwhile
    BadName,   // the library makes none like that
    NoFile,    // a directory, a link, a FIFO, ...
    ManyNames, // hard links: perhaps another's content
    TooMany,   // of one user
    Mounted,   // something is mounted there
    NotNow,    // it cannot be taken, see errno
};

/// The requests that were taken and are not in a report yet. They are in a directory that nobody
/// else can enter, under names of the agent's own, so that nothing that anybody does afterwards
/// stands in their way, and that an agent which follows a killed one finds them.
///
/// Threads: one at a time.
class TCTakenRequests
{
public:
    TCTakenRequests();

    /// Has the directory, for this agent alone: opens it, unless it is open and still there.
    ///
    /// @param parent  the directory that it is in, open.
    /// @param anew    set when it was opened now: there may be requests in it.
    tools::TCOutcome Open(int parent, bool& anew);

    /// Makes a missing directory, or one that is not exact, and leaves it to whom it is opened by.
    tools::TCOutcome Make(int parent) const;

    int Get() const { return m_directory.Get(); }

    typedef std::function<bool(uid_t user)> THasRoom;

    /// Takes what has this name in another directory, in one step, if it is a request.
    ///
    /// @param original  the name that the request was given.
    /// @param hasRoom   for one more of a user.
    /// @param taken     replaced by its name in here when something was moved: by the time it was,
    /// it
    ///                  may be no request any more, and is to be removed.
    /// @param status    of what was found; all zero when that cannot be told.
    EFound Take(int directory, const std::string& name, const std::string& original, bool reboot,
                const THasRoom& hasRoom, std::string& taken, struct stat& status);

    /// Reads one that was taken: its file is open.
    static bool Read(int file, const std::string& taken, const struct stat& status,
                     TSRequest& request);

    tools::TCOutcome Remove(const std::string& taken) const;

private:
    const TCExactDirectory m_place;
    tools::TCDescriptor m_directory;
    uint64_t m_number; // of the next one
};

} // namespace agent
} // namespace kel
