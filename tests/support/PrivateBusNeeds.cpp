// What not every bus daemon can do. Tests that need it are skipped here, and nowhere else.

#include <filesystem>
#include <fstream>

#include "support/PrivateBus.h"
#include "support/Sandbox.h"

namespace kel::test {

void PrivateBus::AddService(const std::string& busName, const std::string& commandLine)
{
    if (IsBroker()) {
        Skip("dbus-broker starts programs through systemd alone");
    }
    // Written beside and renamed, so that the daemon never reads half of it.
    const std::string path = m_directory + "/" + busName;
    std::ofstream(path) << "[D-BUS Service]\nName=" << busName << "\nExec=" << commandLine
                        << "\nUser=root\n";
    std::filesystem::rename(path, m_directory + "/services/" + busName + ".service");
}

void PrivateBus::NeedReplyLimit()
{
    if (IsBroker()) {
        Skip("dbus-broker has no limit of its own for the replies that a connection waits for");
    }
}

} // namespace kel::test
