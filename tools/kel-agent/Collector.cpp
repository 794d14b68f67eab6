#include "Collector.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <future>
#include <iterator>
#include <tuple>
#include <utility>

#include <kel/ICallbacks.h>
#include <kel/KELDirsManager.h>
#include <kel/KELFileSystem.h>

#include "Artefact.h"
#include "common/KernelLog.h"
#include "common/Text.h"

namespace kel {
namespace agent {

using tools::Printable;

namespace {

constexpr char kDrop[] = "/tmp/kel_NDF";
constexpr char kRebootDrop[] = "/tmp/kel_NDF_reboot";
constexpr size_t kPathCutSize = 126; // of a request file's path, by the library

constexpr int kAnswerTimeout = 5000; // of the applications, in ms
// Nothing tells of a change of the key, nor of a directory that is missing.
constexpr int kPeriod = 1000; // ms
constexpr int kSoon = 50;     // ms; for what is just being written

// What is not the artefact's: a report.json holds a path and two names, each byte of which may
// need six; the kernel log may take a quarter of all.
constexpr uint64_t kTextRoom = 48U << 10;
constexpr uint64_t kKernelLogShare = 4;
constexpr size_t kMostKernelLines = 4096;

std::string ReadReport(const std::string& directory)
{
    std::vector<unsigned char> text;
    if (directory.empty() || !TSFileSystem::GetFileContents(directory + "/" + kReportFile, text)) {
        return "";
    }
    return {text.begin(), text.end()};
}

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

} // namespace

std::string TCCollector::TSFound::Source() const
{
    return m_pDrop != nullptr ? m_pDrop->Path() : TCRequestSlot::kKey;
}

bool TCCollector::TSFound::operator<(const TSFound& other) const
{
    return std::tie(m_pDrop, m_name) < std::tie(other.m_pDrop, other.m_name);
}

TCCollector::TCCollector(IDbusServer& server, const std::string& stateDirectory,
                         const TCReportStore::TSLimits& limits)
    : m_server(server),
      m_store(stateDirectory, limits), m_drops{TCRequestDrop(kRebootDrop, true, kPathCutSize),
                                               TCRequestDrop(kDrop, false, kPathCutSize)},
      m_slot(stateDirectory), m_changes(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)),
      m_stop(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC))
{}

TCCollector::~TCCollector() { Stop(); }

void TCCollector::Open() { m_thread = std::thread(&TCCollector::m_Run, this); }

void TCCollector::Stop()
{
    eventfd_write(m_stop.Get(), 1);
    if (m_thread.joinable()) {
        m_thread.join();
    }
}

void TCCollector::m_Run()
{
    LeaveGroups();
    TCDirsManager::Initialize();
    while (!m_IsStopped()) {
        bool unfinished = false;
        try {
            unfinished = m_Collect();
        } catch (const std::exception& failure) { // out of memory, say: what waits goes on waiting
            std::fprintf(stderr, "kel-agent: collecting: %s\n", failure.what());
        }
        // Another agent may have the same one, and requests that we do not see.
        m_store.Close();
        m_WaitForRequests(unfinished);
    }
}

// Until something changes in the drop directories, or it is time to look all the same.
void TCCollector::m_WaitForRequests(bool soon)
{
    pollfd events[] = {{m_stop.Get(), POLLIN, 0}, {m_changes.Get(), POLLIN, 0}};
    poll(events, std::size(events), soon ? kSoon : kPeriod);
    // All at once: what has changed will be seen.
    alignas(inotify_event) char changes[4096];
    while (read(m_changes.Get(), changes, sizeof(changes)) > 0) {
    }
}

// Makes a report of all requests there are. True when one is just being written.
bool TCCollector::m_Collect()
{
    bool unfinished = false;
    const std::vector<TSFound> found = m_Find(unfinished);
    if (found.empty()) {
        m_waiting.clear();
        return unfinished;
    }

    std::string reason;
    bool open = m_store.Open(reason);
    if (open) { // a killed agent may have got as far as that, and no further
        m_newestStamp = StampIn(ReadReport(m_store.Newest()));
    }
    const bool areNew = std::any_of(found.begin(), found.end(), [this](const TSFound& one) {
        return m_waiting.count(one) == 0;
    });
    if (open && areNew) { // those who wait were asked for before
        m_AskApplications();
        m_ReadKernelLog();
    }
    for (const TSFound& one : found) {
        if (m_IsStopped()) {
            return false;
        }
        std::string why = reason;
        bool served = false;
        try {
            served = open && m_Serve(one, open, why);
        } catch (const std::exception& failure) { // of this one: the others do not wait for it
            why = failure.what();
        }
        if (!served) {
            m_LetWait(one, why);
        }
        if (!open) {
            reason = why; // of all that follow
        }
    }
    m_waiting.swap(m_stillWaiting);
    m_stillWaiting.clear();
    return unfinished;
}

