#pragma once

#include <sys/stat.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>

#include "common/Files.h"
#include "common/Outcome.h"

namespace kel {
namespace agent {

/// How much one pass over a directory of strangers' things does. What is left is left to the next
/// one, so that requests are served in between, and found behind what is to be removed.
class TCPassLimit
{
public:
    typedef std::chrono::steady_clock TClock;

    /// Whether the pass has looked at so much that it is over.
    bool IsOver();

    /// Whether it may remove one more.
    bool MayRemove();

    /// Whether there is something left.
    bool IsCut() const { return m_cut; }

private:
    const TClock::time_point m_end = TClock::now() + std::chrono::milliseconds(250);
    size_t m_removable = 16384;
    bool m_cut = false;
};

/// Directories that others have made and that are to go, and all that is in them. They are moved
/// into a directory that nobody else can enter, and made the agent's own one by one: nobody can
/// change them under the hands of who empties them. It takes no more memory and no more open files
/// for many or for deep ones.
///
/// Threads: one at a time.
class TCTrash
{
public:
    /// Opens the trash that is there, or a fresh one.
    ///
    /// @param parent  a directory of the agent's alone.
    tools::TCOutcome Open(int parent);

    /// Moves what has this name in another directory in here, in one step, whatever it is.
    ///
    /// @param kind    of its contents, for Empty().
    /// @param moved   replaced by its name in here.
    /// @param status  replaced by what it was, with the owner that it had.
    /// @return true on success, otherwise false with errno set.
    bool Move(int directory, const std::string& name, char kind, std::string& moved,
              struct stat& status);

    /// Removes what was moved, unless it is a directory that has to be emptied first.
    void Remove(const std::string& moved) const;

    int Get() const { return m_directory.Get(); }

    /// What becomes of an entry of a directory of this kind: true when it has gone, false when it
    /// is to stay for now, nothing when it is to be removed like any other.
    typedef std::function<std::optional<bool>(char kind, int directory, const std::string& name,
                                              unsigned char type)>
        TSalvage;

    /// Goes on with emptying it.
    ///
    /// @return true when there may be more to do at once.
    bool Empty(TCPassLimit& limit, const TSalvage& salvage);

    static constexpr char kName[] = "trash";
    static constexpr char kPlain = 'x'; // a kind that has nothing worth to be taken

private:
    bool m_RemoveFrom(int directory, const std::string& name);
    bool m_EmptyOne(const std::string& name, TCPassLimit& limit, const TSalvage& salvage);

    tools::TCDescriptor m_directory;
    unsigned long long m_number = 0;
};

} // namespace agent
} // namespace kel
