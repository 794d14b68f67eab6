#pragma once

#include <optional>
#include <string>

typedef struct _GDBusConnection GDBusConnection;

namespace kel {
namespace tools {

/// Who is behind a connection of the bus, as far as the bus and the kernel tell this user.
struct TSBusPeer
{
    std::optional<unsigned int> m_process;
    std::optional<unsigned int> m_user;
    /// The file that the process runs; where this user may not see that, the name that the process
    /// has given itself. Empty when neither is known. A stranger's text.
    std::string m_program;

    /// Asks the bus, for a second at most; what it does not tell is missing.
    static TSBusPeer Of(GDBusConnection* connection, const std::string& uniqueName);
};

} // namespace tools
} // namespace kel
