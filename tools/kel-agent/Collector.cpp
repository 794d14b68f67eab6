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
#include <exception>
#include <iterator>
#include <tuple>
#include <utility>

#include <kel/KELDirsManager.h>

#include "common/Text.h"

namespace kel {
namespace agent {

using tools::Printable;

namespace {

constexpr char kDrop[] = "/tmp/kel_NDF";
constexpr char kRebootDrop[] = "/tmp/kel_NDF_reboot";
constexpr size_t kPathCutSize = 126; // of a request file's path, by the library

// Nothing tells of a change of the key, nor of a directory that is missing.
constexpr int kPeriod = 1000; // ms
constexpr int kSoon = 50;     // ms; for what is just being written

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
    : m_reporter(server, stateDirectory, limits), m_drops{TCRequestDrop(kRebootDrop, true,
                                                                        kPathCutSize),
                                                          TCRequestDrop(kDrop, false,
                                                                        kPathCutSize)},
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
    TCDirsManager::Initialize();
    while (!m_IsStopped()) {
        bool unfinished = false;
        try {
            unfinished = m_Collect();
        } catch (const std::exception& failure) { // out of memory, say: what waits goes on waiting
            std::fprintf(stderr, "kel-agent: collecting: %s\n", failure.what());
        }
        // Another agent may have the same one, and requests that we do not see.
        m_reporter.Close();
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

    const tools::TCOutcome opened = m_reporter.Open();
    bool open = opened.IsDone();
    std::string reason = opened.Reason();
    const bool areNew = std::any_of(found.begin(), found.end(), [this](const TSFound& one) {
        return m_waiting.count(one) == 0;
    });
    if (open && areNew) { // those who wait were asked for before
        m_reporter.Gather();
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

// False, with the reason, when it has to wait: alone, or, with the store closed, like all others.
// Otherwise its report is made, or it is none.
bool TCCollector::m_Serve(const TSFound& found, bool& open, std::string& reason)
{
    TSRequest request;
    if (!(found.m_pDrop != nullptr ? found.m_pDrop->Take(found.m_name, request, reason)
                                   : m_slot.Take(request, reason))) {
        return reason.empty();
    }
    if (!m_reporter.IsReported(request) && m_unremoved.count(request.m_stamp) == 0) {
        const tools::TCOutcome reported = m_reporter.Report(request);
        if (!reported) {
            reason = reported.Reason();
            open = false;
            return false;
        }
    }
    const bool removed
        = found.m_pDrop != nullptr ? found.m_pDrop->Remove(request, reason) : m_slot.Remove(reason);
    if (!removed) {
        m_unremoved.insert(request.m_stamp);
    }
    return removed;
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
