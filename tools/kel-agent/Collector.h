#pragma once

#include <array>
#include <cstdint>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <kel/IDbusServer.h>

#include "common/Files.h"
#include "reports/Reporter.h"
#include "requests/RequestDrop.h"
#include "requests/RequestSlot.h"

namespace kel {
namespace agent {

/// Collects what applications have asked for: watches the places where they leave requests, and
/// makes a report of each, once. It works on a thread of its own; the kernel log is read by
/// another, in the idle scheduling class.
///
/// A request stays where it is until its report has reached the disk. While there can be none, as
/// long as the disk is full, say, it waits, and a line in the log tells why.
///
/// Threads: made, opened, stopped and destroyed on one thread.
class TCCollector
{
public:
    /// @param server  asked to ask the applications; outlives this object.
    TCCollector(IDbusServer& server, const std::string& stateDirectory,
                const TCReportStore::TSLimits& limits);
    ~TCCollector();
    TCCollector(const TCCollector&) = delete;
    TCCollector& operator=(const TCCollector&) = delete;

    /// Begins to collect.
    void Open();

    /// Returns when nothing is collected any more: the report under way is finished first.
    void Stop();

private:
    /// A request that was found, and is not taken yet.
    struct TSFound
    {
        TCRequestDrop* m_pDrop; // null: the slot
        std::string m_name;

        std::string Source() const;
        bool operator<(const TSFound& other) const;
    };

    void m_Run();
    void m_WaitForRequests(bool soon);
    bool m_Collect();
    std::vector<TSFound> m_Find(bool& unfinished);
    bool m_Serve(const TSFound& found, bool& open, std::string& reason);
    void m_LetWait(const TSFound& found, const std::string& reason);
    bool m_IsStopped() const;

    TCReporter m_reporter;
    std::array<TCRequestDrop, 2> m_drops;
    TCRequestSlot m_slot;

    std::set<TSFound> m_waiting;       // whose reason to wait was told
    std::set<TSFound> m_stillWaiting;  // of those that were found last
    std::set<std::string> m_unremoved; // stamps of requests that have a report and are still there

    tools::TCDescriptor m_changes; // of the drop directories
    tools::TCDescriptor m_stop;    // readable from Stop() on

    std::thread m_thread;
};

} // namespace agent
} // namespace kel
