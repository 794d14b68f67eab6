#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <mutex>
#include <string>
#include <utility>

#include <kel/ICallbacks.h>
#include <kel/KELDbusServer.h>

namespace kel {
namespace agent {

/// The applications that have introduced themselves, as far as the agent's events go: sends these,
/// and keeps count of what has become of them for each application, as long as it is on the bus.
///
/// Threads: any.
class TCApplications
{
public:
    /// @param server  may be made after this object, and used by nobody before.
    explicit TCApplications(TCDbusServer& server) : m_server(server) {}
    TCApplications(const TCApplications&) = delete;
    TCApplications& operator=(const TCApplications&) = delete;

    /// Sends an event to all that have asked for it, and waits for their answers for 5 s at most.
    /// Who has not handled it, and why, and the two counts go to standard error.
    ///
    /// @return (applications that handled it, applications that did not).
    std::pair<size_t, size_t> Send(ICallbacks::ECallbackType event);

    /// What is known of each, as a JSON object. It tells neither process nor user, which are not
    /// the agent's to tell.
    std::string Tell();

private:
    struct TSRecord
    {
        std::string m_who; // for the log
        size_t m_handled = 0;
        size_t m_refused = 0;
        size_t m_timedOut = 0;
        size_t m_unreachable = 0;
        std::chrono::microseconds m_last{0};
        std::chrono::microseconds m_slowest{0};

        size_t Sent() const { return m_handled + m_refused + m_timedOut + m_unreachable; }
        size_t& CountOf(EFailure kind);
    };

    void m_Meet();
    void m_Note(const TSClientOutcome& outcome);
    std::string m_Who(const std::string& uniqueName);

    TCDbusServer& m_server;
    std::mutex m_mutex;
    std::map<std::string, TSRecord> m_records; // by unique name; guarded by m_mutex
};

} // namespace agent
} // namespace kel
