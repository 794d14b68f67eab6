#include "ScriptedAgent.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>
#include <sstream>
#include <system_error>
#include <thread>
#include <vector>

#include <boost/archive/binary_oarchive.hpp>

#include <gio/gio.h>

#include <kel/KELDbusServer.h>
#include <kel/KELIpcSerializationUtil.h>

namespace kel {
namespace testbus {

namespace {

typedef std::vector<unsigned char> TBytes;

constexpr int kEventTimeout = 25'000;                     // in milliseconds: the bus's own
constexpr unsigned int kTick = 10;                        // in milliseconds
constexpr long long kNameTimeout = 10LL * G_USEC_PER_SEC; // an agent that ends may still have it

// What only looks like the beginning of an archive.
const TBytes kJunk{0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x7f, 0x00, 0xc3, 0x28, 0xfe};

TBytes ArchiveOf(int number)
{
    std::stringstream stream;
    boost::archive::binary_oarchive(stream) << number;
    TBytes bytes;
    TCIpcSerializationUtil::ConvertData(stream, bytes);
    return bytes;
}

/// The channel's agent, with answers that the library's own agents do not give.
class TCScriptedServer : public TCDbusServer
{
public:
    TCScriptedServer(bool test, const TCScript& script, TCProgress& progress)
        : TCDbusServer(test), m_script(script), m_progress(progress)
    {
        // No call arrives before this thread iterates its main context.
        t_SetDbusCallback(t_dbusSendMethod, [this](const char* sender, GVariant* parameters,
                                                   GDBusMethodInvocation* invocation) {
            m_Receive(sender, parameters, invocation);
        });
        const TMethodHandler greet = m_methodHandlers[t_dbusHelloMethod];
        t_SetDbusCallback(t_dbusHelloMethod, [this, greet](const char* sender, GVariant* parameters,
                                                           GDBusMethodInvocation* invocation) {
            m_Note(sender, parameters);
            greet(sender, parameters, invocation);
        });
    }

    /// Whether an application is there, and has asked for this event if there is one.
    bool HasClient(std::optional<int> event)
    {
        const auto asks = [&](const auto& client) { return client.second.count(*event) != 0; };
        return NumberOfClients() != 0
               && (!event || std::any_of(m_wishes.begin(), m_wishes.end(), asks));
    }

private:
    struct TSPending
    {
        TCScriptedServer& m_server;
        GDBusMethodInvocation* m_pInvocation; // owned: an answer takes it
        int m_type;
        TSAnswer m_answer;
    };

    void m_Note(const char* sender, GVariant* parameters)
    {
        TBytes bytes;
        t_ConvertBytes(parameters, bytes);
        std::set<int>& wishes = m_wishes[sender];
        wishes.clear();
        for (size_t at = 0; at + sizeof(int) <= bytes.size(); at += sizeof(int)) {
            int type = 0;
            std::memcpy(&type, &bytes[at], sizeof(int));
            wishes.insert(type);
        }
    }

    void m_Receive(const char* sender, GVariant* parameters, GDBusMethodInvocation* invocation)
    {
        int type = 0;
        bool async = false;
        TBytes data;
        t_ConvertBytes(parameters, type, async, data);
        const TSAnswer answer = m_script.Answer(type, m_progress.Count(type));
        std::fprintf(stderr, "kel-testbus: message %d of %s, %zu bytes\n", type, sender,
                     data.size());
        g_timeout_add_full(G_PRIORITY_DEFAULT, answer.m_delay, &TCScriptedServer::m_OnDelay,
                           new TSPending{*this, invocation, type, answer}, nullptr);
    }

