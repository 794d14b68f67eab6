#pragma once

#include <sys/types.h>

#include <chrono>
#include <csignal>
#include <functional>
#include <map>
#include <set>
#include <vector>

#include "common/Files.h"

namespace kel {
namespace testbus {

/// Thrown by who waits when a signal asks this program to end.
struct TSInterrupted
{
    int m_signal;
};

/// The processes that this one has started, and all that they start: what loses its parent becomes
/// a child of this process. With this object all of them are gone. With this process, should it be
/// killed, those that it has started itself.
///
/// Threads: for a process of one thread, before and after.
class TCFamily
{
public:
    /// Takes the signals that ask to end.
    ///
    /// @throws std::system_error
    TCFamily();

    /// Ends every process, by SIGKILL at last.
    ~TCFamily();
    TCFamily(const TCFamily&) = delete;
    TCFamily& operator=(const TCFamily&) = delete;

    enum class EGroup {
        Ours, // a terminal's signals reach it
        Own
    };

    /// Starts a process.
    ///
    /// @param run  what it does; it does not return.
    /// @throws std::system_error
    pid_t Start(EGroup group, const std::function<void()>& run);

    /// Waits until a descriptor can be read, or its other end is closed.
    ///
    /// @throws TSInterrupted
    void WaitReadable(int descriptor);

    /// Waits for the end of a process that Start() has started. Signals that ask this program to
    /// end are handed on to it; it is killed when it takes no notice.
    ///
    /// @param onOther  called for each other one that has ended, with its status as waitpid()
    /// tells.
    /// @return its exit status, or 128 and the signal that has ended it.
    int Wait(pid_t process, const std::function<void(pid_t process, int status)>& onOther);

private:
    typedef std::chrono::steady_clock TClock;

    struct TSSignal
    {
        int m_number;
        bool m_isTyped; // at a terminal, which has sent it to all in front of it
    };

    TSSignal m_NextSignal(int timeout);
    void m_HandOn(pid_t process);
    bool m_Reap();
    std::vector<pid_t> m_Children() const;

    sigset_t m_earlier; // the signals that were blocked before
    tools::TCDescriptor m_signals;
    std::set<pid_t> m_started;
    std::map<pid_t, int> m_ended;  // of those, with their status, until somebody is told
    TClock::time_point m_patience; // until then, somebody may take notice of a signal
    bool m_isImpatient;
};

/// Starts a program in place of this process, which ends when it cannot, as a shell does.
[[noreturn]] void BecomeProgram(const std::vector<std::string>& command);

} // namespace testbus
} // namespace kel
