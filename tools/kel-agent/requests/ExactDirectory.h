#pragma once

#include <sys/types.h>

#include <string>

#include "common/Files.h"
#include "common/Outcome.h"

namespace kel {
namespace agent {

/// A directory of the agent's own in a place where anybody may have made one before: in the sticky
/// /tmp. It is exact, or it is not used: a directory that belongs to the agent's user, of one mode,
/// and without an ACL. Whatever else has its name changes names with a fresh one: the agent never
/// works in what somebody else has made, whose rights, locks and open files would live on.
///
/// Threads: one at a time.
class TCExactDirectory
{
public:
    /// @param name   in the directory that it is opened in.
    /// @param aside  how the names begin that are given to what is in its place.
    TCExactDirectory(std::string name, mode_t mode, std::string aside);

    /// Opens the one that is there now, or a fresh one.
    ///
    /// @param parent     an open directory.
    /// @param directory  replaced on success; untouched otherwise.
    /// @param moved      set when something was moved aside.
    tools::TCOutcome Open(int parent, tools::TCDescriptor& directory, bool& moved) const;

private:
    tools::TCOutcome m_Replace(int parent, bool& moved) const;
    tools::TCOutcome m_Make(int parent, const std::string& name) const;

    const std::string m_name;
    const mode_t m_mode;
    const std::string m_aside;
};

} // namespace agent
} // namespace kel
