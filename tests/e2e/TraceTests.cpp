// kelctl trace on a bus: what is shown, marked and kept, and who may look.

#include <gmock/gmock.h>

#include "e2e/TraceRoad.h"
#include "support/Archives.h"

namespace kel::test {

using testing::ContainsRegex;
using testing::HasSubstr;

namespace {

constexpr char kPolicy[] = "<policy>\n  <x/>\n</policy>";
constexpr char kTime[] = "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}Z ";
constexpr char kPeers[] = ":1\\.[0-9]+ -> :1\\.[0-9]+ ";

std::string FromSecondLine(const std::string& text) { return text.substr(text.find('\n') + 1); }

} // namespace

class KelctlTrace : public TraceRoad
{
};

TEST_F(KelctlTrace, ShowsAPolicyWithItsTextAndItsAnswer)
{
    const std::unique_ptr<ChildProcess> agent = StartAgent();
    ASSERT_TRUE(Says(*agent, "ready"));
    const std::unique_ptr<ChildProcess> trace = Trace();

    ASSERT_EQ(SetPolicy(kPolicy).m_exit, 0);
    ASSERT_TRUE(trace->WaitForOutput("answer 0"));
    const std::string output = End(*trace);

    const std::string start = std::string(kTime) + kPeers;
    EXPECT_THAT(output, ContainsRegex("^" + std::string(kTime) + "agent is :1\\.[0-9]+\n"));
    EXPECT_THAT(output, ContainsRegex(start + "hello, no types\n"));
    EXPECT_THAT(output, ContainsRegex(start
                                      + "set-policy \\(4\\), flag 0, [0-9]+ bytes\n"
                                        "    <policy>\n      <x/>\n    </policy>\n"));
    EXPECT_THAT(output, ContainsRegex(start
                                      + "set-policy \\(4\\): handled, answer 0, [0-9]+ bytes, "
                                        "[0-9]+\\.[0-9]{3} ms\n"));
}

TEST_F(KelctlTrace, ShowsWhatItHasKeptAsItHasShownIt)
{
    const std::unique_ptr<ChildProcess> trace = Trace({"--output", m_file});
    EXPECT_THAT(trace->Output(), HasSubstr("no agent\n"));
    const std::unique_ptr<ChildProcess> agent = StartAgent();
    ASSERT_TRUE(Says(*agent, "ready"));
    ASSERT_EQ(SetPolicy(kPolicy).m_exit, 0);
    ASSERT_EQ(Kelctl({"status"}).m_exit, 0);
    ASSERT_TRUE(trace->WaitForOutput("version (100): handled"));
    const std::string shown = End(*trace);

    const TSFinished kept = Kelctl({"trace", "--input", m_file});

    EXPECT_EQ(kept.m_exit, 0) << Text(kept);
    EXPECT_EQ(kept.m_errorOutput, "");
    EXPECT_EQ(kept.m_output, FromSecondLine(shown)); // its first line tells of no message
    EXPECT_THAT(kept.m_output, HasSubstr("answer 0"));
    EXPECT_EQ(Kelctl({"--test", "trace", "--input", m_file}).m_output, ""); // the other channel
}

TEST_F(KelctlTrace, ReadsWhatAnotherToolHasKept)
{
    const std::unique_ptr<ChildProcess> agent = StartAgent();
    ASSERT_TRUE(Says(*agent, "ready"));
    ChildProcess other({"sh", "-c", "exec dbus-monitor --system --pcap >'" + m_file + "'"});

    EXPECT_TRUE(WaitUntil([this] {
        return SetPolicy(kPolicy).m_exit == 0
               && CountOf(Kelctl({"trace", "--input", m_file}).m_output, "answer 0") > 0;
    }));
    other.Kill();

    EXPECT_THAT(Kelctl({"trace", "--input", m_file}).m_output,
                HasSubstr("\n    <policy>\n      <x/>\n    </policy>\n"));
}

TEST_F(KelctlTrace, MarksWhatIsUnanswered)
{
    ASSERT_TRUE(m_busPeer.OwnName());
    m_busPeer.SetAnswer("Send", RawPeer::TSAnswer::Nothing());
    const std::unique_ptr<ChildProcess> trace = Trace();

    m_peer.Post("Send", Body(SendBytes(4, 0, ArchiveOf(std::string("<a/>")))));
    ASSERT_TRUE(trace->WaitForOutput("<a/>"));

    EXPECT_THAT(End(*trace), ContainsRegex("-> agent set-policy \\(4\\): UNANSWERED for "));
}

TEST_F(KelctlTrace, MarksWhatIsRefusedFailedOrNotHandled)
{
    ASSERT_TRUE(m_busPeer.OwnName());
    m_busPeer.SetAnswer("Send", RawPeer::TSAnswer::Bytes({0}));
    const std::unique_ptr<ChildProcess> trace = Trace();

    m_peer.Send(SendBytes(7, 0));
    m_busPeer.SetAnswer("Send", RawPeer::TSAnswer::Error("org.example.Failed"));
    m_peer.Send(SendBytes(7, 0));
    m_peer.Send({1, 2});
    m_peer.Call("Sing", ParseBody("('la',)"));
    RawPeer third(m_bus);
    m_peer.SetTarget(third.Name(), "/elsewhere");
    m_peer.Send(SendBytes(2, 0));
    ASSERT_TRUE(trace->WaitForOutput("AccessDenied"));
    const std::string output = End(*trace);

    EXPECT_THAT(output, HasSubstr("message (7): NOT HANDLED, 0 bytes, "));
    EXPECT_THAT(output, HasSubstr("message (7): FAILED, org.example.Failed: "));
    EXPECT_THAT(output, HasSubstr("message (0), of 2 bytes, which are too few\n"));
    EXPECT_THAT(output, HasSubstr(" -> agent call of Sing(s), which is none of the channel\n"));
    EXPECT_THAT(output,
                HasSubstr(" org.freedesktop.DBus for " + third.Name() + " -> " + m_peer.Name()
                          + " policy-update (2): REFUSED, "
                            "org.freedesktop.DBus.Error.AccessDenied: "));
}

TEST_F(KelctlTrace, AStrangersTextSteersNoTerminalAndIsNoLineOfOurs)
{
    ASSERT_TRUE(m_busPeer.OwnName());
    const std::unique_ptr<ChildProcess> trace = Trace();

    m_peer.Send(SendBytes(4, 0, ArchiveOf(std::string("a\x1b[2J\n2026-11-22 forged\r\n"))));
    m_peer.Send(SendBytes(4, 0, {1, 2, 3}));
    ASSERT_TRUE(trace->WaitForOutput("which are no policy"));

    EXPECT_THAT(End(*trace), HasSubstr("\n    a\\x1b[2J\n    2026-11-22 forged\\x0d\n2026"));
}

TEST_F(KelctlTrace, EndsWithTheBusAndWhenNobodyReadsItsOutput)
{
    const TSFinished unread
        = RunProgram({"bash", "-c", "'" KEL_CTL "' trace | true; exit ${PIPESTATUS[0]}"});
    const std::unique_ptr<ChildProcess> trace = Trace({"--output", m_file});
    m_bus.Kill();

    EXPECT_EQ(unread.m_exit, 5) << Text(unread);
    EXPECT_EQ(unread.m_errorOutput, "");
    EXPECT_EQ(trace->Wait(), 3);
    EXPECT_EQ(trace->ErrorOutput(), "kelctl: the system bus is gone\n");
    EXPECT_EQ(Kelctl({"trace", "--input", m_file}).m_exit, 0); // what was kept until then
}

TEST_F(KelctlTrace, AFileThatCannotBeWrittenIsTold)
{
    const TSFinished ended = Kelctl({"trace", "--output", "/dev/null"});

    EXPECT_EQ(ended.m_exit, 5) << Text(ended);
    EXPECT_TRUE(IsOneLine(ended.m_errorOutput, "kelctl: the trace cannot be kept: "));
}

class KelctlTraceForbidden : public TraceRoad
{
protected:
    static PrivateBus::TSOptions Options()
    {
        PrivateBus::TSOptions options;
        options.m_config = "<policy context=\"mandatory\">"
                           "<deny send_destination=\"org.freedesktop.DBus\""
                           " send_interface=\"org.freedesktop.DBus.Monitoring\"/></policy>";
        return options;
    }

    KelctlTraceForbidden() : TraceRoad(Options()) {}
};

TEST_F(KelctlTraceForbidden, TellsWhoMay)
{
    const TSFinished ended = Kelctl({"trace", "--output", m_file});

    EXPECT_EQ(ended.m_exit, 3) << Text(ended);
    EXPECT_EQ(ended.m_output, "");
    EXPECT_TRUE(
        IsOneLine(ended.m_errorOutput, "kelctl: the bus lets this user not watch it; root may: "));
    EXPECT_FALSE(std::filesystem::exists(m_file));
}

TEST(KelctlTraceWithoutBus, TellsSo)
{
    const TSFinished ended
        = RunProgram({KEL_CTL, "trace"}, {{"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/tmp/none"}});

    EXPECT_EQ(ended.m_exit, 3) << Text(ended);
    EXPECT_TRUE(IsOneLine(ended.m_errorOutput, "kelctl: no system bus: ")) << Text(ended);
}

} // namespace kel::test
