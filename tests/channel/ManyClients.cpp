// More applications than the bus's limits: hundreds of real connections, of other processes and
// several users, on a bus with the limits of a stock system bus.

#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <future>
#include <iostream>

#include "channel/ChannelTest.h"
#include "support/Sandbox.h"

namespace kel::test {

namespace {

typedef RawPeer::TSAnswer TSAnswer;

constexpr char kCrowdOption[] = "--crowd";
constexpr size_t kPendingReplies = 128; // of a connection, on a stock bus
constexpr uid_t kUsers[] = {65534, 1, 2};

/// What a crowd's process does: many clients, each with a connection of its own. They say nothing
/// when they are called, until standard input says "answer"; they end with it.
///
/// Prints "ready" when all have said "Hello", and "called" for each call.
int RunCrowd(const std::string& address, int count, uid_t user)
{
    if (user != geteuid() && (setgid(user) != 0 || setuid(user) != 0)) {
        std::perror("changing the user");
        return 1;
    }
    prctl(PR_SET_PDEATHSIG, SIGKILL); // the change has cleared it

    std::mutex mutex;
    bool answering = false;
    std::vector<std::pair<RawPeer*, TSCall>> waiting;
    std::vector<std::unique_ptr<RawPeer>> peers;
    for (int i = 0; i < count; ++i) {
        peers.push_back(std::make_unique<RawPeer>(address));
        RawPeer* const peer = peers.back().get();
        peer->SetAnswer("Send", [&, peer](const TSCall& call) {
            peer->ForgetCalls(); // they may be large
            const std::lock_guard<std::mutex> lock(mutex);
            std::cout << "called" << std::endl;
            if (answering) {
                return TSAnswer::Bytes({1});
            }
            waiting.emplace_back(peer, call);
            return TSAnswer::Nothing();
        });
        if (!peer->Hello({5}).IsOk()) {
            return 2;
        }
    }
    std::cout << "ready" << std::endl;

    std::string line;
    while (std::getline(std::cin, line) && line == "answer") {
        const std::lock_guard<std::mutex> lock(mutex);
        answering = true;
        for (const auto& [peer, call] : waiting) {
            peer->Answer(call, TSAnswer::Bytes({1}));
        }
        waiting.clear();
    }
    _exit(0);
}

/// Whether this process may act as other users; not so in a user namespace with one user.
bool MayChangeUser()
{
    const pid_t child = fork();
    if (child == 0) {
        // Anybody may become who they are.
        _exit(geteuid() == 0 && setgid(kUsers[0]) == 0 && setuid(kUsers[0]) == 0 ? 0 : 1);
    }
    int status = 1;
    waitpid(child, &status, 0);
    return status == 0;
}

const bool mayChangeUser = MayChangeUser(); // before there are threads

/// A system bus is started with room for more descriptors than a shell gives; newer ones keep
/// several for each connection. What this process starts has the same.
void AllowManyDescriptors()
{
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 4096);
    setrlimit(RLIMIT_NOFILE, &limit);
}

/// Stock limits. One user may not have so many connections: where all have to be this user's, that
/// one limit is raised.
PrivateBus::TSOptions StockLimits()
{
    PrivateBus::TSOptions options;
    if (!mayChangeUser) {
        options.m_config = "<limit name=\"max_connections_per_user\">2000</limit>";
    }
    return options;
}

class ManyClients : public ServerTest
{
protected:
    ManyClients() : ServerTest(StockLimits()) {}

    /// Adds a process with so many clients, and returns when the agent knows them.
    void AddCrowd(int count)
    {
        const size_t known = m_server.NumberOfClients() + static_cast<size_t>(count);
        const uid_t user = mayChangeUser ? kUsers[m_crowds.size() % std::size(kUsers)] : geteuid();
        m_crowds.push_back(std::make_unique<ChildProcess>(
            std::vector<std::string>{"/proc/self/exe", kCrowdOption, m_bus.Address(),
                                     std::to_string(count), std::to_string(user)}));
        ASSERT_TRUE(m_crowds.back()->WaitForOutput("ready")) << m_crowds.back()->ErrorOutput();
        ASSERT_TRUE(WaitUntil([&] { return m_server.NumberOfClients() == known; }));
    }

