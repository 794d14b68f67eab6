// An application with a fault, whose name is its argument: what the tools show of each is in the
// table of docs/when-it-does-not-work.md. It prints its unique name, and runs until it is ended,
// unless that is its fault.
//
//   faulty-application FAULT
//   faulty-application --list

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gio/gio.h>

#include <kel/KELCallbacksProxy.h>
#include <kel/KELDbusClient.h>
#include <kel/KELIssueReport.h>
#include <kel/api.h>

namespace {

typedef std::vector<unsigned char> TBytes;

constexpr char kAgent[] = "com.norvale.kel.IControl";
constexpr char kObject[] = "/com/norvale/kel/CommunicationChannel";
constexpr char kInterface[] = "com.norvale.kel.IControl";
constexpr int kSetPolicy = 4;
constexpr int kUnknown = 7;

// Longer than the agent waits for an answer to an event.
constexpr std::chrono::seconds kTooLong(7);

void Iterate() { g_main_loop_run(g_main_loop_new(nullptr, FALSE)); }

void SetPolicy(const std::string& policy = "<policy/>")
{
    kel::api::GetControl()->SetPolicy(policy);
}

// As every application should: it asks for the event, sets its policy, and hears that it applies.
void RunWith(const boost::function<void()>& onUpdate)
{
    kel::TCCallbacksProxy::Instance()->SetPolicyUpdateCb(onUpdate);
    SetPolicy();
    Iterate();
}

void HasNoFault()
{
    RunWith([] {});
}

void HasNoLoop()
{
    kel::TCCallbacksProxy::Instance()->SetPolicyUpdateCb([] {});
    SetPolicy();
    for (;;) {
        pause();
    }
}

void Throws()
{
    RunWith([] { throw std::runtime_error("no room on the shelf"); });
}

void IsSlow()
{
    RunWith([] { std::this_thread::sleep_for(kTooLong); });
}

void Ends()
{
    RunWith([] { _exit(EXIT_FAILURE); });
}

void Declines()
{
    const auto client = kel::TCDbusClientProvider::Get(false);
    client->SetCallback(kel::ICallbacks::POLICY_UPDATE,
                        [](const TBytes&, TBytes&) { return false; });
    SetPolicy();
    Iterate();
}

void AsksForAnotherType()
{
    kel::TCCallbacksProxy::Instance()->SetRequestProcessInfoCb([] { return true; });
    SetPolicy();
    Iterate();
}

void AsksForNothing()
{
    SetPolicy();
    Iterate();
}

void SetsNoXml()
{
    SetPolicy("<policy>");
    Iterate();
}

void SetsTooMuch()
{
    SetPolicy("<policy>" + std::string(2U << 20, ' ') + "</policy>");
    Iterate();
}

void Send(int type, const TBytes& data)
{
    TBytes none;
    kel::TCDbusClientProvider::Get(false)->SendMessage(type, data, none, false);
}

void SendsTooMuch()
{
    Send(kSetPolicy, TBytes(33U << 20));
    Iterate();
}

void SendsNoArchive()
{
    const std::string text = "<policy/>";
    Send(kSetPolicy, TBytes(text.begin(), text.end()));
    Iterate();
}

void SendsAnUnknownType()
{
    Send(kUnknown, {});
    Iterate();
}

void Floods()
{
    const auto client = kel::TCDbusClientProvider::Get(false);
    TBytes none;
    for (int i = 0; i < 5000; ++i) {
        client->SendMessage(kUnknown, {}, none, true);
    }
    Iterate();
}

void UsesTheTestChannel()
{
    const auto client = kel::TCDbusClientProvider::Get(true); // which the others find, then
    RunWith([] {});
}

void AskForAReport(const std::string& artefact)
{
    char process[] = "faulty";
    char thread[] = "main";
    Request_NDF(ALWAYS, process, thread, artefact);
    Iterate();
}

void HasNoArtefact() { AskForAReport("/nowhere/faulty.log"); }

void HasAPrivateArtefact()
{
    constexpr uid_t nobody = 65534;
    if (setuid(nobody) != 0) { // an ordinary user may not, and has no need to
        std::perror("setuid");
    }
    AskForAReport("/etc/shadow");
}

// What no application of the library does, and one in another language may do.

GDBusConnection* Connection()
{
    static GDBusConnection* const connection
        = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr); // which the library shares
    return connection;
}

void CallsNoMethod()
{
    g_dbus_connection_call(Connection(), kAgent, kObject, kInterface, "SetPolicy",
                           g_variant_new("(s)", "<policy/>"), nullptr, G_DBUS_CALL_FLAGS_NONE, -1,
                           nullptr, nullptr, nullptr);
    Iterate();
}

// On the connection's own thread, before the library sees the call.
GDBusMessage* AnswerWithAText(GDBusConnection* connection, GDBusMessage* message, int incoming,
                              void*)
{
    if (incoming == FALSE
        || g_dbus_message_get_message_type(message) != G_DBUS_MESSAGE_TYPE_METHOD_CALL) {
        return message;
    }
    GDBusMessage* const answer = g_dbus_message_new_method_reply(message);
    g_dbus_message_set_body(answer, g_variant_new("(s)", "done"));
    g_dbus_connection_send_message(connection, answer, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr,
                                   nullptr);
    g_object_unref(answer);
    g_object_unref(message);
    return nullptr;
}

void AnswersWithAText()
{
    g_dbus_connection_add_filter(Connection(), &AnswerWithAText, nullptr, nullptr);
    RunWith([] {});
}

const std::map<std::string, void (*)()> kFaults{{"none", HasNoFault},
                                                {"no-loop", HasNoLoop},
                                                {"throws", Throws},
                                                {"slow", IsSlow},
                                                {"ends", Ends},
                                                {"declines", Declines},
                                                {"another-type", AsksForAnotherType},
                                                {"no-function", AsksForNothing},
                                                {"no-xml", SetsNoXml},
                                                {"large-policy", SetsTooMuch},
                                                {"large-message", SendsTooMuch},
                                                {"no-archive", SendsNoArchive},
                                                {"unknown-type", SendsAnUnknownType},
                                                {"flood", Floods},
                                                {"test-channel", UsesTheTestChannel},
                                                {"no-bus-policy", HasNoFault}, // the bus has it
                                                {"no-artefact", HasNoArtefact},
                                                {"private-artefact", HasAPrivateArtefact},
                                                {"no-method", CallsNoMethod},
                                                {"odd-answer", AnswersWithAText}};

} // namespace

int main(int argumentCount, char** arguments)
{
    const std::string name = argumentCount == 2 ? arguments[1] : "";
    if (name == "--list") {
        for (const auto& [fault, run] : kFaults) {
            std::printf("%s\n", fault.c_str());
        }
        return EXIT_SUCCESS;
    }
    const auto fault = kFaults.find(name);
    if (fault == kFaults.end() || Connection() == nullptr) {
        std::fprintf(stderr, "usage: faulty-application FAULT, on a system bus\n");
        return 2;
    }
    std::printf("%s\n", g_dbus_connection_get_unique_name(Connection()));
    std::fflush(stdout);
    fault->second();
}
