#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

namespace kel {
namespace agent {

/// Whose rights a file is read with.
struct TSRequester
{
    uid_t m_user;
    gid_t m_group;
};

/// Gives up the supplementary groups of the calling thread, for good: what a group of the agent's
/// may read is not for those whose rights CopyArtefact() takes.
void LeaveGroups();

/// Copies the file that an application wants in its report.
///
/// It is read with the rights of whom asks, so that nobody gets at another's file by way of the
/// agent, and only a regular file is opened: opening some devices has effects.
///
/// @param requester    the user must be the agent's own, unless the agent is privileged.
/// @param destination  a path at which nothing is; there is nothing on failure either.
/// @param room         in bytes.
/// @param size         the copy's, on success; untouched otherwise.
/// @param reason       replaced by one line on failure; untouched otherwise.
/// @return true on success.
///
/// Threads: any; the rights are those of the calling thread alone, for the length of the call.
bool CopyArtefact(const std::string& path, const TSRequester& requester,
                  const std::string& destination, uint64_t room, uint64_t& size,
                  std::string& reason);

} // namespace agent
} // namespace kel
