// One message from the agent to N applications, until the last has answered:
//   TCDbusServer::SendMessage
//   against the same fan-out in raw GDBus   one post to a private thread, which starts N
//                                           g_dbus_connection_calls that share one request, and
//                                           takes each answer apart
//   against sequential calls                g_dbus_connection_call_sync, one application at a time
// All three use the process's one connection. The applications are private connections, spread
// over processes of their own, that export the channel's object and answer true at once. Also the
// time and the memory that each application costs the agent.
//
// An agent's ratio depends on where its memory happens to lie, by some hundredths: several agents
// are measured, one after the other, and the figure is their median.

#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gio/gio.h>

#include <kel/KELDbusServer.h>

#include "BenchPeer.h"
#include "KELGlib.h"
#include "PairedMedian.h"
#include "support/HostLoop.h"
#include "support/PrivateBus.h"

namespace kel::bench {

namespace {

constexpr char kApplicationsRole[] = "applications";
constexpr char kMemoryRole[] = "memory";
constexpr char kTimesRole[] = "times";
constexpr size_t kAgents = 7; // that are timed
constexpr size_t kCounts[] = {1, 10, 100};
constexpr size_t kSizes[] = {64, 4096};
constexpr int kType = 5;
constexpr int kSlowType = 6; // answered after kSlowAnswer, so that all calls are seen in flight
constexpr int kSlowAnswer = 200;
constexpr size_t kProcesses = 3; // for each step up in the number of applications

constexpr char kIntrospection[] = "<node><interface name='com.norvale.kel.IControl'>"
                                  "<method name='Send'>"
                                  "<arg type='ay' name='data' direction='in'/>"
                                  "<arg type='ay' name='response' direction='out'/>"
                                  "</method></interface></node>";

GVariant* TrueReply()
{
    static const TBytes reply{1};
    return Borrow(reply);
}

gboolean AnswerLate(gpointer invocation)
{
    g_dbus_method_invocation_return_value(static_cast<GDBusMethodInvocation*>(invocation),
                                          TrueReply());
    return G_SOURCE_REMOVE;
}

void Answer(GDBusConnection*, const char*, const char*, const char*, const char*,
            GVariant* parameters, GDBusMethodInvocation* invocation, void*)
{
    const auto [bytes, size] = BytesOf(parameters);
    int type = 0;
    if (size >= 5) {
        std::memcpy(&type, bytes, 4);
    }
    if (type == kSlowType) {
        g_timeout_add(kSlowAnswer, &AnswerLate, invocation);
    } else {
        g_dbus_method_invocation_return_value(invocation, TrueReply());
    }
}

// The peers: so many applications in one process.
int RunApplications(int count)
{
    GDBusNodeInfo* const node = g_dbus_node_info_new_for_xml(kIntrospection, nullptr);
    const GDBusInterfaceVTable table = {&Answer, nullptr, nullptr, {}};
    const int types[] = {kType, kSlowType};
    TBytes hello(sizeof(types));
    std::memcpy(hello.data(), types, sizeof(types));

    std::string names;
    std::vector<TGlibPtr<GDBusConnection>> connections;
    for (int i = 0; i < count; ++i) {
        connections.emplace_back(g_dbus_connection_new_for_address_sync(
            std::getenv("DBUS_SYSTEM_BUS_ADDRESS"),
            static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT
                                              | G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
            nullptr, nullptr, nullptr));
        GDBusConnection* const connection = connections.back().get();
        if (connection == nullptr
            || g_dbus_connection_register_object(connection, kObjectPath, node->interfaces[0],
                                                 &table, nullptr, nullptr, nullptr)
                   == 0) {
            Fail("an application cannot connect");
        }
        const TGlibPtr<GVariant> done(g_dbus_connection_call_sync(
            connection, kBusName, kObjectPath, kInterface, "Hello", Borrow(hello), nullptr,
            G_DBUS_CALL_FLAGS_NONE, kTimeout, nullptr, nullptr));
        if (done == nullptr) {
            Fail("an application's Hello");
        }
        names += i == 0 ? "" : " ";
        names += g_dbus_connection_get_unique_name(connection);
    }
    Serve(names);
}

// The fan-out as one writes it without the library: a thread that runs a private context.
class TCRawFanOut
{
public:
    explicit TCRawFanOut(GDBusConnection* pConnection)
        : m_pConnection(pConnection), m_pContext(g_main_context_new()),
          m_pLoop(g_main_loop_new(m_pContext, FALSE)), m_thread([this] {
              g_main_context_push_thread_default(m_pContext);
              g_main_loop_run(m_pLoop);
          })
    {}