    void m_Answer(const TSPending& pending) const
    {
        const TSAnswer& answer = pending.m_answer;
        const TBytes none;
        GVariant* body = nullptr;
        switch (answer.m_kind) {
        case TSAnswer::EKind::Handled:
            if (answer.m_result || pending.m_type == kSetPolicy) {
                t_ConvertBytes(ArchiveOf(answer.m_result.value_or(0)), true, body);
            } else {
                t_ConvertBytes(none, true, body);
            }
            break;
        case TSAnswer::EKind::NotHandled:
            t_ConvertBytes(none, false, body);
            break;
        case TSAnswer::EKind::Error:
            g_dbus_method_invocation_return_dbus_error(
                pending.m_pInvocation, answer.m_error.c_str(), "the script says so");
            return;
        case TSAnswer::EKind::Junk:
            t_ConvertBytes(kJunk, true, body);
            break;
        case TSAnswer::EKind::NoBytes:
            t_ConvertBytes(none, body);
            break;
        case TSAnswer::EKind::OtherType:
            m_AnswerText(pending.m_pInvocation);
            return;
        case TSAnswer::EKind::Nothing:
            g_object_unref(pending.m_pInvocation);
            return;
        }
        g_dbus_method_invocation_return_value(pending.m_pInvocation, body);
    }

    // Past GDBus, which lets nobody answer with another type than the interface tells.
    void m_AnswerText(GDBusMethodInvocation* invocation) const
    {
        GDBusMessage* const call = g_dbus_method_invocation_get_message(invocation);
        if ((g_dbus_message_get_flags(call) & G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED) == 0) {
            GDBusMessage* const reply = g_dbus_message_new_method_reply(call);
            g_dbus_message_set_body(reply, g_variant_new("(s)", "a text in place of bytes"));
            g_dbus_connection_send_message(m_pConnection, reply, G_DBUS_SEND_MESSAGE_FLAGS_NONE,
                                           nullptr, nullptr);
            g_object_unref(reply);
        }
        g_object_unref(invocation);
    }

    static int m_OnDelay(void* pending)
    {
        const std::unique_ptr<TSPending> owned(static_cast<TSPending*>(pending));
        owned->m_server.m_Answer(*owned);
        return G_SOURCE_REMOVE;
    }

    const TCScript& m_script;
    TCProgress& m_progress;
    std::map<std::string, std::set<int>> m_wishes; // events, by the application's unique name
};

/// One life of the agent: takes the script's steps, one behind the other.
class TCLife
{
public:
    TCLife(const TCScript& script, TCProgress& progress, bool test, int ready)
        : m_script(script), m_progress(progress), m_test(test), m_ready(ready), m_nameDeadline(0)
    {}

    [[noreturn]] void Run()
    {
        if (m_script.IsAwayAt(m_progress.Step())) {
            m_TellReady();
            m_Plan();
        } else {
            m_Appear();
        }
        GMainLoop* const loop = g_main_loop_new(nullptr, FALSE);
        for (;;) {
            g_main_loop_run(loop);
        }
    }

private:
    void m_TellReady()
    {
        if (m_ready >= 0) {
            const char byte = 1;
            if (write(m_ready, &byte, 1) != 1) {
                _exit(EXIT_FAILURE); // whoever waits for it has gone
            }
            close(m_ready);
            m_ready = -1;
        }
    }

    void m_Plan()
    {
        if (m_progress.Step() < m_script.Steps().size()) {
            const TSStep& step = m_script.Steps()[m_progress.Step()];
            g_timeout_add(step.m_delay, &TCLife::m_OnStep, this);
        }
    }

    void m_GoOn()
    {
        ++m_progress.Step();
        m_Plan();
    }

    void m_Take(const TSStep& step)
    {
        switch (step.m_kind) {
        case TSStep::EKind::Send:
            m_Send(*step.m_type);
            m_GoOn();
            break;
        case TSStep::EKind::Vanish:
            std::fprintf(stderr, "kel-testbus: the agent vanishes\n");
            ++m_progress.Step();
            _exit(kVanished);
        case TSStep::EKind::Return:
            m_Appear();
            break;
        case TSStep::EKind::WaitForClient:
        case TSStep::EKind::WaitForMessage:
            g_timeout_add(kTick, &TCLife::m_OnWait, this);
            break;
        }
    }

    void m_Appear()
    {
        m_pServer = std::make_unique<TCScriptedServer>(m_test, m_script, m_progress);
        m_nameDeadline = g_get_monotonic_time() + kNameTimeout;
        g_timeout_add(kTick, &TCLife::m_OnReadiness, this);
    }

