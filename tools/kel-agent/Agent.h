#pragma once

#include <string>
#include <vector>

#include <kel/KELDbusServer.h>

#include "Announcer.h"
#include "Applications.h"
#include "Collector.h"
#include "policy/PolicyStore.h"
#include "reports/ReportStore.h"
#include "requests/RequestIntake.h"

typedef struct _GMainLoop GMainLoop;

namespace kel {
namespace agent {

/// The agent: serves the channel from construction on, as long as Run() runs. It tells all
/// applications of a policy that it has accepted, asks them for process information on SIGUSR1, and
/// collects the reports that they ask for.
///
/// Threads: made, run and destroyed on one thread, which iterates the default main context.
class TCAgent
{
public:
    /// @param test            serve the test channel.
    /// @param stateDirectory  where the policy and the reports are kept.
    /// @param limits          of the reports.
    /// @param readerServer    outlives this object.
    TCAgent(bool test, const std::string& stateDirectory, const TCReportStore::TSLimits& limits,
            TCReaderServer& readerServer);
    ~TCAgent();
    TCAgent(const TCAgent&) = delete;
    TCAgent& operator=(const TCAgent&) = delete;

    /// Serves until SIGTERM or SIGINT.
    ///
    /// @return true when a signal ended it; false, with a line on standard error, when the agent's
    ///         bus name could not be had.
    bool Run();

private:
    typedef std::vector<unsigned char> TBytes;

    // What is answered to a policy.
    enum EAnswer { Accepted = 0, NotWellFormed = 1, NotStored = 2, TooLarge = 3 };

    bool m_SetPolicy(const TBytes& request, TBytes& response);
    EAnswer m_Take(const std::string& policy);
    static bool m_TellVersion(TBytes& response);
    bool m_TellClients(TBytes& response);
    static bool m_TellArchive(TBytes& response);
    void m_End(bool ok);

    static int m_OnSignal(void* agent);
    static int m_OnInformationSignal(void* agent);
    static int m_OnPolicyAccepted(void* agent);
    static int m_OnReadinessTick(void* agent);
    static int m_OnIntroduced(void* agent);

    TCPolicyStore m_store;
    GMainLoop* const m_pLoop; // released by the destructor
    long long m_nameDeadline; // in the monotonic clock's microseconds
    bool m_ok;
    TCRequestIntake m_intake; // before the server: who sees the agent's name finds its directories
    TCApplications m_applications;
    TCDbusServer m_server; // behind what its callbacks use
    // Last, because no send may be under way when the server goes.
    TCAnnouncer m_announcer;
    TCCollector m_collector;
};

} // namespace agent
} // namespace kel