    ~TCRawFanOut()
    {
        Post(
            [](gpointer loop) -> gboolean {
                g_main_loop_quit(static_cast<GMainLoop*>(loop));
                return G_SOURCE_REMOVE;
            },
            m_pLoop);
        m_thread.join();
        g_main_loop_unref(m_pLoop);
        g_main_context_unref(m_pContext);
    }

    TCRawFanOut(const TCRawFanOut&) = delete;
    TCRawFanOut& operator=(const TCRawFanOut&) = delete;

    /// How many answered true.
    size_t Send(const std::vector<std::string>& names, const TBytes& message)
    {
        const TGlibPtr<GVariant> request = SinkVariant(Borrow(message));
        m_pNames = &names;
        m_pRequest = request.get();
        m_pending = names.size();
        m_successes = 0;
        Post(&StartAll, this);

        std::unique_lock<std::mutex> lock(m_mutex);
        m_done.wait(lock, [this] { return m_pending == 0; });
        return m_successes;
    }

private:
    void Post(GSourceFunc function, gpointer data)
    {
        GSource* const source = g_idle_source_new();
        g_source_set_priority(source, G_PRIORITY_DEFAULT);
        g_source_set_callback(source, function, data, nullptr);
        g_source_attach(source, m_pContext);
        g_source_unref(source);
    }

    static gboolean StartAll(gpointer fanOut)
    {
        TCRawFanOut* const self = static_cast<TCRawFanOut*>(fanOut);
        for (const std::string& name : *self->m_pNames) {
            g_dbus_connection_call(self->m_pConnection, name.c_str(), kObjectPath, kInterface,
                                   "Send", self->m_pRequest, G_VARIANT_TYPE("(ay)"),
                                   G_DBUS_CALL_FLAGS_NONE, kTimeout, nullptr, &Done, self);
        }
        return G_SOURCE_REMOVE;
    }

    static void Done(GObject* source, GAsyncResult* result, void* fanOut)
    {
        TCRawFanOut* const self = static_cast<TCRawFanOut*>(fanOut);
        const TGlibPtr<GVariant> reply(
            g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, nullptr));
        bool handled = false;
        if (reply != nullptr) {
            const auto [bytes, size] = BytesOf(reply.get());
            handled = size >= 1 && bytes[0] != 0;
        }
        const std::lock_guard<std::mutex> lock(self->m_mutex);
        self->m_successes += handled ? 1 : 0;
        if (--self->m_pending == 0) {
            self->m_done.notify_one();
        }
    }

    GDBusConnection* m_pConnection; // the benchmark's
    GMainContext* m_pContext;
    GMainLoop* m_pLoop;

    // Of the fan-out under way; its sender writes them before the post.
    const std::vector<std::string>* m_pNames = nullptr;
    GVariant* m_pRequest = nullptr;

    std::mutex m_mutex;
    std::condition_variable m_done;
    size_t m_pending = 0;   // guarded by m_mutex once posted
    size_t m_successes = 0; // likewise

    std::thread m_thread; // last: it uses the others
};

size_t SendOneByOne(GDBusConnection* connection, const std::vector<std::string>& names,
                    const TBytes& message)
{
    const TGlibPtr<GVariant> request = SinkVariant(Borrow(message));
    size_t successes = 0;
    for (const std::string& name : names) {
        const TGlibPtr<GVariant> reply(g_dbus_connection_call_sync(
            connection, name.c_str(), kObjectPath, kInterface, "Send", request.get(),
            G_VARIANT_TYPE("(ay)"), G_DBUS_CALL_FLAGS_NONE, kTimeout, nullptr, nullptr));
        if (reply != nullptr) {
            const auto [bytes, size] = BytesOf(reply.get());
            successes += size >= 1 && bytes[0] != 0 ? 1 : 0;
        }
    }
    return successes;
}

double AllocatedBytes()
{
    const struct mallinfo2 info = mallinfo2(); // of all arenas
    return static_cast<double>(info.uordblks + info.hblkhd);
}

// The agent, and all the applications there are.
struct TSBench
{
    TCDbusServer& m_server;
    std::vector<std::unique_ptr<test::ChildProcess>> m_peers;
    std::vector<std::string> m_names;
};

// More applications, until there are so many.
void Grow(TSBench& bench, size_t count)
{
    const size_t share = (count - bench.m_names.size() + kProcesses - 1) / kProcesses;
    while (bench.m_names.size() < count) {
        const size_t more = std::min(share, count - bench.m_names.size());
        bench.m_peers.push_back(StartPeer({kApplicationsRole, std::to_string(more)}));
        std::istringstream line(bench.m_peers.back()->Output());
        for (std::string name; line >> name;) {
            bench.m_names.push_back(name);
        }
    }
    std::sort(bench.m_names.begin(), bench.m_names.end()); // SendMessage's order
    Await([&] { return bench.m_server.NumberOfClients() == count; }, "the applications");
    bench.m_server.SendMessage(kType, {}, kTimeout); // what else they started is over then
}

// What the calls of a fan-out take while they all wait for their answers, in bytes per
// application.
double BytesInFlight(TSBench& bench, size_t size)
{
    const TBytes data(size, 0x5a);
    std::vector<double> rounds;
    while (rounds.size() < 5) {
        const double before = AllocatedBytes();
        double during = 0;
        std::thread watch([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(kSlowAnswer / 2));
            during = AllocatedBytes();
        });
        if (bench.m_server.SendMessage(kSlowType, data, kTimeout).first != bench.m_names.size()) {
            Fail("SendMessage");
        }
        watch.join();
        rounds.push_back((during - before) / static_cast<double>(bench.m_names.size()));
    }
    return Median(rounds);
}

