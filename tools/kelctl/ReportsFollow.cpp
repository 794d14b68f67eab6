#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "Reports.h"

namespace kel {
namespace ctl {

namespace {

constexpr uint32_t kComing = IN_CREATE | IN_MOVED_TO | IN_ONLYDIR;
constexpr uint32_t kGoing = IN_DELETE_SELF | IN_MOVE_SELF;
constexpr int kForever = -1;

// Which report it is that has a number: the number may be given again.
using TIdentity = std::tuple<dev_t, ino_t, time_t, long>;

TIdentity IdentityOf(const std::string& report)
{
    struct stat status;
    if (stat((report + "/" + TCReportDirectory::kReportFile).c_str(), &status) != 0) {
        return {};
    }
    return {status.st_dev, status.st_ino, status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
}

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
    std::map<std::string, TIdentity> m_known; // by their names: those of the last look
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

// It watches before it looks: what comes meanwhile is seen now or the next time. An event tells
// only that it is time to look, as what it tells of may have been seen.
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
    std::map<std::string, TIdentity> found;
    for (const std::string& name : names) {
        const TIdentity identity = IdentityOf(m_directory.PathOf(name));
        found.emplace(name, identity);
        const auto known = m_known.find(name);
        TJson report;
        if ((known == m_known.end() || known->second != identity)
            && ReadSelected(m_options, m_directory, name, report, allRead)) {
            reports.push_back(std::move(report));
        }
    }
    m_known = std::move(found);
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
    while (read(m_events.Get(), block, sizeof(block)) > 0) {
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
