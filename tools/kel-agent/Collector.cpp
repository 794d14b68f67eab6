#include "Collector.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <iterator>
#include <utility>
#include <vector>

#include <kel/KELDirsManager.h>

#include "common/Text.h"

namespace kel {
namespace agent {

using tools::Printable;
using tools::TCOutcome;

namespace {

typedef std::chrono::steady_clock TClock;

constexpr std::chrono::milliseconds kPeriod(1000); // nothing tells of room on a disk

// Those who come meanwhile have their turn after so many, or so long.
constexpr size_t kBatch = 64;
constexpr std::chrono::milliseconds kBatchTime(500);

constexpr size_t kMostTold = 256; // a flood that waits needs no line for each

std::chrono::milliseconds Until(TClock::time_point due, std::chrono::milliseconds most)
{
    const TClock::time_point now = TClock::now();
    if (due <= now) {
        return std::chrono::milliseconds(0);
    }
    return due - now >= most ? most : std::chrono::ceil<std::chrono::milliseconds>(due - now);
}

} // namespace

TCCollector::TCCollector(TCApplications& applications, TCRequestIntake& intake,
                         const std::string& stateDirectory, const TCReportStore::TSLimits& limits,
                         TCReaderServer& readerServer)
    : m_reporter(applications, stateDirectory, limits, readerServer), m_intake(intake),
      m_slot(stateDirectory), m_stop(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC))
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
    for (;;) {
        EProgress progress = EProgress::Waiting;
        try {
            progress = m_Collect();
        } catch (const std::exception& failure) { // out of memory, say: what waits goes on waiting
            std::fprintf(stderr, "kel-agent: collecting: %s\n", failure.what());
        }
        if (!m_WaitForRequests(progress)) {
            return;
        }
    }
}

// Until something changes, or it is time to look all the same; false when that is the end.
bool TCCollector::m_WaitForRequests(EProgress progress)
{
    std::chrono::milliseconds time
        = progress == EProgress::Waiting ? kPeriod : Until(m_intake.Due(), m_slot.Pause());
    if (progress == EProgress::More) {
        time = std::chrono::milliseconds(0);
    }
    pollfd events[] = {{m_stop.Get(), POLLIN, 0},
                       {m_intake.Changes(), POLLIN, 0},
                       {m_reporter.Copied(), POLLIN, 0}};
    poll(events, std::size(events), static_cast<int>(time.count()));
    if (events[1].revents != 0) {
        m_intake.ReadChanges();
    }
    if (events[2].revents != 0) {
        m_reporter.ReadCopied();
    }
    return events[0].revents == 0;
}

// Makes reports of some of the requests there are.
TCCollector::EProgress TCCollector::m_Collect()
{
    m_intake.Look();
    bool areNew = false;
    std::vector<TSRequest> requests = m_intake.Batch(kBatch, areNew);
    const bool areAll = requests.size() < kBatch;

    std::optional<TSRequest> ofSlot;
    const bool slotWaits = !m_TakeFromSlot(ofSlot);
    if (ofSlot) {
        areNew = areNew || ofSlot->m_stamp != m_gatheredSlot;
        requests.insert(requests.begin(), *ofSlot);
    }
    EProgress progress = EProgress::Idle;
    if (!requests.empty()) {
        const TCOutcome opened = m_reporter.Open();
        if (opened) {
            m_intake.RemoveReported(
                [this](const TSRequest& request) { return m_reporter.IsReported(request); });
        }
        if (opened && areNew) { // those who wait were asked for before
            m_reporter.Gather();
            m_intake.SetGathered();
            m_gatheredSlot = ofSlot ? ofSlot->m_stamp : "";
        }
        progress = m_Serve(requests, opened);
    }
    // Another agent may have the same one, and requests that we do not see.
    m_reporter.Close();
    if (progress == EProgress::Idle && slotWaits) {
        return EProgress::Waiting;
    }
    if (progress == EProgress::Idle) {
        m_told.clear();
    }
    return progress == EProgress::Idle && !areAll ? EProgress::More : progress;
}

// False when there is one that cannot be taken.
bool TCCollector::m_TakeFromSlot(std::optional<TSRequest>& request)
{
    const std::string value = m_slot.Waiting();
    if (value.empty()) {
        return true;
    }
    const TCOutcome taken = m_slot.Take(request);
    if (!taken) {
        m_LetWait(value, tools::kRequestKey, taken.Reason());
    }
    return taken.IsDone();
}

TCCollector::EProgress TCCollector::m_Serve(const std::vector<TSRequest>& requests,
                                            TCOutcome canReport)
{
    const TClock::time_point end = TClock::now() + kBatchTime;
    EProgress progress = EProgress::Idle;
    size_t copied = 0; // and not yet a report
    for (const TSRequest& request : requests) {
        if (m_IsStopped()) {
            return progress;
        }
        if (progress == EProgress::Idle && TClock::now() >= end) {
            return EProgress::More;
        }
        std::optional<TCOutcome> served = canReport;
        try {
            served = canReport ? m_ServeOne(request, canReport) : canReport;
        } catch (const std::exception& failure) { // of this one: the others do not wait for it
            served = TCOutcome::Failed(failure.what());
        }
        if (!served) {
            ++copied;
        } else if (!*served) {
            m_LetWait(request.m_name, request.m_source, served->Reason());
            progress = EProgress::Waiting;
        }
    }
    return progress == EProgress::Idle && copied == requests.size() ? EProgress::Copying : progress;
}

// Failed when it has to wait: alone, or, when there can be no reports, like all others. Nothing as
// long as its artefact is being copied.
std::optional<TCOutcome> TCCollector::m_ServeOne(const TSRequest& request, TCOutcome& canReport)
{
    if (!m_reporter.IsReported(request) && m_unremoved.count(request.m_stamp) == 0) {
        std::optional<TCOutcome> reported = m_reporter.Report(request);
        canReport = reported.value_or(canReport);
        if (!reported || !*reported) {
            return reported;
        }
    }
    TCOutcome removed
        = request.m_source == tools::kRequestKey ? m_slot.Remove() : m_intake.Remove(request);
    if (removed) {
        m_unremoved.erase(request.m_stamp);
    } else {
        m_unremoved.insert(request.m_stamp);
    }
    return removed;
}

void TCCollector::m_LetWait(const std::string& name, const std::string& source,
                            const std::string& reason)
{
    if (m_told.size() < kMostTold && m_told.insert(source + "/" + name).second) {
        std::fprintf(stderr, "kel-agent: %s in %s waits: %s\n", Printable(name).c_str(),
                     source.c_str(), reason.c_str());
    }
}

bool TCCollector::m_IsStopped() const
{
    pollfd stop = {m_stop.Get(), POLLIN, 0};
    return poll(&stop, 1, 0) > 0;
}

} // namespace agent
} // namespace kel