// What the agent keeps for each application that is registered, and what a message of 4 KiB takes
// for each while all calls are in flight, in bytes for every count. A process of its own, because
// only the plain allocator tells exactly what is in use, and GLib's own one is faster.
int RunMemory()
{
    TCDbusServer server(true);
    const test::HostLoop loop;
    Await([&] { return server.IsReady(); }, "the bus name");

    TSBench bench{server, {}, {}};
    Grow(bench, 1); // what the first one alone makes the agent keep is no matter of numbers
    const double empty = AllocatedBytes();
    std::string line;
    for (const size_t count : kCounts) {
        Grow(bench, count);
        const double added = static_cast<double>(std::max<size_t>(count - 1, 1));
        line += std::to_string((AllocatedBytes() - empty) / added) + " "
                + std::to_string(BytesInFlight(bench, 4096)) + " ";
    }
    std::printf("%s\n", line.c_str());
    return 0;
}

// Prints what a fan-out takes, and its ratios to the others.
void Compare(TSBench& bench, GDBusConnection* connection, TCRawFanOut& rawFanOut, size_t size)
{
    const size_t count = bench.m_names.size();
    const TBytes data(size, 0x5a);
    const TBytes message = RequestBytes(kType, data);
    const auto send = [&] {
        if (bench.m_server.SendMessage(kType, data, kTimeout).first != count) {
            Fail("SendMessage");
        }
    };
    const auto rawSend = [&] {
        if (rawFanOut.Send(bench.m_names, message) != count) {
            Fail("raw fan-out");
        }
    };
    const auto oneByOne = [&] {
        if (SendOneByOne(connection, bench.m_names, message) != count) {
            Fail("sequential calls");
        }
    };

    TSEffort effort;
    effort.m_seconds = 2;
    effort.m_blockSeconds = 0.04; // several calls each: the first finds the caches of the other
    const TSPaired raw = MeasurePair(send, rawSend, effort);
    effort.m_seconds = 0.5;
    const TSPaired sequential = MeasurePair(send, oneByOne, effort);
    std::printf("%.9f %.9f %.9f %.9f %.9f\n", raw.m_ours, raw.m_baseline, raw.m_ratio,
                sequential.m_baseline, sequential.m_ratio);
}

// One agent. The C library would give the server's thread and the raw fan-out's an arena each, of
// which one has long-lived memory in it and the other has not.
int RunTimes(size_t count, size_t size)
{
    mallopt(M_ARENA_MAX, 1);
    TCDbusServer server(true);
    const test::HostLoop loop;
    Await([&] { return server.IsReady(); }, "the bus name");
    const TGlibPtr<GDBusConnection> connection(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr));
    TCRawFanOut raw(connection.get());
    TSBench bench{server, {}, {}};
    Grow(bench, count);
    Compare(bench, connection.get(), raw, size);
    return 0;
}

// What the agents have measured of one number of applications and one size.
struct TSTimes
{
    std::vector<double> m_ours;
    std::vector<double> m_raw;
    std::vector<double> m_rawRatio;
    std::vector<double> m_oneByOne;
    std::vector<double> m_oneByOneRatio;
};

