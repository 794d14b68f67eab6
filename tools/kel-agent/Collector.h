#pragma once

#include <chrono>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Applications.h"
#include "common/Files.h"
#include "common/Outcome.h"
#include "reports/Reporter.h"
#include "requests/RequestIntake.h"
#include "requests/RequestSlot.h"

namespace kel {
namespace agent {

/// Collects what applications have asked for: takes requests in where they leave them, and makes a
/// report of each, once. It works on a thread of its own.
///
/// A request stays where it was taken to until its report has reached the disk. While there can be
/// none, as long as the disk is full, say, it waits, and a line in the log tells why.
///
/// Threads: made, opened, stopped and destroyed on one thread.
class TCCollector
{
public:
    /// @param applications  asked for information; they, the intake and the reader server outlive
    ///                      this object.
    TCCollector(TCApplications& applications, TCRequestIntake& intake,
                const std::string& stateDirectory, const TCReportStore::TSLimits& limits,
                TCReaderServer& readerServer);
    ~TCCollector();
    TCCollector(const TCCollector&) = delete;
    TCCollector& operator=(const TCCollector&) = delete;

    /// Begins to collect.
    void Open();

    /// Returns when nothing is collected any more: the report under way is finished first.
    void Stop();

private:
    enum class EProgress { Idle, More, Copying, Waiting };

    void m_Run();
    bool m_WaitForRequests(EProgress progress);
    EProgress m_Collect();
    bool m_TakeFromSlot(std::optional<TSRequest>& request);
    EProgress m_Serve(const std::vector<TSRequest>& requests, tools::TCOutcome canReport);
    std::optional<tools::TCOutcome> m_ServeOne(const TSRequest& request,
                                               tools::TCOutcome& canReport);
    void m_LetWait(const std::string& name, const std::string& source, const std::string& reason);
    bool m_IsStopped() const;

    TCReporter m_reporter;
    TCRequestIntake& m_intake;
    TCRequestSlot m_slot;

    std::set<std::string> m_told;      // of what waits, by source and name
    std::set<std::string> m_unremoved; // stamps of requests that have a report and are still there
    std::string m_gatheredSlot;        // the stamp of the slot's request that was gathered for

    tools::TCDescriptor m_stop; // readable from Stop() on

    std::thread m_thread;
};

} // namespace agent
} // namespace kel
