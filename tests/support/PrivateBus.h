#pragma once

#include <memory>
#include <string>

#include "support/ChildProcess.h"

namespace kel::test {

/// A bus daemon of the test's own: of the system type, denying by default what a device's system
/// bus denies, with the project's bus policy. The library finds it in place of the system bus.
///
/// It is a dbus-daemon, unless KEL_TEST_BUS=dbus-broker asks for the other one.
///
/// One per process, made first and destroyed last: the library's connection ends the process when
/// its bus goes away.
class PrivateBus
{
public:
    struct TSOptions
    {
        bool m_projectPolicy = true;   // the files in packaging/dbus
        bool m_thisUserIsAgent = true; // also when it is not root, whom the files name
        std::string m_config;          // more elements of <busconfig>: limits, policies
    };

    PrivateBus();
    explicit PrivateBus(const TSOptions& options);
    ~PrivateBus();

    /// Whether it is a dbus-broker.
    static bool IsBroker();

    const std::string& Address() const { return m_address; }

    /// Has the bus start a program when somebody calls a name that nobody owns. Skips the running
    /// test on a bus that starts none.
    void AddService(const std::string& busName, const std::string& commandLine);

    /// Skips the running test on a bus that knows no "max_replies_per_connection".
    static void NeedReplyLimit();

    /// A private directory, gone with this object.
    const std::string& Directory() const { return m_directory; }

    /// Waits until nothing holds this process's connection to the system bus any more. Needs a
    /// running main loop for what GDBus still has under way there.
    static bool WaitForDisconnection();

    /// Ends the daemon, before the time.
    void Kill();

private:
    std::string m_directory;
    std::string m_address;
    std::unique_ptr<ChildProcess> m_daemon;
};

/// A directory of this process's own, under TMPDIR or "/tmp".
std::string MakeDirectory();

} // namespace kel::test
