#include "reports/Reporter.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iterator>

#include <kel/ICallbacks.h>

#include "common/Text.h"

namespace kel {
namespace agent {

using tools::Now;
using tools::Printable;
using tools::TCOutcome;
using namespace std::chrono_literals;

namespace {

constexpr auto kPatience = 1s; // with the applications and the kernel log

// Others are served while a copy takes longer. One of which nobody has taken the end has lost its
// request.
constexpr auto kCopyPatience = 20ms;
constexpr auto kLongestCopy = 30s;
constexpr size_t kMostCopies = 4; // at a time: each may take all the room there is

// What is not the artefact's: a report.json holds a path and two names, each byte of which may
// need six; the kernel log may take a quarter of all.
constexpr uint64_t kTextRoom = 48U << 10;
constexpr uint64_t kKernelLogShare = 4;
constexpr size_t kMostKernelLines = 4096;

// The newest lines that fit.
std::string Join(const std::vector<std::string>& lines, uint64_t room, size_t& count)
{
    size_t size = 0;
    auto first = lines.end();
    while (first != lines.begin() && size + std::prev(first)->size() + 1 <= room) {
        --first;
        size += first->size() + 1;
    }
    std::string text;
    text.reserve(size);
    for (auto line = first; line != lines.end(); ++line) {
        text.append(*line).push_back('\n');
    }
    count = static_cast<size_t>(lines.end() - first);
    return text;
}

// The thread that reads the kernel log cannot be told to end while a "dmesg" does not, and it uses
// the library's variables, which the end of the process destroys.
void EndWithoutDestructors()
{
    on_exit(
        [](int status, void*) {
            std::fflush(nullptr);
            _exit(status);
        },
        nullptr);
}

} // namespace

TCReporter::TCReporter(TCApplications& applications, const std::string& stateDirectory,
                       const TCReportStore::TSLimits& limits, TCReaderServer& readerServer)
    : m_clients(applications), m_store(stateDirectory, limits),
      m_copier(limits.m_bytes, readerServer), m_kernelLog{TSKernelLog::EState::Late, "", false, 0}
{}

TCReporter::~TCReporter()
{
    if (!m_reading.WaitForEnd(std::chrono::steady_clock::now() + kPatience)) {
        EndWithoutDestructors();
    }
    m_question.Drop();
}

TCOutcome TCReporter::Open()
{
    TCOutcome opened = m_store.Open();
    if (opened) {
        // A killed agent may have got as far as that, and no further.
        m_newestStamp = m_store.Newest().m_stamp;
    }
    return opened;
}

void TCReporter::Gather()
{
    if (auto late = m_reading.Take(0s)) {
        m_TakeKernelLog(std::move(*late));
    }
    m_question.Take(0s); // of requests before
    m_question.Begin([this] { return m_clients.Send(ICallbacks::REQUEST_PROCESS_INFO); });
    // It leaves its thread in the idle scheduling class: on a busy device it may take long.
    m_reading.Begin([] {
        TSRead read;
        read.m_outcome = tools::ReadKernelLog(read.m_log);
        return read;
    });
    m_applications = m_question.Take(kPatience);
    if (auto read = m_reading.Take(kPatience)) {
        m_TakeKernelLog(std::move(*read));
    } else {
        m_kernelLog.m_state = TSKernelLog::EState::Late;
        m_kernelLog.m_reason = "it was not read within " + std::to_string(kPatience.count()) + " s";
    }
}

void TCReporter::m_TakeKernelLog(TSRead read)
{
    const std::string reason
        = read.m_log.m_isMute ? "dmesg gives no line" : read.m_outcome.Reason();
    if (!read.m_outcome && reason != m_kernelLog.m_reason) {
        std::fprintf(stderr, "kel-agent: the kernel log is not read: %s\n", reason.c_str());
    }
    m_kernelLog.m_state
        = reason.empty() ? TSKernelLog::EState::Complete : TSKernelLog::EState::Unavailable;
    m_kernelLog.m_reason = reason;
    std::vector<std::string>& lines = read.m_log.m_lines;
    m_kernelLines.insert(m_kernelLines.end(), std::make_move_iterator(lines.begin()),
                         std::make_move_iterator(lines.end()));
    const bool tooMany = m_kernelLines.size() > kMostKernelLines;
    if (tooMany) {
        m_kernelLines.erase(m_kernelLines.begin(), m_kernelLines.end() - kMostKernelLines);
    }
    m_kernelLog.m_gap = m_kernelLog.m_gap || read.m_log.m_gap || tooMany;
}

std::optional<TCOutcome> TCReporter::Report(const TSRequest& request)
{
    const auto copying = request.m_user ? m_copyings.find(*request.m_user) : m_copyings.end();
    if (copying != m_copyings.end()) {
        return copying->second.m_stamp == request.m_stamp ? m_FinishCopied(copying, request)
                                                          : std::nullopt;
    }
    if (request.m_uploadPath && request.m_user) {
        return m_BeginCopy(request);
    }
    TCReportDraft draft(m_store, request.m_user);
    TCOutcome begun = draft.Begin();
    return begun ? m_Finish(draft, request, TSArtefact()) : begun;
}

std::optional<TCOutcome> TCReporter::m_BeginCopy(const TSRequest& request)
{
    if (m_copyings.size() >= kMostCopies) {
        return std::nullopt;
    }
    const uid_t user = *request.m_user;
    const auto copying = m_copyings.try_emplace(user, m_store, request).first;
    TCReportDraft& draft = copying->second.m_draft;
    TCOutcome begun = draft.Begin();
    if (!begun) {
        m_copyings.erase(copying);
        return begun;
    }
    size_t lines = 0;
    m_copier.Begin(*request.m_uploadPath, user, draft.PathOf(kArtefactFile),
                   m_RoomFor(request.m_user, m_KernelLogText(lines).size()));
    return m_FinishCopied(copying, request);
}

std::optional<TCOutcome> TCReporter::m_FinishCopied(std::map<uid_t, TSCopying>::iterator copying,
                                                    const TSRequest& request)
{
    const auto artefact = m_copier.Take(copying->first, kCopyPatience);
    if (!artefact) {
        return std::nullopt;
    }
    TCOutcome finished = m_Finish(copying->second.m_draft, request, *artefact);
    m_copyings.erase(copying);
    return finished;
}

void TCReporter::Close()
{
    m_ForgetCopies();
    if (m_copyings.empty()) {
        m_store.Close();
    }
}

void TCReporter::m_ForgetCopies()
{
    const TClock::time_point oldest = TClock::now() - kLongestCopy;
    for (auto copying = m_copyings.begin(); copying != m_copyings.end();) {
        if (copying->second.m_begun < oldest) {
            m_copier.GiveUp(copying->first);
            copying = m_copyings.erase(copying);
        } else {
            ++copying;
        }
    }
}

// The newest lines that have room.
std::string TCReporter::m_KernelLogText(size_t& lines) const
{
    return Join(m_kernelLines, (m_store.Shares().Limits().m_bytes - kTextRoom) / kKernelLogShare,
                lines);
}

// For an artefact beside all else.
uint64_t TCReporter::m_RoomFor(const TOwner& owner, uint64_t kernelLog) const
{
    const uint64_t room = m_store.Shares().RoomFor(owner);
    return room - std::min(room, kTextRoom + kernelLog);
}

TCOutcome TCReporter::m_Finish(TCReportDraft& draft, const TSRequest& request,
                               const TSArtefact& artefact)
{
    TSReport report = {draft.Id(), Now(), request, {}, "", m_applications, m_kernelLog};
    uint64_t size = 0;
    if (TCOutcome added = m_AddKernelLog(draft, report, size); !added) {
        return added;
    }
    m_AddArtefact(draft, m_RoomFor(request.m_user, size), artefact, report, size);
    const std::string text = Describe(report);
    if (TCOutcome written = draft.Write(kReportFile, text); !written) {
        return written;
    }
    if (TCOutcome finished = draft.Finish(size + text.size()); !finished) {
        return finished;
    }
    m_kernelLines.clear();
    m_kernelLog.m_gap = false;
    std::fprintf(stderr, "kel-agent: report %llu: %s in %s collected\n",
                 static_cast<unsigned long long>(report.m_id), Printable(request.m_name).c_str(),
                 request.m_source.c_str());
    return TCOutcome();
}

TCOutcome TCReporter::m_AddKernelLog(TCReportDraft& draft, TSReport& report, uint64_t& size)
{
    TSKernelLog& log = report.m_kernelLog;
    const std::string text = m_KernelLogText(log.m_lines);
    log.m_gap = log.m_gap || log.m_lines < m_kernelLines.size();
    size += text.size();
    return log.m_lines > 0 ? draft.Write(kKernelLogFile, text) : TCOutcome();
}

// A report without its artefact is better than none.
void TCReporter::m_AddArtefact(TCReportDraft& draft, uint64_t room, const TSArtefact& artefact,
                               TSReport& report, uint64_t& size)
{
    const TSRequest& request = report.m_request;
    report.m_noArtefact = request.m_noPath;
    if (request.m_uploadPath && request.m_user) {
        report.m_noArtefact = artefact.m_outcome.Reason();
        if (artefact.m_outcome && artefact.m_written > room) { // others have come meanwhile
            draft.Remove(kArtefactFile);
            report.m_noArtefact = NoRoom(artefact.m_written, room);
        }
        if (report.m_noArtefact.empty()) {
            report.m_artefactSize = artefact.m_size;
            size += artefact.m_written;
        }
    }
    if (!report.m_noArtefact.empty()) {
        std::fprintf(stderr, "kel-agent: report %llu: artefact %s not copied: %s\n",
                     static_cast<unsigned long long>(report.m_id),
                     Printable(request.m_uploadPath.value_or("")).c_str(),
                     report.m_noArtefact.c_str());
    }
}

} // namespace agent
} // namespace kel
