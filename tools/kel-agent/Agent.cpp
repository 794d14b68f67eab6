#include "Agent.h"

#include <csignal>
#include <cstdio>
#include <string_view>

#include <boost/bind/bind.hpp>

#include <glib-unix.h>
#include <glib.h>

#include "common/AgentMessages.h"
#include "policy/PolicyArchive.h"
#include "policy/PolicyText.h"

using namespace boost::placeholders;

namespace kel {
namespace agent {

namespace {

constexpr int kSetPolicyType = 4;

// An agent that is just ending still has the name; one that stays has it for good.
constexpr long long kNameTimeout = 5LL * G_USEC_PER_SEC;
constexpr unsigned int kNameTick = 20; // ms

// An application that was there before us learns of us from the bus, as we do, and its "Hello" is
// still on its way when the policy that the bus has started us for is accepted.
constexpr unsigned int kIntroductionTime = 500; // ms

// A source of the default main context; gone with its scope, unless it has removed itself.
class TCSource
{
public:
    explicit TCSource(unsigned int id) : m_id(id) {}
    ~TCSource()
    {
        if (GSource* const pSource = g_main_context_find_source_by_id(nullptr, m_id)) {
            g_source_destroy(pSource);
        }
    }
    TCSource(const TCSource&) = delete;
    TCSource& operator=(const TCSource&) = delete;

private:
    const unsigned int m_id;
};

} // namespace

TCAgent::TCAgent(bool test, const std::string& stateDirectory,
                 const TCReportStore::TSLimits& limits, TCReaderServer& readerServer)
    : m_store(stateDirectory), m_pLoop(g_main_loop_new(nullptr, FALSE)), m_nameDeadline(0),
      m_ok(true), m_applications(m_server), m_server(test), m_announcer(m_applications),
      m_collector(m_applications, m_intake, stateDirectory, limits, readerServer)
{
    m_server.SetCallback(kSetPolicyType, boost::bind(&TCAgent::m_SetPolicy, this, _1, _2));
    m_server.SetCallback(tools::AskVersion, boost::bind(&TCAgent::m_TellVersion, _2));
    m_server.SetCallback(tools::AskClients, boost::bind(&TCAgent::m_TellClients, this, _2));
    m_server.SetCallback(tools::AskArchive, boost::bind(&TCAgent::m_TellArchive, _2));
}

TCAgent::~TCAgent() { g_main_loop_unref(m_pLoop); }

bool TCAgent::Run()
{
    if (m_server.GetUniqueName().empty()) {
        std::fprintf(stderr, "kel-agent: cannot connect to the system bus\n");
        return false;
    }

    m_nameDeadline = g_get_monotonic_time() + kNameTimeout;
    const TCSource terminate(g_unix_signal_add(SIGTERM, &TCAgent::m_OnSignal, this));
    const TCSource interrupt(g_unix_signal_add(SIGINT, &TCAgent::m_OnSignal, this));
    const TCSource information(g_unix_signal_add(SIGUSR1, &TCAgent::m_OnInformationSignal, this));
    const TCSource readiness(g_timeout_add(kNameTick, &TCAgent::m_OnReadinessTick, this));
    g_main_loop_run(m_pLoop);
    m_announcer.Stop(); // here, where our signals still have handlers
    m_collector.Stop();
    return m_ok;
}

bool TCAgent::m_SetPolicy(const TBytes& request, TBytes& response)
{
    std::string policy;
    const EPolicyArchive read = TSPolicyArchive::Read(request, TSPolicyText::kMostBytes, policy);
    if (read == EPolicyArchive::NoPolicy) {
        std::fprintf(stderr, "kel-agent: refused a message of %zu bytes that holds no policy\n",
                     request.size());
        return false;
    }
    if (read == EPolicyArchive::Foreign) {
        std::fprintf(stderr,
                     "kel-agent: refused a message of %zu bytes: its archive is of another word "
                     "size, or of a newer Boost\n",
                     request.size());
        return false;
    }

    EAnswer answer = TooLarge;
    if (read == EPolicyArchive::Policy) {
        answer = m_Take(policy);
    } else {
        std::fprintf(stderr, "kel-agent: policy in a message of %zu bytes refused: too large\n",
                     request.size());
    }
    TSPolicyArchive::Write(answer, response);
    return true;
}

TCAgent::EAnswer TCAgent::m_Take(const std::string& policy)
{
    std::string reason;
    const EPolicyText judged = TSPolicyText::Judge(policy, reason);
    if (judged != EPolicyText::WellFormed) {
        std::fprintf(stderr, "kel-agent: policy of %zu bytes refused: %s\n", policy.size(),
                     reason.c_str());
        return judged == EPolicyText::TooLarge ? TooLarge : NotWellFormed;
    }
    if (!m_store.Store(policy, reason)) {
        std::fprintf(stderr, "kel-agent: policy of %zu bytes not stored: %s\n", policy.size(),
                     reason.c_str());
        return NotStored;
    }
    std::fprintf(stderr, "kel-agent: policy of %zu bytes stored\n", policy.size());
    // Whoever has sent it waits for our answer, and the server does not call whom it keeps
    // waiting: the update is asked for when this call is over.
    g_idle_add_full(G_PRIORITY_DEFAULT, &TCAgent::m_OnPolicyAccepted, this, nullptr);
    return Accepted;
}

bool TCAgent::m_TellVersion(TBytes& response)
{
    const std::string_view version = KEL_VERSION;
    response.assign(version.begin(), version.end());
    return true;
}

bool TCAgent::m_TellClients(TBytes& response)
{
    const std::string clients = m_applications.Tell();
    response.assign(clients.begin(), clients.end());
    return true;
}

bool TCAgent::m_TellArchive(TBytes& response)
{
    TSPolicyArchive::Write(Accepted, response);
    return true;
}

void TCAgent::m_End(bool ok)
{
    m_ok = ok;
    g_main_loop_quit(m_pLoop);
}

int TCAgent::m_OnSignal(void* agent)
{
    static_cast<TCAgent*>(agent)->m_End(true);
    return G_SOURCE_CONTINUE;
}

int TCAgent::m_OnInformationSignal(void* agent)
{
    static_cast<TCAgent*>(agent)->m_announcer.Request(ICallbacks::REQUEST_PROCESS_INFO);
    return G_SOURCE_CONTINUE;
}

int TCAgent::m_OnPolicyAccepted(void* agent)
{
    static_cast<TCAgent*>(agent)->m_announcer.Request(ICallbacks::POLICY_UPDATE);
    return G_SOURCE_REMOVE;
}

int TCAgent::m_OnReadinessTick(void* agent)
{
    TCAgent* const pAgent = static_cast<TCAgent*>(agent);
    if (pAgent->m_server.IsReady()) {
        std::fprintf(stderr, "kel-agent: ready\n");
        g_timeout_add(kIntroductionTime, &TCAgent::m_OnIntroduced, pAgent);
        return G_SOURCE_REMOVE;
    }
    if (g_get_monotonic_time() < pAgent->m_nameDeadline) {
        return G_SOURCE_CONTINUE;
    }
    std::fprintf(stderr, "kel-agent: cannot own the agent's name on the system bus: "
                         "another agent has it, or the bus forbids it\n");
    pAgent->m_End(false);
    return G_SOURCE_REMOVE;
}

int TCAgent::m_OnIntroduced(void* agent)
{
    TCAgent* const pAgent = static_cast<TCAgent*>(agent);
    pAgent->m_announcer.Open();
    pAgent->m_collector.Open();
    return G_SOURCE_REMOVE;
}

} // namespace agent
} // namespace kel
