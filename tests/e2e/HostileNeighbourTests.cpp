// What an agent owes its other users while one of them does his worst, and when it is killed.

#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <map>
#include <random>
#include <set>
#include <thread>

#include <gmock/gmock.h>

#include "e2e/ReportRoad.h"

namespace kel::test {

namespace fs = std::filesystem;

namespace {

constexpr uid_t kHostile = 65534;
constexpr const char* kUsers[] = {"first", "second", "third"};
constexpr uid_t kFirstUser = 2001;
constexpr int kThreads = 4;
constexpr int kRequests = 125; // of each thread
constexpr int kPause = 30;     // ms

// Both make all of it some times slower.
#if defined(__SANITIZE_ADDRESS__) || defined(KEL_EMULATED)
constexpr std::chrono::seconds kServed(20);
constexpr int kKills = 40;
#else
constexpr std::chrono::seconds kServed(2);
constexpr int kKills = 200;
#endif

TNames As(uid_t user, const TNames& command)
{
    const std::string id = std::to_string(user);
    TNames whole{"setpriv", "--reuid=" + id, "--regid=" + id, "--clear-groups", "--"};
    whole.insert(whole.end(), command.begin(), command.end());
    return whole;
}

std::unique_ptr<ChildProcess> Applicant(uid_t user, const std::string& process)
{
    return std::make_unique<ChildProcess>(
        As(user, {KEL_FILE_REQUESTS, process, std::to_string(kThreads), std::to_string(kRequests),
                  std::to_string(kPause)}));
}

// As report.json has it.
std::chrono::milliseconds ReadTime(const std::string& text)
{
    tm parts = {};
    const char* const rest = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &parts);
    const auto seconds = std::chrono::seconds(timegm(&parts));
    return seconds + std::chrono::milliseconds(rest != nullptr ? std::atoi(rest + 1) : 0);
}

// The upload paths of a process's requests, each of which has exactly one report.
void ExpectEachOnce(const std::vector<TSReport>& reports, const std::string& process)
{
    std::multiset<std::string> threads;
    for (const TSReport& report : reports) {
        if (report["/request/process"] == process) {
            threads.insert(report["/request/thread"]);
        }
    }
    for (int i = 0; i < kThreads; ++i) {
        for (int j = 0; j < kRequests; ++j) {
            const std::string thread = std::to_string(i) + "." + std::to_string(j);
            EXPECT_EQ(threads.count(thread), 1U) << process << " " << thread;
        }
    }
}

} // namespace

class Neighbours : public ReportRoad
{
protected:
    Neighbours()
    {
        Sandbox::NeedOtherUsers();
        chmod(m_bus.Directory().c_str(), 0755);
    }
};

TEST_F(Neighbours, OfOneWhoIsHostileAreServedWithinTwoSeconds)
{
    ChildProcess before(As(kHostile, {KEL_HOSTILE_NEIGHBOUR, "before"}));
    ASSERT_TRUE(before.WaitForOutput("done"));
    const auto agent = StartAgent();
    ASSERT_TRUE(Says(*agent, "kel-agent: ready\n")) << agent->ErrorOutput();
    WriteFile("/tmp/bomb", [] {
        std::string bomb;
        while (bomb.size() < (31U << 20)) {
            bomb += "<a>";
        }
        return bomb;
    }());

    ChildProcess beside(As(kHostile, {KEL_HOSTILE_NEIGHBOUR, "beside"}));
    ChildProcess bomber(As(kHostile, {KEL_CTL, "set-policy", "/tmp/bomb"}));
    std::vector<std::unique_ptr<ChildProcess>> applicants;
    for (const char* const user : kUsers) {
        applicants.push_back(Applicant(kFirstUser + static_cast<uid_t>(applicants.size()), user));
    }
    for (const auto& applicant : applicants) {
        EXPECT_EQ(applicant->Wait(), 0) << applicant->ErrorOutput();
    }

    const size_t wanted = std::size(kUsers) * kThreads * kRequests;
    const auto served = [&] {
        size_t count = 0;
        for (const char* const user : kUsers) {
            const std::string name = std::string(": ") + user + "-";
            const std::string log = agent->ErrorOutput(); // of a report, or of one that waits
            count += CountOf(log, name) - CountOf(log, "kel-agent" + name);
        }
        return count;
    };
    EXPECT_TRUE(WaitUntil([&] { return served() >= wanted; }, kCollected)) << served();
    const std::vector<TSReport> reports = Reports();
    std::chrono::milliseconds longest{};
    for (const char* const user : kUsers) {
        ExpectEachOnce(reports, user);
    }
    for (const TSReport& report : reports) {
        if (report["/request/process"] != "hostile") {
            longest
                = std::max(longest, ReadTime(report["/time"]) - ReadTime(report["/request/filed"]));
        }
    }
    EXPECT_LE(longest.count(), std::chrono::milliseconds(kServed).count());
    EXPECT_NE(bomber.Wait(), 0);
    EXPECT_LT(agent->ErrorOutput().size(), 2U << 20) << "the log is bounded, too";
    EXPECT_TRUE(beside.WaitForOutput("done", kCollected));
}

// Each has exactly one report, and a report that is there is whole.
TEST_F(Neighbours, OfAFloodEachIsServedOnceThoughTheAgentIsKilledAgainAndAgain)
{
    constexpr int kOfARound = 10;
    StartCollector(); // makes the directories
    std::mt19937 random(2026);
    std::uniform_int_distribution<int> moment(0, 20'000); // us, from the round's first report on
    std::set<std::string> wanted;
    for (int i = 0; i < kKills; ++i) {
        const std::string process = "round" + std::to_string(i);
        const size_t before = Ids().size();
        const auto agent = StartAgent();
        ChildProcess applicant(
            As(kFirstUser, {KEL_FILE_REQUESTS, process, "2", std::to_string(kOfARound / 2)}));
        ASSERT_EQ(applicant.Wait(), 0) << applicant.ErrorOutput();
        for (int j = 0; j < kOfARound; ++j) {
            wanted.insert(process + " " + std::to_string(j / 5) + "." + std::to_string(j % 5));
        }
        ASSERT_TRUE(WaitUntil([&] { return Ids().size() > before; })) << agent->ErrorOutput();
        std::this_thread::sleep_for(std::chrono::microseconds(moment(random)));
        agent->Signal(SIGKILL);
        agent->Wait();
    }

    const auto agent = StartAgent();
    ASSERT_TRUE(WaitForReports(wanted.size())) << Ids().size() << " reports";
    LetItLook();
    std::multiset<std::string> served;
    for (const TSReport& report : Reports()) {
        served.insert(report["/request/process"] + " " + report["/request/thread"]);
    }
    served.erase("look once");
    served.erase("look twice");
    EXPECT_TRUE(served == (std::multiset<std::string>(wanted.begin(), wanted.end())))
        << served.size() << " instead of " << wanted.size();
}

} // namespace kel::test