    // A send lasts as long as the slowest application, and the agent has to go on meanwhile.
    void m_Send(int event)
    {
        std::thread([pServer = m_pServer.get(), event] {
            const auto [handled, failed] = pServer->SendMessage(event, {}, kEventTimeout);
            std::fprintf(stderr, "kel-testbus: event %d: %zu handled, %zu not\n", event, handled,
                         failed);
        }).detach();
    }

    static int m_OnStep(void* life)
    {
        TCLife* const pLife = static_cast<TCLife*>(life);
        pLife->m_Take(pLife->m_script.Steps()[pLife->m_progress.Step()]);
        return G_SOURCE_REMOVE;
    }

    static int m_OnWait(void* life)
    {
        TCLife* const pLife = static_cast<TCLife*>(life);
        const TSStep& step = pLife->m_script.Steps()[pLife->m_progress.Step()];
        const bool isThere = step.m_kind == TSStep::EKind::WaitForClient
                                 ? pLife->m_pServer->HasClient(step.m_type)
                                 : pLife->m_progress.Messages(*step.m_type) >= step.m_number;
        if (!isThere) {
            return G_SOURCE_CONTINUE;
        }
        pLife->m_GoOn();
        return G_SOURCE_REMOVE;
    }

    static int m_OnReadiness(void* life)
    {
        TCLife* const pLife = static_cast<TCLife*>(life);
        if (!pLife->m_pServer->IsReady()) {
            if (g_get_monotonic_time() < pLife->m_nameDeadline) {
                return G_SOURCE_CONTINUE;
            }
            std::fprintf(stderr, "kel-testbus: the scripted agent cannot own its name\n");
            _exit(EXIT_FAILURE);
        }
        std::fprintf(stderr, "kel-testbus: the agent is there\n");
        pLife->m_TellReady();
        const size_t step = pLife->m_progress.Step();
        const std::vector<TSStep>& steps = pLife->m_script.Steps();
        if (step < steps.size() && steps[step].m_kind == TSStep::EKind::Return) {
            ++pLife->m_progress.Step(); // this was it
        }
        pLife->m_Plan();
        return G_SOURCE_REMOVE;
    }

    const TCScript& m_script;
    TCProgress& m_progress;
    const bool m_test;
    int m_ready;
    long long m_nameDeadline; // in the monotonic clock's microseconds
    std::unique_ptr<TCScriptedServer> m_pServer;
};

// In the counts, before those of the types that the script names.
constexpr size_t kStep = 0;
constexpr size_t kOthers = 1; // messages without lines of their own
constexpr size_t kFirstPlace = 2;

size_t MappedSize(size_t counts) { return counts * sizeof(size_t); }

} // namespace

TCProgress::TCProgress(const TCScript& script) : m_script(script)
{
    size_t place = kFirstPlace;
    for (const int type : script.Types()) {
        m_places[type] = place++;
    }
    void* const memory = mmap(nullptr, MappedSize(place), PROT_READ | PROT_WRITE,
                              MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        throw std::system_error(errno, std::generic_category(), "sharing memory with the agent");
    }
    m_pCounts = static_cast<size_t*>(memory);
}

TCProgress::~TCProgress() { munmap(m_pCounts, MappedSize(m_places.size() + kFirstPlace)); }

size_t& TCProgress::Step() { return m_pCounts[kStep]; }

size_t TCProgress::Messages(int type) const { return m_pCounts[m_places.at(type)]; }

size_t TCProgress::Count(int type)
{
    const auto found = m_places.find(type);
    const size_t ofType = found != m_places.end() ? m_pCounts[found->second]++ : 0;
    return m_script.HasLines(type) ? ofType : m_pCounts[kOthers]++;
}

void RunScriptedAgent(const TCScript& script, TCProgress& progress, bool test, int ready)
{
    try {
        TCLife(script, progress, test, ready).Run();
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "kel-testbus: the scripted agent: %s\n", failure.what());
        _exit(EXIT_FAILURE);
    }
}

} // namespace testbus
} // namespace kel
