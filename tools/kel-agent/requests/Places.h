#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstring>

#include "common/RequestFormat.h"

namespace kel {
namespace agent {

/// A directory in which applications leave request files.
struct TSDrop
{
    const char* m_path;
    bool m_reboot; // from who wants the device to be restarted
    char m_kind;   // in the names of what was in its place

    /// Its own name, in the directory of temporary files.
    const char* Name() const { return m_path + sizeof(tools::kTemporaryDirectory); }

    /// The longest that the library leaves in it: at that size it has cut a longer one.
    size_t NameSize() const { return tools::kLongestRequestPath - std::strlen(m_path) - 1; }
};

constexpr TSDrop kDrops[]
    = {{tools::kRebootRequestDrop, true, 'r'}, {tools::kRequestDrop, false, 'n'}};

// To be written by all, to be listed by the agent; sticky.
constexpr mode_t kDropMode = 01733;

// Of those that were taken and are not in a report yet.
constexpr char kTakenName[] = ".kel_NDF.taken";
constexpr mode_t kTakenMode = 0700;

inline const TSDrop& Drop(bool reboot) { return kDrops[reboot ? 0 : 1]; }

// What was in the place of a directory of the agent's own has this name, its kind and a random
// number until it is emptied.
constexpr char kAsidePrefix[] = ".kel_NDF.aside-";
constexpr char kAsideTaken = 't';

} // namespace agent
} // namespace kel
