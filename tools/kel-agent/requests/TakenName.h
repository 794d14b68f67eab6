#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>

namespace kel {
namespace agent {

/// The agent's own name of a request that it has taken: sorted by these names, the oldest comes
/// first. It keeps the name that the request had, for an agent that follows a killed one, and no
/// two requests ever have the same.
struct TSTakenName
{
    uint64_t m_filed;  // ns; when the file was last changed, which nobody can set
    uint64_t m_number; // that no other request has, of 48 bits
    bool m_reboot;     // the drop that it was taken from
    std::string m_name;

    /// The name of the file; with a name of 113 bytes it has the 255 that a file system gives.
    std::string Text() const;

    /// @return false, with the result untouched, for a text that Text() does not make.
    static bool Read(const std::string& text, TSTakenName& name);

    /// The first number of an agent: behind those of all that were killed before it.
    static uint64_t FirstNumber();

    static uint64_t Filed(const struct stat& status);
};

} // namespace agent
} // namespace kel
