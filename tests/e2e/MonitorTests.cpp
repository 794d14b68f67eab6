// kelctl monitor and the example that hears, with the real agent.

#include <signal.h>

#include <algorithm>
#include <chrono>

#include <gmock/gmock.h>

#include "e2e/AgentRoad.h"

namespace kel::test {

using testing::ContainsRegex;
using testing::MatchesRegex;

namespace {

constexpr char kTime[] = "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}Z";

std::unique_ptr<ChildProcess> Monitor(const std::vector<std::string>& arguments = {})
{
    std::vector<std::string> command{KEL_CTL, "monitor"};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return std::make_unique<ChildProcess>(command);
}

// What it has printed since the latest request for information.
std::string SinceRequest(const ChildProcess& monitor)
{
    const std::string end = " process-info-request\n";
    const std::string output = monitor.Output();
    const size_t found = output.rfind(end);
    return found == std::string::npos ? "" : output.substr(found + end.size());
}

} // namespace

class KelctlMonitor : public AgentRoad
{
protected:
    KelctlMonitor() { ProvideAgent(); }

    // Sets a policy and waits until the agent has told everybody of it; how it went.
    std::string Announce()
    {
        const std::string start = "kel-agent: policy update: ";
        const size_t before = CountOf(AgentLog(), start);
        EXPECT_EQ(SetPolicy("<policy/>").m_exit, 0);
        std::string last;
        EXPECT_TRUE(WaitUntil([&] {
            const std::string log = AgentLog();
            last = log.substr(std::min(log.rfind(start), log.size()));
            return CountOf(log, start) > before && last.back() == '\n';
        }));
        return last.substr(std::min(start.size(), last.size()));
    }

    // The same, until so many applications have introduced themselves to the agent.
    void AnnounceTo(size_t applications)
    {
        const std::string all = std::to_string(applications) + " handled, 0 not\n";
        ASSERT_TRUE(WaitUntil([&] { return Announce() == all; })) << AgentLog();
    }

