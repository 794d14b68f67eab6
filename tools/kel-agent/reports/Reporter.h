#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <kel/IDbusServer.h>

#include "common/KernelLog.h"
#include "common/Outcome.h"
#include "reports/Artefact.h"
#include "reports/LateResult.h"
#include "reports/ReportStore.h"
#include "reports/ReportText.h"
#include "requests/Request.h"

namespace kel {
namespace agent {

/// Makes reports of requests.
///
/// Threads: one at a time.
class TCReporter
{
public:
    /// @param server  asked to ask the applications; this and the reader server outlive this
    ///                object.
    TCReporter(IDbusServer& server, const std::string& stateDirectory,
               const TCReportStore::TSLimits& limits, TCReaderServer& readerServer);

    /// Returns when no application is asked any more: at most 5 s later.
    ~TCReporter();
    TCReporter(const TCReporter&) = delete;
    TCReporter& operator=(const TCReporter&) = delete;

    /// Has the directory of reports for this agent alone, until Close().
    tools::TCOutcome Open();
    void Close() { m_store.Close(); }

    /// Gathers what the reports that follow are to tell of all applications and of the kernel. Only
    /// for requests that are about to be served: it costs every application a message.
    ///
    /// Who answers late does not delay them: it returns after a second at most, and the reports
    /// tell that an answer was late. Late lines of the kernel log are in the reports after the next
    /// one.
    void Gather();

    /// Whether the newest report was made of this request, by an agent that was then killed. It is
    /// open.
    bool IsReported(const TSRequest& request) const { return request.m_stamp == m_newestStamp; }

    /// Makes a report that has reached the disk. It is open.
    ///
    /// @return failed when none could be made: nothing is there of it, and the next one has no
    ///         better prospects.
    tools::TCOutcome Report(const TSRequest& request);

private:
    struct TSRead
    {
        tools::TCOutcome m_outcome;
        tools::TSKernelLines m_log;
    };

    void m_TakeKernelLog(TSRead read);
    tools::TCOutcome m_AddKernelLog(TCReportDraft& draft, TSReport& report, uint64_t& size);
    void m_AddArtefact(const TCReportDraft& draft, uint64_t room, TSReport& report, uint64_t& size);

    IDbusServer& m_server;
    TCReportStore m_store;
    TCArtefactCopier m_copier;
    std::string m_newestStamp; // of the report that was the newest when the store was opened

    TCLateResult<TAnswers> m_question;
    TCLateResult<TSRead> m_reading; // in the idle class
    std::optional<TAnswers> m_applications;
    TSKernelLog m_kernelLog;                // of the next report
    std::vector<std::string> m_kernelLines; // not in any report yet
};

} // namespace agent
} // namespace kel