TSTimes TimeAgents(size_t count, size_t size)
{
    TSTimes times;
    for (size_t agent = 0; agent < kAgents; ++agent) {
        const test::TSFinished timed = test::RunProgram(
            {"/proc/self/exe", kTimesRole, std::to_string(count), std::to_string(size)}, {}, {},
            std::chrono::minutes(1));
        if (timed.m_exit != 0) {
            Fail("an agent: " + timed.m_errorOutput);
        }
        std::istringstream figures(timed.m_output);
        for (auto* const kind : {&times.m_ours, &times.m_raw, &times.m_rawRatio, &times.m_oneByOne,
                                 &times.m_oneByOneRatio}) {
            figures >> kind->emplace_back();
        }
        if (!figures) {
            Fail("an agent's figures: " + timed.m_output);
        }
    }
    return times;
}

void ShowTimes(size_t count, size_t size, const TSTimes& times, TCBounds& bounds)
{
    const auto [low, high] = std::minmax_element(times.m_rawRatio.begin(), times.m_rawRatio.end());
    const double raw = Median(times.m_rawRatio);
    const double oneByOne = Median(times.m_oneByOneRatio);
    std::printf("%4zu %8s %12s %10s %8.3f   %.3f to %.3f %-14s %12s %8.3f %-14s\n", count,
                Size(size).c_str(), Time(Median(times.m_ours)).c_str(),
                Time(Median(times.m_raw)).c_str(), raw, *low, *high,
                count >= 10 ? bounds.AtMost(raw, 1.03).c_str() : "",
                Time(Median(times.m_oneByOne)).c_str(), oneByOne,
                count >= 100 ? bounds.AtMost(oneByOne, 0.5).c_str() : "");
    std::fflush(stdout);
}

void Growth(const char* what, const char* unit, const std::vector<double>& costs, double bound,
            TCBounds& bounds)
{
    const double growth = costs[2] / costs[1];
    std::printf("%-24s %8.1f %8.1f %8.1f  %8.2f %s\n", (std::string(what) + ", " + unit).c_str(),
                costs[0], costs[1], costs[2], growth, bounds.AtMost(growth, bound).c_str());
}

int RunBenchmark(TCBounds& bounds)
{
    setenv("KEL_HOST_LOG", "none", 1); // the log's sink is not what is measured
    const test::PrivateBus bus;

    std::vector<double> kept;
    std::vector<double> inFlight;
    {
        const auto memory = StartPeer({kMemoryRole}, {{"G_SLICE", "always-malloc"}});
        std::istringstream line(memory->Output());
        for (double first = 0, second = 0; line >> first >> second;) {
            kept.push_back(first / 1024);
            inFlight.push_back(second / 1024);
        }
        memory->Wait();
    }

    std::printf("a message from the agent to N applications, medians of %zu agents\n"
                "%4s %8s %12s %10s %8s   %-14s %-14s %12s %8s %-14s\n",
                kAgents, "N", "payload", "SendMessage", "raw GDBus", "ratio", "lowest, highest",
                "bound", "one by one", "ratio", "bound");
    std::vector<double> small;
    std::vector<double> large;
    for (const size_t count : kCounts) {
        for (const size_t size : kSizes) {
            const TSTimes times = TimeAgents(count, size);
            ShowTimes(count, size, times, bounds);
            (size == kSizes[0] ? small : large)
                .push_back(1e6 * Median(times.m_ours) / static_cast<double>(count));
        }
    }
    std::printf("\n%-24s %8s %8s %8s  %8s\n", "per application", "N = 1", "N = 10", "N = 100",
                "100 : 10");
    Growth("time, 64 B", "us", small, 1.1, bounds);
    Growth("time, 4 KiB", "us", large, 1.1, bounds);
    // Tables that double their size now and then make these uneven.
    Growth("memory, registered", "KiB", kept, 1.25, bounds);
    Growth("memory, in flight", "KiB", inFlight, 1.25, bounds);
    return bounds.ExitStatus();
}

int Run(int argc, char** argv)
{
    if (argc == 3 && std::string(argv[1]) == kApplicationsRole) {
        return RunApplications(std::atoi(argv[2]));
    }
    if (argc == 2 && std::string(argv[1]) == kMemoryRole) {
        return RunMemory();
    }
    if (argc == 4 && std::string(argv[1]) == kTimesRole) {
        return RunTimes(std::stoul(argv[2]), std::stoul(argv[3]));
    }
    TCBounds bounds;
    return RunBenchmark(bounds);
}

} // namespace

} // namespace kel::bench

int main(int argc, char** argv) { return kel::bench::Run(argc, argv); }