std::vector<TCCollector::TSFound> TCCollector::m_Find(bool& unfinished)
{
    std::vector<TSFound> found;
    for (TCRequestDrop& drop : m_drops) {
        if (!drop.Open()) {
            continue;
        }
        inotify_add_watch(m_changes.Get(), drop.Path().c_str(),
                          IN_CLOSE_WRITE | IN_MOVED_TO | IN_ONLYDIR | IN_DONT_FOLLOW);
        for (std::string& name : drop.List(unfinished)) {
            found.push_back({&drop, std::move(name)});
        }
    }
    std::string value = m_slot.Waiting();
    if (!value.empty()) {
        found.push_back({nullptr, std::move(value)});
    }
    return found;
}

void TCCollector::m_AskApplications()
{
    m_applications = m_server.SendMessage(ICallbacks::REQUEST_PROCESS_INFO, {}, kAnswerTimeout);
    std::fprintf(stderr, "kel-agent: process information: %zu handled, %zu not\n",
                 m_applications.first, m_applications.second);
}

void TCCollector::m_ReadKernelLog()
{
    // It leaves its thread in the idle scheduling class. Requests are not to wait until a busy
    // device has nothing else to do.
    std::string reason;
    std::vector<std::string> lines = std::async(std::launch::async, [&reason] {
                                         std::vector<std::string> text;
                                         tools::ReadKernelLog(text, reason);
                                         return text;
                                     }).get();
    if (!reason.empty()) {
        std::fprintf(stderr, "kel-agent: the kernel log is not read: %s\n", reason.c_str());
    }
    m_kernelLines.insert(m_kernelLines.end(), std::make_move_iterator(lines.begin()),
                         std::make_move_iterator(lines.end()));
    if (m_kernelLines.size() > kMostKernelLines) {
        m_kernelLines.erase(m_kernelLines.begin(), m_kernelLines.end() - kMostKernelLines);
    }
}

// False, with the reason, when it has to wait: alone, or, with the store closed, like all others.
// Otherwise its report is made, or it is none.
bool TCCollector::m_Serve(const TSFound& found, bool& open, std::string& reason)
{
    TSRequest request;
    if (!(found.m_pDrop != nullptr ? found.m_pDrop->Take(found.m_name, request, reason)
                                   : m_slot.Take(request, reason))) {
        return reason.empty();
    }
    const bool isReported
        = request.m_stamp == m_newestStamp || m_unremoved.count(request.m_stamp) != 0;
    if (!isReported && !m_Report(request, reason)) {
        open = false;
        return false;
    }
    const bool removed
        = found.m_pDrop != nullptr ? found.m_pDrop->Remove(request, reason) : m_slot.Remove(reason);
    if (!removed) {
        m_unremoved.insert(request.m_stamp);
    }
    return removed;
}

bool TCCollector::m_Report(const TSRequest& request, std::string& reason)
{
    TCReportDraft draft(m_store);
    if (!draft.Begin(reason)) {
        return false;
    }
    TSReport report = {draft.Id(), {}, request, {}, "", m_applications, 0};
    clock_gettime(CLOCK_REALTIME, &report.m_time);
    uint64_t room = m_store.Limits().m_bytes - kTextRoom;

    const std::string kernelLog = Join(m_kernelLines, room / kKernelLogShare, report.m_kernelLines);
    if (report.m_kernelLines > 0 && !draft.Write(kKernelLogFile, kernelLog, reason)) {
        return false;
    }
    room -= kernelLog.size();
    m_AddArtefact(draft, room, report);
    const std::string text = Describe(report);
    const uint64_t size = text.size() + kernelLog.size() + report.m_artefactSize.value_or(0);
    if (!draft.Write(kReportFile, text, reason) || !draft.Finish(size, reason)) {
        return false;
    }
    m_kernelLines.clear();
    std::fprintf(stderr, "kel-agent: report %llu: %s in %s collected\n",
                 static_cast<unsigned long long>(report.m_id), Printable(request.m_name).c_str(),
                 request.m_source.c_str());
    return true;
}

// A report without its artefact is better than none.
void TCCollector::m_AddArtefact(const TCReportDraft& draft, uint64_t room, TSReport& report)
{
    const TSRequest& request = report.m_request;
    report.m_noArtefact = request.m_noPath;
    uint64_t size = 0;
    if (request.m_uploadPath && request.m_user
        && CopyArtefact(*request.m_uploadPath, {*request.m_user, request.m_group},
                        draft.PathOf(kArtefactFile), room, size, report.m_noArtefact)) {
        report.m_artefactSize = size;
    }
    if (!report.m_noArtefact.empty()) {
        std::fprintf(stderr, "kel-agent: report %llu: artefact %s not copied: %s\n",
                     static_cast<unsigned long long>(report.m_id),
                     Printable(request.m_uploadPath.value_or("")).c_str(),
                     report.m_noArtefact.c_str());
    }
}

void TCCollector::m_LetWait(const TSFound& found, const std::string& reason)
{
    m_stillWaiting.insert(found);
    if (m_waiting.count(found) == 0) {
        std::fprintf(stderr, "kel-agent: %s in %s waits: %s\n", Printable(found.m_name).c_str(),
                     found.Source().c_str(), reason.c_str());
    }
}

bool TCCollector::m_IsStopped() const
{
    pollfd stop = {m_stop.Get(), POLLIN, 0};
    return poll(&stop, 1, 0) > 0;
}

} // namespace agent
} // namespace kel
