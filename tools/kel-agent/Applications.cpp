#include "Applications.h"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <vector>

#include <gio/gio.h>

#include "common/BusPeer.h"
#include "common/Text.h"
#include "reports/Json.h"

namespace kel {
namespace agent {

using std::chrono::duration_cast;
using tools::PrintableStart;

namespace {

constexpr int kAnswerTimeout = 5000;    // milliseconds
constexpr size_t kMostNamed = 16;       // of one event: a crowd that hears nothing fills no log
constexpr unsigned int kMostTypes = 32; // of one application: it may have asked for millions

const char* Name(ICallbacks::ECallbackType event)
{
    return event == ICallbacks::POLICY_UPDATE ? "policy update" : "process information";
}

std::string Why(const TSFailure& failure)
{
    switch (failure.m_kind) {
    case EFailure::TimedOut:
        return "no answer in " + std::to_string(kAnswerTimeout) + " ms";
    case EFailure::NotHandled:
        return failure.m_errorName.empty() ? "it has declined, or its function has thrown"
                                           : "it serves no channel any more";
    case EFailure::Unreadable:
        return "its answer cannot be read";
    case EFailure::NotOwned:
    case EFailure::Ended:
        return "it has left the bus";
    case EFailure::Denied:
        return "the bus forbids it: " + PrintableStart(failure.m_text);
    case EFailure::Waiting:
        return "it waits for an answer of this agent's";
    default:
        return "error " + PrintableStart(failure.m_errorName + ": " + failure.m_text);
    }
}

// Who it is, for the log.
std::string Describe(const std::string& uniqueName, const tools::TSBusPeer& peer)
{
    if (!peer.m_process) {
        return uniqueName;
    }
    return uniqueName + " (process " + std::to_string(*peer.m_process) + ", "
           + (peer.m_program.empty() ? "of an unknown program" : PrintableStart(peer.m_program))
           + (peer.m_user ? ", user " + std::to_string(*peer.m_user) : "") + ")";
}

timespec ToTimespec(std::chrono::system_clock::time_point time)
{
    const auto whole = std::chrono::floor<std::chrono::seconds>(time);
    timespec result = {};
    result.tv_sec = static_cast<time_t>(whole.time_since_epoch().count());
    result.tv_nsec = static_cast<long>(
        duration_cast<std::chrono::nanoseconds>(time - whole).count()); // less than a second
    return result;
}

} // namespace

std::pair<size_t, size_t> TCApplications::Send(ICallbacks::ECallbackType event)
{
    m_Meet(); // who ends while it has the event cannot be asked for its name any more
    const std::vector<TSClientOutcome> outcomes = m_server.SendToEach(event, {}, kAnswerTimeout);
    size_t failed = 0;
    for (const TSClientOutcome& outcome : outcomes) {
        m_Note(outcome);
        if (outcome.m_failure.m_kind != EFailure::None && ++failed <= kMostNamed) {
            std::fprintf(stderr, "kel-agent: %s did not handle %s: %s\n",
                         m_Who(outcome.m_uniqueName).c_str(), Name(event),
                         Why(outcome.m_failure).c_str());
        }
    }
    if (failed > kMostNamed) {
        std::fprintf(stderr, "kel-agent: nor did %zu more\n", failed - kMostNamed);
    }
    std::fprintf(stderr, "kel-agent: %s: %zu handled, %zu not\n", Name(event),
                 outcomes.size() - failed, failed);
    return {outcomes.size() - failed, failed};
}

std::string TCApplications::Tell()
{
    const std::vector<TSRegisteredClient> clients = m_server.Clients(kMostTypes);
    const std::lock_guard<std::mutex> lock(m_mutex);
    TCJsonWriter json;
    json.Begin("clients");
    for (const TSRegisteredClient& client : clients) {
        const auto found = m_records.find(client.m_uniqueName);
        const TSRecord record = found == m_records.end() ? TSRecord() : found->second;
        json.Begin(client.m_uniqueName.c_str());
        json.Add("types", client.m_types);
        json.Add("number-of-types", client.m_numberOfTypes);
        json.Add("registered", tools::IsoTime(ToTimespec(client.m_registered)));
        json.Add("sent", record.Sent());
        json.Add("handled", record.m_handled);
        json.Add("refused", record.m_refused);
        json.Add("timed-out", record.m_timedOut);
        json.Add("unreachable", record.m_unreachable);
        json.Add("last-us", record.m_last.count());
        json.Add("slowest-us", record.m_slowest.count());
        json.End();
    }
    json.End();
    json.End();
    return json.Text();
}

// Learns who those are that are new, and forgets those that are gone.
void TCApplications::m_Meet()
{
    std::map<std::string, TSRecord> records;
    std::vector<std::string> fresh;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        for (const TSRegisteredClient& client : m_server.Clients(0)) {
            const auto found = m_records.find(client.m_uniqueName);
            if (found == m_records.end()) {
                fresh.push_back(client.m_uniqueName);
            } else {
                records.insert(m_records.extract(found));
            }
        }
        m_records.swap(records);
    }
    if (fresh.empty()) {
        return;
    }
    const std::unique_ptr<GDBusConnection, decltype(&g_object_unref)> connection(
        g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr), &g_object_unref);
    for (const std::string& name : fresh) {
        const std::string who
            = connection ? Describe(name, tools::TSBusPeer::Of(connection.get(), name)) : name;
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_records[name].m_who = who;
    }
}

void TCApplications::m_Note(const TSClientOutcome& outcome)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    TSRecord& record = m_records[outcome.m_uniqueName];
    ++record.CountOf(outcome.m_failure.m_kind);
    record.m_last = outcome.m_latency;
    record.m_slowest = std::max(record.m_slowest, outcome.m_latency);
}

std::string TCApplications::m_Who(const std::string& uniqueName)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    const std::string who = m_records[uniqueName].m_who;
    return who.empty() ? uniqueName : who; // one that came after the others were asked for
}

size_t& TCApplications::TSRecord::CountOf(EFailure kind)
{
    switch (kind) {
    case EFailure::None:
        return m_handled;
    case EFailure::TimedOut:
        return m_timedOut;
    case EFailure::NotHandled:
    case EFailure::Unreadable:
    case EFailure::Other:
        return m_refused;
    default:
        return m_unreachable;
    }
}

} // namespace agent
} // namespace kel
