// One synchronous message from an application to the agent, which answers with the same bytes:
//   TCDbusClient::SendMessage       the payload copied into a request, the answer copied out
//   against raw GDBus               g_dbus_connection_call_sync; the payload copied into a request
//                                   that is kept and handed over without another copy, the answer's
//                                   bytes copied into a buffer that is kept, as every user must
//   against a prepared request      the same, of a request whose payload never changes: made before
//                                   the measurement
//   against sdbus-c++, if installed one call of a proxy with a std::vector<uint8_t> each way
// The first two share one connection, as everything in one process does; the agent's end is a
// TCDbusServer in a process of its own. Vectors are reused on every side.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gio/gio.h>

#ifdef KEL_BENCH_SDBUS
#include <sdbus-c++/sdbus-c++.h>
#endif

#include <kel/KELDbusClient.h>
#include <kel/KELDbusServer.h>

#include "BenchPeer.h"
#include "KELGlib.h"
#include "PairedMedian.h"
#include "support/HostLoop.h"
#include "support/PrivateBus.h"

namespace kel::bench {

namespace {

constexpr char kServerRole[] = "server";
constexpr int kType = 7;
constexpr char kMethod[] = "Send";

bool Echo(const TBytes& request, TBytes& response)
{
    response = request;
    return true;
}

int RunServer()
{
    TCDbusServer server(true);
    server.SetCallback(kType, &Echo);
    while (!server.IsReady()) {
        g_main_context_iteration(nullptr, TRUE);
    }
    Serve("ready");
}

class TCRawCall
{
public:
    TCRawCall(GDBusConnection* pConnection, const TBytes& data)
        : m_pConnection(pConnection), m_data(data), m_request(RequestBytes(kType, data))
    {}

    void Call()
    {
        std::memcpy(m_request.data() + (m_request.size() - m_data.size()), m_data.data(),
                    m_data.size());
        CallPrepared();
    }

    void CallPrepared()
    {
        const TGlibPtr<GVariant> reply(g_dbus_connection_call_sync(
            m_pConnection, kBusName, kObjectPath, kInterface, kMethod, Borrow(m_request),
            G_VARIANT_TYPE("(ay)"), G_DBUS_CALL_FLAGS_NONE, kTimeout, nullptr, nullptr));
        if (reply == nullptr) {
            Fail("raw call");
        }
        const auto [bytes, size] = BytesOf(reply.get());
        m_response.assign(bytes, bytes + size);
    }

    const TBytes& Response() const { return m_response; }

private:
    GDBusConnection* m_pConnection; // the benchmark's
    const TBytes& m_data;           // its, too
    TBytes m_request;
    TBytes m_response;
};

void Row(size_t size, const TSPaired& pair, const std::string& bound)
{
    std::printf("%8s %13s %13s %8.3f   %.3f to %.3f %7zu   %s\n", Size(size).c_str(),
                Time(pair.m_ours).c_str(), Time(pair.m_baseline).c_str(), pair.m_ratio, pair.m_low,
                pair.m_high, pair.m_rounds, bound.c_str());
    std::fflush(stdout);
}

void Header(const char* baseline)
{
    std::printf("%8s %13s %13s %8s   %-14s %7s   %s\n", "payload", "SendMessage", baseline, "ratio",
                "95 % interval", "rounds", "bound");
}

constexpr size_t kSizes[] = {16, 1024, 64 * 1024, 1024 * 1024};

/// @param call    sends one message the raw way.
/// @param judge   what stands behind the ratio of a size.
void CompareWithRaw(TCDbusClient& client, GDBusConnection* pConnection, void (TCRawCall::*call)(),
                    const std::function<std::string(size_t, double)>& judge)
{
    for (const size_t size : kSizes) {
        const TBytes data(size, 0x5a);
        TBytes response;
        const auto send = [&] {
            if (!client.SendMessage(kType, data, response, false)) {
                Fail("SendMessage");
            }
        };
        TCRawCall raw(pConnection, data);
        const auto rawSend = [&] { (raw.*call)(); };

        TSEffort effort;
        effort.m_seconds = 5;
        const TSPaired pair = MeasurePair(send, rawSend, effort);
        Row(size, pair, judge(size, pair.m_ratio));
        if (response != data || raw.Response().size() != size + 1) {
            Fail("the bytes came back changed");
        }
    }
}

#ifdef KEL_BENCH_SDBUS
void CompareWithSdbus(TCDbusClient& client)
{
    std::printf("\n");
    Header("sdbus-c++");
    const auto connection = sdbus::createSystemBusConnection();
    const auto proxy = sdbus::createProxy(*connection, kBusName, kObjectPath);
    for (const size_t size : kSizes) {
        const TBytes data(size, 0x5a);
        TBytes response;
        const auto send = [&] {
            if (!client.SendMessage(kType, data, response, false)) {
                Fail("SendMessage");
            }
        };
        const std::vector<uint8_t> request = RequestBytes(kType, data);
        std::vector<uint8_t> reply;
        const auto sdbusSend = [&] {
            reply.clear(); // its reader appends
            proxy->callMethod(kMethod)
                .onInterface(kInterface)
                .withArguments(request)
                .storeResultsTo(reply);
        };

        TSEffort effort;
        effort.m_seconds = 3;
        Row(size, MeasurePair(send, sdbusSend, effort), "");
        if (reply.size() != size + 1) {
            Fail("the bytes came back changed");
        }
    }
}
#endif

int Run(int argc, char** argv)
{
    if (argc == 2 && std::string(argv[1]) == kServerRole) {
        return RunServer();
    }
    TCBounds bounds;
    setenv("KEL_HOST_LOG", "none", 1); // the log's sink is not what is measured
    const test::PrivateBus bus;
    const auto server = StartPeer({kServerRole});

    TCDbusClient client(true);
    const test::HostLoop loop;
    Await([&] { return client.IsReady(); }, "the server's name");
    const TGlibPtr<GDBusConnection> connection(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr));

    std::printf("a message to the agent and back, medians of alternating blocks\n");
    Header("raw GDBus");
    CompareWithRaw(client, connection.get(), &TCRawCall::Call, [&](size_t size, double ratio) {
        return bounds.AtMost(ratio, size <= 64 * 1024 ? 1.02 : 1.05);
    });
    std::printf("\n");
    Header("prepared");
    CompareWithRaw(client, connection.get(), &TCRawCall::CallPrepared,
                   [](size_t, double) { return std::string(); });
#ifdef KEL_BENCH_SDBUS
    CompareWithSdbus(client);
#else
    std::printf("\nbuilt without sdbus-c++: no comparison with it\n");
#endif
    return bounds.ExitStatus();
}

} // namespace

} // namespace kel::bench

int main(int argc, char** argv) { return kel::bench::Run(argc, argv); }