    // Has the agent ask for information, and waits until the monitors have printed that.
    void Request(const std::vector<const ChildProcess*>& monitors)
    {
        kill(AgentId().value(), SIGUSR1);
        for (const ChildProcess* const monitor : monitors) {
            EXPECT_TRUE(WaitUntil([&] {
                return monitor->Output().find(" process-info-request\n") != std::string::npos;
            })) << monitor->ErrorOutput();
        }
    }
};

TEST_F(KelctlMonitor, TwoHearOfThePolicyAndOfTheRequestForInformation)
{
    const std::unique_ptr<ChildProcess> first = Monitor();
    const std::unique_ptr<ChildProcess> second = Monitor();
    AnnounceTo(2);

    Request({first.get(), second.get()});

    const std::string end = std::string("Z policy-update\n") + kTime + " process-info-request\n$";
    EXPECT_THAT(first->Output(), ContainsRegex(end));
    EXPECT_THAT(second->Output(), ContainsRegex(end));
}

TEST_F(KelctlMonitor, HearsOfThePolicyFromANewAgentToo)
{
    const std::unique_ptr<ChildProcess> monitor = Monitor();
    AnnounceTo(1);
    Request({monitor.get()});
    KillAgent();
    ProvideAgent();

    AnnounceTo(1);

    EXPECT_TRUE(WaitUntil([&] { return CountOf(SinceRequest(*monitor), " policy-update\n") > 0; }));
    EXPECT_EQ(monitor->ErrorOutput(), "");
}

TEST_F(KelctlMonitor, ASignalEndsItWithSuccess)
{
    for (const int signal : {SIGTERM, SIGINT}) {
        const std::unique_ptr<ChildProcess> monitor = Monitor();
        AnnounceTo(1);

        monitor->Signal(signal);

        EXPECT_EQ(monitor->Wait(), 0);
        EXPECT_EQ(monitor->ErrorOutput(), "");
    }
}

TEST_F(KelctlMonitor, EndsAfterTheNumberOfEventsWithTheLastOneAnswered)
{
    const std::unique_ptr<ChildProcess> monitor = Monitor({"--count", "2"});
    AnnounceTo(1);

    EXPECT_EQ(Announce(), "1 handled, 0 not\n");

    EXPECT_EQ(monitor->Wait(), 0);
    EXPECT_THAT(monitor->Output(),
                MatchesRegex(std::string(kTime) + " policy-update\n" + kTime + " policy-update\n"));
    EXPECT_EQ(Announce(), "0 handled, 0 not\n");
}

TEST_F(KelctlMonitor, EachLineIsAJsonObjectWithTimeAndEvent)
{
    const std::unique_ptr<ChildProcess> monitor
        = Monitor({"--json", "--count", "2", "--timeout", "100"});
    AnnounceTo(1);
    kill(AgentId().value(), SIGUSR1);
    ASSERT_EQ(monitor->Wait(), 0);

    const TSFinished read = RunProgram(
        {"/usr/bin/python3", "-c",
         "import datetime, json, sys\n"
         "for line in sys.stdin:\n"
         "    event = json.loads(line)\n"
         "    time = datetime.datetime.strptime(event.pop('time'), '%Y-%m-%dT%H:%M:%S.%fZ')\n"
         "    age = (datetime.datetime.utcnow() - time).total_seconds()\n"
         "    print(event, -0.01 < age < 100)\n"},
        {}, monitor->Output());

    EXPECT_EQ(read.m_output,
              "{'event': 'policy-update'} True\n{'event': 'process-info-request'} True\n")
        << Text(read);
}

TEST_F(KelctlMonitor, TheTimeEndsIt)
{
    LetTheBusStartTheAgent();
    const TSFinished simply = Kelctl({"monitor", "--timeout", "0.05"});
    const TSFinished early = Kelctl({"monitor", "--timeout", "0.05", "--count", "1"});

    EXPECT_EQ(simply.m_exit, 0) << Text(simply);
    EXPECT_EQ(simply.m_output + simply.m_errorOutput, "");
    EXPECT_EQ(early.m_exit, 4) << Text(early);
    EXPECT_EQ(early.m_output, "");
    EXPECT_EQ(early.m_errorOutput, "kelctl: the time is over, and events are missing\n");
    EXPECT_FALSE(AgentId().has_value()); // nobody has started one
}

TEST_F(KelctlMonitor, EndsWhenNobodyReadsItsOutput)
{
    const TSFinished ended
        = RunProgram({"bash", "-c", "'" KEL_CTL "' monitor | true; exit ${PIPESTATUS[0]}"});

    EXPECT_EQ(ended.m_exit, 5) << Text(ended);
    EXPECT_EQ(ended.m_errorOutput, "");
}

TEST_F(KelctlMonitor, EndsWhenItsOutputIsFull)
{
    ChildProcess monitor({"sh", "-c", "exec '" KEL_CTL "' monitor >/dev/full"});
    AnnounceTo(1);

    EXPECT_EQ(monitor.Wait(), 5);
    EXPECT_EQ(monitor.ErrorOutput(),
              "kelctl: the output cannot be written: No space left on device\n");
}

TEST_F(KelctlMonitor, EndsWithTheBus)
{
    const std::unique_ptr<ChildProcess> monitor = Monitor();
    AnnounceTo(1);

    m_bus.Kill();

    EXPECT_EQ(monitor->Wait(), 3);
    EXPECT_EQ(monitor->ErrorOutput(), "kelctl: the system bus is gone\n");
}

TEST(KelctlMonitorWithoutBus, TellsSo)
{
    const TSFinished ended
        = RunProgram({KEL_CTL, "monitor"}, {{"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/tmp/none"}});

    EXPECT_EQ(ended.m_exit, 3) << Text(ended);
    EXPECT_TRUE(IsOneLine(ended.m_errorOutput, "kelctl: no system bus: ")) << Text(ended);
}

TEST_F(KelctlMonitor, OneThatIsStoppedIsNotWaitedForWithoutEnd)
{
    const std::unique_ptr<ChildProcess> stopped = Monitor();
    const std::unique_ptr<ChildProcess> other = Monitor();
    AnnounceTo(2);
    Request({stopped.get(), other.get()});
    const std::optional<pid_t> agent = AgentId();
    stopped->Signal(SIGSTOP);

    EXPECT_EQ(Announce(), "1 handled, 1 not\n");

    EXPECT_TRUE(WaitUntil([&] { return CountOf(SinceRequest(*other), "\n") == 1; }));
    EXPECT_EQ(SinceRequest(*stopped), "");
    EXPECT_EQ(AgentId(), agent);

    stopped->Signal(SIGCONT);
    AnnounceTo(2);

    // It prints what it has missed, too.
    EXPECT_TRUE(WaitUntil([&] { return CountOf(SinceRequest(*stopped), "\n") >= 2; }));
}

TEST_F(KelctlMonitor, TheExampleHearsOfThePolicyThatItSetsItself)
{
    const TSFinished set = RunProgram({KEL_HEAR_POLICY_EXAMPLE, "<policy/>"});
    const TSFinished refused = RunProgram({KEL_HEAR_POLICY_EXAMPLE, "<policy"});

    EXPECT_EQ(set.m_exit, 0) << Text(set);
    EXPECT_EQ(set.m_output, "the policy has changed\n");
    EXPECT_EQ(refused.m_exit, 1) << Text(refused);
}

TEST_F(KelctlMonitor, TheExampleHearsOfThePolicyThatAnotherSets)
{
    ChildProcess example({KEL_HEAR_POLICY_EXAMPLE});

    EXPECT_TRUE(WaitUntil([&] {
        Announce();
        return example.Output() == "the policy has changed\n";
    })) << AgentLog();

    EXPECT_EQ(example.Wait(), 0);
}

} // namespace kel::test