    size_t CountCalls() const
    {
        size_t count = 0;
        for (const auto& crowd : m_crowds) {
            count += CountOf(crowd->Output(), "called\n");
        }
        return count;
    }

    void LetAnswer()
    {
        for (const auto& crowd : m_crowds) {
            crowd->Write("answer\n");
        }
    }

    std::future<TCounts> SendInBackground(int timeout)
    {
        return std::async(std::launch::async,
                          [this, timeout] { return m_server.SendMessage(5, {}, timeout); });
    }

    std::vector<std::unique_ptr<ChildProcess>> m_crowds;
};

TEST_F(ManyClients, ThreeHundredGetTheMessageAndAreForgottenWhenTheyDie)
{
    for (int i = 0; i < 3; ++i) {
        AddCrowd(100);
    }
    ASSERT_EQ(m_server.NumberOfClients(), 300u);

    std::future<TCounts> sent = SendInBackground(60'000);
    EXPECT_TRUE(WaitUntil([&] { return CountCalls() >= kPendingReplies; }))
        << "all that the bus has room for, before anybody has answered; it had " << CountCalls();
    LetAnswer();

    EXPECT_EQ(sent.get(), TCounts(300, 0)) << m_log.Text();
    EXPECT_TRUE(WaitUntil([&] { return CountCalls() == 300; })) << CountCalls();
    EXPECT_EQ(m_server.SendMessage(5, {}, 60'000), TCounts(300, 0)) << "at any speed";
    EXPECT_FALSE(m_log.Mentions("error, errno"));

    m_crowds.clear();
    EXPECT_TRUE(WaitUntil([&] { return m_server.NumberOfClients() == 0; }))
        << m_server.NumberOfClients();
    EXPECT_EQ(m_server.SendMessage(5, {}, 1000), TCounts(0, 0));
}

TEST_F(ManyClients, ThatDieInTheMiddleOfAMessageAreFailuresAlone)
{
    AddCrowd(150);
    AddCrowd(150);

    std::future<TCounts> sent = SendInBackground(60'000);
    EXPECT_TRUE(WaitUntil([&] { return CountCalls() >= kPendingReplies; }));
    m_crowds[0]->Kill();
    m_crowds[1]->Write("answer\n");

    EXPECT_EQ(sent.get(), TCounts(150, 150));
    EXPECT_TRUE(WaitUntil([&] { return m_server.NumberOfClients() == 150; }));
}

/// The most memory that this process has had since ForgetPeak(), in bytes.
size_t PeakMemory()
{
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmHWM:", 0) == 0) {
            return std::strtoul(line.c_str() + 6, nullptr, 10) * 1024;
        }
    }
    return 0;
}

#if defined(__SANITIZE_ADDRESS__)
constexpr size_t kFactor = 5; // the sanitizer keeps what has been freed
#else
constexpr size_t kFactor = 2;
#endif

void ForgetPeak() { std::ofstream("/proc/self/clear_refs") << "5"; }

TEST_F(ManyClients, ALargeMessageIsInMemoryOncePerClientThatItIsWrittenTo)
{
    constexpr size_t kCopies = 20;
    constexpr size_t kSize = 8 * 1024 * 1024;
    AddCrowd(kCopies);
    LetAnswer();
    const TBytes data(kSize, 0x5a);
    ForgetPeak();
    const size_t before = PeakMemory();

    EXPECT_EQ(m_server.SendMessage(5, data, 60'000), TCounts(kCopies, 0));

    // GDBus writes one copy per client into a buffer that grows by doubling. The request itself is
    // one more, for all of them.
    EXPECT_LT(PeakMemory() - before, (kFactor * kCopies + 4) * kSize) << PeakMemory() - before;
}

} // namespace

} // namespace kel::test

int main(int argumentCount, char** arguments)
{
    if (argumentCount == 5 && std::strcmp(arguments[1], kel::test::kCrowdOption) == 0) {
        return kel::test::RunCrowd(arguments[2], std::atoi(arguments[3]),
                                   static_cast<uid_t>(std::atoi(arguments[4])));
    }
    kel::test::AllowManyDescriptors();
    return kel::test::RunTestsInSandbox(argumentCount, arguments);
}
