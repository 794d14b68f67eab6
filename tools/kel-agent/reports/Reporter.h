#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Applications.h"
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
    /// @param applications  asked for information; they and the reader server outlive this object.
    TCReporter(TCApplications& applications, const std::string& stateDirectory,
               const TCReportStore::TSLimits& limits, TCReaderServer& readerServer);

    /// Returns when no application is asked any more: at most 5 s later.
    ~TCReporter();
    TCReporter(const TCReporter&) = delete;
    TCReporter& operator=(const TCReporter&) = delete;

    /// Has the directory of reports for this agent alone, until Close().
    tools::TCOutcome Open();
    ///
    /// It stays open as long as an artefact is being copied, and has to be called again then.
    void Close();

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
    ///         better prospects. Nothing when an artefact of this user's is still being copied:
    ///         then it is to be called again, when those of others have been served.
    std::optional<tools::TCOutcome> Report(const TSRequest& request);

    /// Readable when there can be the report of one that was copied, until ReadCopied().
    int Copied() const { return m_copier.Ends(); }
    void ReadCopied() { m_copier.ReadEnds(); }

private:
    typedef std::chrono::steady_clock TClock;

    struct TSRead
    {
        tools::TCOutcome m_outcome;
        tools::TSKernelLines m_log;
    };

    // A report whose artefact is being copied.
    struct TSCopying
    {
        TSCopying(TCReportStore& store, const TSRequest& request)
            : m_stamp(request.m_stamp), m_begun(TClock::now()), m_draft(store, request.m_user)
        {}

        const std::string m_stamp;
        const TClock::time_point m_begun;
        TCReportDraft m_draft;
    };

    void m_ForgetCopies();
    void m_TakeKernelLog(TSRead read);
    std::string m_KernelLogText(size_t& lines) const;
    uint64_t m_RoomFor(const TOwner& owner, uint64_t kernelLog) const;
    std::optional<tools::TCOutcome> m_BeginCopy(const TSRequest& request);
    std::optional<tools::TCOutcome> m_FinishCopied(std::map<uid_t, TSCopying>::iterator copying,
                                                   const TSRequest& request);
    tools::TCOutcome m_Finish(TCReportDraft& draft, const TSRequest& request,
                              const TSArtefact& artefact);
    tools::TCOutcome m_AddKernelLog(TCReportDraft& draft, TSReport& report, uint64_t& size);
    void m_AddArtefact(TCReportDraft& draft, uint64_t room, const TSArtefact& artefact,
                       TSReport& report, uint64_t& size);

    TCApplications& m_clients;
    TCReportStore m_store;
    std::map<uid_t, TSCopying> m_copyings; // one of a user
    TCArtefactCopier m_copier;             // gone before the drafts that it writes to
    std::string m_newestStamp; // of the report that was the newest when the store was opened

    TCLateResult<TAnswers> m_question;
    TCLateResult<TSRead> m_reading; // in the idle class
    std::optional<TAnswers> m_applications;
    TSKernelLog m_kernelLog;                // of the next report
    std::vector<std::string> m_kernelLines; // not in any report yet
};

} // namespace agent
} // namespace kel
