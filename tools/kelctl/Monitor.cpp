#include "Commands.h"

#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include <glib-unix.h>

#include <kel/KELCallbacksProxy.h>
#include <kel/KELDbusClient.h>

#include "Bus.h"
#include "EndableOutput.h"
#include "Numbers.h"
#include "common/Text.h"

namespace kel {
namespace ctl {

namespace {

struct TSOptions
{
    bool m_json = false;
    unsigned int m_count = 0; // of events; 0 for no limit
    double m_timeout = 0;     // in seconds; 0 for none
};

// Made, run and destroyed on one thread, which iterates the default main context.
class TCMonitor
{
public:
    TCMonitor(const TSOptions& options, bool test, TGlibPtr<GDBusConnection> connection);
    TCMonitor(const TCMonitor&) = delete;
    TCMonitor& operator=(const TCMonitor&) = delete;

    EStatus Run();

private:
    void m_Print(const char* event);
    void m_End(EStatus status, const char* reason = nullptr);

    static int m_OnSignal(int descriptor, GIOCondition condition, void* monitor);
    static int m_OnTimeout(void* monitor);
    static int m_OnOutputGone(int descriptor, GIOCondition condition, void* monitor);
    static void m_OnAgent(GDBusConnection* connection, const char* name, const char* owner,
                          void* monitor);
    static void m_OnVersion(GObject* connection, GAsyncResult* result, void* monitor);
    static void m_OnBusGone(GDBusConnection* connection, int remote, GError* error, void* monitor);

    const TSOptions m_options;
    const TSChannel& m_channel;
    TCEndableOutput m_output;
    // The process's: that of the channel that the first asks for.
    const boost::shared_ptr<IDbusClient> m_client;
    const TGlibPtr<GDBusConnection> m_connection;
    const TGlibPtr<GMainLoop> m_loop;
    unsigned int m_printed;
    std::optional<EStatus> m_status; // from its end on
};

TCMonitor::TCMonitor(const TSOptions& options, bool test, TGlibPtr<GDBusConnection> connection)
    : m_options(options), m_channel(test ? kTestChannel : kChannel),
      m_client(TCDbusClientProvider::Get(test)), m_connection(std::move(connection)),
      m_loop(g_main_loop_new(nullptr, FALSE)), m_printed(0)
{
    g_unix_fd_add(m_output.Signals(), G_IO_IN, &TCMonitor::m_OnSignal, this);
    g_unix_fd_add(STDOUT_FILENO, G_IO_ERR, &TCMonitor::m_OnOutputGone, this);
    g_signal_connect(m_connection.get(), "closed", G_CALLBACK(&TCMonitor::m_OnBusGone), this);
    g_bus_watch_name_on_connection(m_connection.get(), m_channel.m_agent,
                                   G_BUS_NAME_WATCHER_FLAGS_NONE, &TCMonitor::m_OnAgent, nullptr,
                                   this, nullptr);
    if (m_options.m_timeout > 0) {
        g_timeout_add(static_cast<unsigned int>(m_options.m_timeout * 1000),
                      &TCMonitor::m_OnTimeout, this);
    }
}

// The main context is iterated here and nowhere else in the program: what it holds for this object
// need not be taken back.
EStatus TCMonitor::Run()
{
    const boost::shared_ptr<ICallbacks> callbacks = TCCallbacksProxy::Instance();
    callbacks->SetPolicyUpdateCb([this] { m_Print("policy-update"); });
    callbacks->SetRequestProcessInfoCb([this] {
        m_Print("process-info-request");
        return true;
    });
    g_main_loop_run(m_loop.get());

    callbacks->ResetPolicyUpdateCb();
    callbacks->ResetRequestProcessInfoCb();
    // The agent waits for the answer to the last event, which is on its way only.
    g_dbus_connection_flush_sync(m_connection.get(), nullptr, nullptr);
    return *m_status;
}

void TCMonitor::m_Print(const char* event)
{
    if (m_status) {
        return; // this one comes too late
    }
    const std::string time = tools::IsoTime(tools::Now());
    m_output.Print(m_options.m_json ? "{\"time\": \"" + time + "\", \"event\": \"" + event + "\"}\n"
                                    : time + " " + event + "\n");
    if (m_output.Status()) {
        m_End(*m_output.Status());
    } else if (++m_printed == m_options.m_count) {
        m_End(EStatus::Success);
    }
}

void TCMonitor::m_End(EStatus status, const char* reason)
{
    if (m_status) {
        return;
    }
    m_status = status;
    if (reason != nullptr) {
        std::fprintf(stderr, "kelctl: %s\n", reason);
    }
    g_main_loop_quit(m_loop.get());
}

int TCMonitor::m_OnSignal(int, GIOCondition, void* monitor)
{
    static_cast<TCMonitor*>(monitor)->m_End(EStatus::Success);
    return G_SOURCE_REMOVE;
}

int TCMonitor::m_OnTimeout(void* monitor)
{
    TCMonitor* const pMonitor = static_cast<TCMonitor*>(monitor);
    if (pMonitor->m_options.m_count == 0) {
        pMonitor->m_End(EStatus::Success);
    } else {
        pMonitor->m_End(EStatus::TooFewEvents, "the time is over, and events are missing");
    }
    return G_SOURCE_REMOVE;
}

int TCMonitor::m_OnOutputGone(int, GIOCondition, void* monitor)
{
    static_cast<TCMonitor*>(monitor)->m_End(EStatus::NoOutput); // without a word, as everywhere
    return G_SOURCE_REMOVE;
}

// Nobody waits for an answer to the greeting that the library sends: whether the bus lets it
// through is asked for beside it.
void TCMonitor::m_OnAgent(GDBusConnection* connection, const char*, const char* owner,
                          void* monitor)
{
    AskVersion(connection, static_cast<TCMonitor*>(monitor)->m_channel, owner,
               &TCMonitor::m_OnVersion, monitor);
}

void TCMonitor::m_OnVersion(GObject* connection, GAsyncResult* result, void* monitor)
{
    TGlibPtr<GError> error;
    TakeVersion(connection, result, error);
    if (IsDenied(error)) {
        const std::string reason = "the bus forbids this user the agent: " + TextOf(*error);
        static_cast<TCMonitor*>(monitor)->m_End(EStatus::NoAnswer, reason.c_str());
    }
}

void TCMonitor::m_OnBusGone(GDBusConnection*, int, GError*, void* monitor)
{
    static_cast<TCMonitor*>(monitor)->m_End(EStatus::NoAnswer, "the system bus is gone");
}

EStatus Monitor(const TSOptions& options, bool test)
{
    TGlibPtr<GDBusConnection> connection = ConnectToBus();
    if (!connection) {
        return EStatus::NoAnswer;
    }
    return TCMonitor(options, test, std::move(connection)).Run();
}

} // namespace

void AddMonitor(CLI::App& program, const TSCommon& common, EStatus& status)
{
    CLI::App* const command = program.add_subcommand("monitor", "Print the agent's events");
    const auto options = std::make_shared<TSOptions>();
    command->add_flag("--json", options->m_json, "Print a JSON object a line");
    command->add_option("--count", options->m_count, "End after so many events")
        ->type_name("N")
        ->check(&CheckCount);
    command->add_option("--timeout", options->m_timeout, "End after so many seconds")
        ->type_name("S")
        ->check(&CheckSeconds);
    command->callback([options, &common, &status] { status = Monitor(*options, common.m_test); });
}

} // namespace ctl
} // namespace kel
