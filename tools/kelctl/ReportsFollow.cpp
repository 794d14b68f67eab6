#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Reports.h"

namespace kel {
namespace ctl {

namespace {

constexpr uint32_t kComing = IN_CREATE | IN_MOVED_TO | IN_ONLYDIR;
constexpr uint32_t kGoing = IN_DELETE_SELF | IN_MOVE_SELF;
constexpr int kForever = -1;

// Goes on until its end has a status. It sleeps until something happens in the directory.
class TCFollower
{
public:
    explicit TCFollower(const TSReportsOptions& options);

    EStatus Run();

private:
    void m_Look();
    void m_Wait();
    void m_Print(const std::vector<TJson>& reports);
    void m_End(EStatus status, const std::string& reason);

    const TSReportsOptions& m_options;
    const TCReportDirectory m_directory;
    const tools::TCDescriptor m_events;
    std::set<std::string> m_known; // names of reports that were there at the last look
    TSReportView::TWidths m_widths = {};
    bool m_hasHead = false;
    std::optional<EStatus> m_status; // from its end on
};

TCFollower::TCFollower(const TSReportsOptions& options)
    : m_options(options), m_directory(options.m_stateDirectory),
      m_events(inotify_init1(IN_CLOEXEC | IN_NONBLOCK))
{
    std::signal(SIGPIPE, SIG_IGN); // a reader that goes is seen otherwise
    for (const int signal : {SIGINT, SIGTERM}) {
        // At once, also when nobody takes what is printed. Nothing is buffered.
        std::signal(signal, [](int) { _exit(static_cast<int>(EStatus::Success)); });
    }
    TSReportView::Widen(m_widths, TSReportView::kHead);
}

EStatus TCFollower::Run()
{
    while (!m_status) {
        m_Look();
        if (!m_status) {
            m_Wait();
        }
    }
    return *m_status;
}

// What comes while it looks is seen the next time: it watches before.
void TCFollower::m_Look()
{
    const std::string& state = m_directory.State();
    if (inotify_add_watch(m_events.Get(), state.c_str(), kComing | kGoing) < 0) {
        m_End(EStatus::Negative, state + ": " + std::strerror(errno));
        return;
    }
    inotify_add_watch(m_events.Get(), m_directory.Path().c_str(), kComing | kGoing);
    std::vector<std::string> names;
    const tools::TCOutcome outcome = m_directory.List(names);
    if (!outcome) {
        m_End(EStatus::Negative, outcome.Reason());
        return;
    }
    bool allRead = true;
    std::vector<TJson> reports;
    for (const std::string& name : names) {
        TJson report;
        if (m_known.count(name) == 0
            && ReadSelected(m_options, m_directory, name, report, allRead)) {
            reports.push_back(std::move(report));
        }
    }
    m_known = std::set<std::string>(names.begin(), names.end());
    m_Print(reports);
}

void TCFollower::m_Wait()
{
    pollfd events[] = {{m_events.Get(), POLLIN, 0}, {STDOUT_FILENO, 0, 0}};
    poll(events, std::size(events), kForever);
    if (events[1].revents != 0) {
        m_status = EStatus::NoOutput; // who has gone knows
        return;
    }
    char block[4096];
    ssize_t size = 0;
    while ((size = read(m_events.Get(), block, sizeof(block))) > 0) {
        for (ssize_t at = 0; at < size;) {
            inotify_event event;
            std::memcpy(&event, block + at, sizeof(event));
            at += static_cast<ssize_t>(sizeof(event));
            if (event.len > 0) {
                m_known.erase(block + at); // a number may be given again
            }
            at += static_cast<ssize_t>(event.len);
        }
    }
}

void TCFollower::m_Print(const std::vector<TJson>& reports)
{
    std::string text;
    if (m_options.m_json) {
        for (const TJson& report : reports) {
            text += TSReportView::JsonLine(report);
        }
    } else {
        std::vector<TSReportView::TRow> rows;
        for (const TJson& report : reports) {
            rows.push_back(TSReportView::Row(report));
            TSReportView::Widen(m_widths, rows.back());
        }
        if (!rows.empty() && !m_hasHead) {
            text = TSReportView::Line(TSReportView::kHead, m_widths);
            m_hasHead = true;
        }
        for (const TSReportView::TRow& row : rows) {
            text += TSReportView::Line(row, m_widths);
        }
    }
    if (tools::WriteAll(STDOUT_FILENO, text)) {
        return;
    }
    m_status = EStatus::NoOutput;
    if (errno != EPIPE) { // who has gone knows
        m_End(EStatus::NoOutput,
              std::string("the output cannot be written: ") + std::strerror(errno));
    }
}

void TCFollower::m_End(EStatus status, const std::string& reason)
{
    std::fprintf(stderr, "kelctl: %s\n", reason.c_str());
    m_status = status;
}

} // namespace

EStatus FollowReports(const TSReportsOptions& options) { return TCFollower(options).Run(); }

} // namespace ctl
} // namespace kel
