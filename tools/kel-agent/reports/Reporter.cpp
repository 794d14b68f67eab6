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

using tools::Printable;
using tools::TCOutcome;
using namespace std::chrono_literals;

namespace {

constexpr int kAnswerTimeout = 5000; // of the applications, in ms
constexpr auto kPatience = 1s;       // with the applications and the kernel log

// What is not the artefact's: a report.json holds a path and two names, each byte of which may
// need six; the kernel log may take a quarter of all.
constexpr uint64_t kTextRoom = 48U << 10;
constexpr uint64_t kKernelLogShare = 4;
constexpr size_t kMostKernelLines = 4096;

// The newest lines that fit.
std::string Join(const std::vector<std::string>& lines, uint64_t room, size_t& count)
{
    uint64_t size = 0;
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

TCReporter::TCReporter(IDbusServer& server, const std::string& stateDirectory,
                       const TCReportStore::TSLimits& limits, TCReaderServer& readerServer)
    : m_server(server), m_store(stateDirectory, limits),
      m_copier(limits.m_bytes, readerServer), m_kernelLog{TSKernelLog::EState::Late, "", false, 0}
{}

TCReporter::~TCReporter()
{
    if (!m_reading.WaitForEnd(std::chrono::steady_clock::now() + kPatience)) {
        EndWithoutDestructors();
    }
    while (!m_question.WaitForEnd(std::chrono::steady_clock::now() + kPatience)) {
    }
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
    m_question.Begin([this] {
        const TAnswers answers
            = m_server.SendMessage(ICallbacks::REQUEST_PROCESS_INFO, {}, kAnswerTimeout);
        std::fprintf(stderr, "kel-agent: process information: %zu handled, %zu not\n",
                     answers.first, answers.second);
        return answers;
    });
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

TCOutcome TCReporter::Report(const TSRequest& request)
{
    TCReportDraft draft(m_store, request.m_user);
    if (TCOutcome begun = draft.Begin(); !begun) {
        return begun;
    }
    TSReport report = {draft.Id(), {}, request, {}, "", m_applications, m_kernelLog};
    clock_gettime(CLOCK_REALTIME, &report.m_time);
    uint64_t size = 0;
    if (TCOutcome added = m_AddKernelLog(draft, report, size); !added) {
        return added;
    }
    const uint64_t taken = kTextRoom + size;
    const uint64_t room = m_store.Shares().RoomFor(request.m_user);
    m_AddArtefact(draft, room - std::min(room, taken), report, size);
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
    const uint64_t room = (m_store.Shares().Limits().m_bytes - kTextRoom) / kKernelLogShare;
    TSKernelLog& log = report.m_kernelLog;
    const std::string text = Join(m_kernelLines, room, log.m_lines);
    log.m_gap = log.m_gap || log.m_lines < m_kernelLines.size();
    size += text.size();
    return log.m_lines > 0 ? draft.Write(kKernelLogFile, text) : TCOutcome();
}

// A report without its artefact is better than none.
void TCReporter::m_AddArtefact(const TCReportDraft& draft, uint64_t room, TSReport& report,
                               uint64_t& size)
{
    const TSRequest& request = report.m_request;
    report.m_noArtefact = request.m_noPath;
    if (request.m_uploadPath && request.m_user) {
        TSArtefact artefact;
        const TCOutcome copied = m_copier.Copy(*request.m_uploadPath, *request.m_user,
                                               draft.PathOf(kArtefactFile), room, artefact);
        if (copied) {
            report.m_artefactSize = artefact.m_size;
            size += artefact.m_written;
        } else {
            report.m_noArtefact = copied.Reason();
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
