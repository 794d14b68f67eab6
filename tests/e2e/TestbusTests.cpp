// kel-testbus, with the reference agent, with scripts, and with nobody.

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include <gmock/gmock.h>

#include "e2e/TestbusTest.h"

namespace kel::test {

namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

namespace fs = std::filesystem;

// The channel's bytes, by a program that knows nothing of the library. Its answer is the array's.
const std::string kSend = "send() { dbus-send --system --print-reply --reply-timeout=60000"
                          " --dest=com.norvale.kel.IControl /com/norvale/kel/CommunicationChannel"
                          " com.norvale.kel.IControl.Send array:byte:$1,0,0,0,0 2>&1"
                          " | sed -e 's/^ *//' -e '/^method return/d'; }\n";

// How it prints what the agent has not handled, and no bytes at all.
const std::string kNotHandled = "array of bytes \"\" + \\0\n";
const std::string kNoBytes = "array [\n]\n";

const std::string kSetPolicy = "echo '<policy/>' | " KEL_CTL " set-policy -";

} // namespace

TEST_F(Testbus, EndsWithTheStatusOfTheCommand)
{
    EXPECT_EQ(Shell({}, "exit 0").m_exit, 0);
    EXPECT_EQ(Shell({"--agent", "none"}, "exit 7").m_exit, 7);
    EXPECT_EQ(Shell({"--agent", "none"}, "kill -KILL $$").m_exit, 128 + SIGKILL);
    EXPECT_EQ(Run({"--agent", "none"}, {"no-such-program"}).m_exit, 127);
    EXPECT_EQ(Run({"--agent", "none"}, {"/etc"}).m_exit, 126);
    ExpectNothingLeft();
}

TEST_F(Testbus, HandsTheCommandsWordsOnAsTheyAre)
{
    const TSFinished ended
        = Run({"--agent", "none"}, {"printf", "%s,", "--agent", "", "[a,b]", "--", "-h", "a  b"});

    EXPECT_EQ(ended.m_output, "--agent,,[a,b],--,-h,a  b,") << Text(ended);
}

TEST_F(Testbus, HandsItsInputOn)
{
    const TSFinished ended = RunProgram({KEL_TESTBUS, "--agent", "none", "--", "cat"}, {}, "text");

    EXPECT_EQ(ended.m_output, "text") << Text(ended);
}

TEST_F(Testbus, WrongUsageStartsNothing)
{
    EXPECT_EQ(RunProgram({KEL_TESTBUS}).m_exit, 2);
    EXPECT_EQ(RunProgram({KEL_TESTBUS, "--"}).m_exit, 2);
    EXPECT_EQ(RunProgram({KEL_TESTBUS, "echo", "started"}).m_exit, 2);
    const TSFinished ended = Run({"--agents"}, {"echo", "started"});
    EXPECT_EQ(ended.m_exit, 2);
    EXPECT_EQ(ended.m_output, "");
    EXPECT_TRUE(IsOneLine(ended.m_errorOutput, "kel-testbus: ")) << ended.m_errorOutput;
}

TEST_F(Testbus, TellsItsVersion)
{
    EXPECT_EQ(RunProgram({KEL_TESTBUS, "--version"}).m_output, "kel-testbus " KEL_VERSION "\n");
}

TEST_F(Testbus, WithoutAnAgentThereIsNone)
{
    const TSFinished ended = Run({"--agent", "none"}, {KEL_CTL, "status"});

    EXPECT_EQ(ended.m_exit, 1);
    EXPECT_EQ(ended.m_errorOutput, "kelctl: no agent runs\n");
}

TEST_F(Testbus, TheReferenceAgentIsThereAndTheBusStartsItAgain)
{
    const TSFinished ended = Shell(
        {}, KEL_CTL
                " status --json | sed 's/.*\"pid\": \\([0-9]*\\).*/\\1/' >$KEL_TESTBUS_STATE/pid\n"
                "[ -n \"$(cat $KEL_TESTBUS_STATE/pid)\" ] || exit 1\n"
                "kill -KILL $(cat $KEL_TESTBUS_STATE/pid)\n"
                "while " KEL_CTL " status >/dev/null 2>&1; do sleep 0.02; done\n"
                + kSetPolicy + "; cat $KEL_TESTBUS_STATE/policy.xml");

    EXPECT_EQ(ended.m_exit, 0) << Text(ended);
    EXPECT_EQ(ended.m_output, "0 (accepted)\n<policy/>\n");
    EXPECT_EQ(ended.m_errorOutput, "");
    ExpectNothingLeft();
}

TEST_F(Testbus, TheAgentMakesReportsOfItsOwn)
{
    const TSFinished ended = Shell(
        {}, KEL_CTL " report --process mine >/dev/null 2>&1\n"
                    "until grep -q ' collected$' $KEL_TESTBUS_LOG; do sleep 0.02; done\n" KEL_CTL
                    " reports --state-dir $KEL_TESTBUS_STATE");

    EXPECT_THAT(ended.m_output, HasSubstr(" mine ")) << Text(ended);
    ExpectNothingLeft();
}

TEST_F(Testbus, TheTestChannelHasItsOwnAgent)
{
    const std::string ask = "dbus-send --system --print-reply --dest=org.freedesktop.DBus /"
                            " org.freedesktop.DBus.NameHasOwner string:com.norvale.kel.IControl";
    const std::string both = ask + "; " + ask + "Test";
    WriteScript("");

    for (const std::string& agent : {std::string("reference"), m_script}) {
        const TSFinished ended = Shell({"--test", "--agent", agent}, both);
        EXPECT_LT(ended.m_output.find("boolean false"), ended.m_output.find("boolean true"))
            << Text(ended);
    }
}

TEST_F(Testbus, TheBusDeniesByDefault)
{
    const TSFinished ended
        = Shell({}, "dbus-send --system --print-reply --dest=com.norvale.kel.IControl"
                    " /com/norvale/kel/CommunicationChannel org.freedesktop.DBus.Peer.Ping");

    EXPECT_EQ(ended.m_exit, 1);
    EXPECT_THAT(ended.m_errorOutput, HasSubstr("org.freedesktop.DBus.Error.AccessDenied"));
}

TEST_F(Testbus, WhatBusAndAgentSayIsShownWhenAsked)
{
    WriteScript("");

    const TSFinished quiet = Shell({"--agent", m_script}, "cat $KEL_TESTBUS_LOG");
    const TSFinished verbose = Shell({"--agent", m_script, "--verbose"}, "cat $KEL_TESTBUS_LOG");

    EXPECT_THAT(quiet.m_output, HasSubstr("kel-testbus: the agent is there\n"));
    EXPECT_EQ(quiet.m_errorOutput, "");
    EXPECT_THAT(verbose.m_errorOutput, HasSubstr("kel-testbus: the agent is there\n"));
    EXPECT_EQ(verbose.m_output, "");
}

// Scripts.

TEST_F(Testbus, AScriptedAgentGivesEachAnswer)
{
    WriteScript("# of the types 9, 10 and 4\n"
                "on 9 handled\n"
                "on 9 handled 5 after 1ms # an archive\n"
                "\n"
                "on 9 not-handled\n"
                "on 9 error\n"
                "on 9 error com.example.No\n"
                "on 9 garbage no-bytes\n"
                "on 9 garbage other-type\n"
                "on 9 garbage\n"
                "on set-policy handled");

    const TSFinished ended = Shell({"--agent", m_script}, kSend
                                                              + "for i in 1 2 3 4 5 6 7 8; do "
                                                                "echo $i; send 9; done\n"
                                                              + kSetPolicy);

    EXPECT_EQ(ended.m_exit, 0) << Text(ended);
    EXPECT_THAT(ended.m_output, StartsWith("1\narray of bytes [\n01\n]\n2\n"));
    EXPECT_THAT(ended.m_output, HasSubstr("\n2\narray of bytes [\n01 16 00 00 00"));
    EXPECT_THAT(ended.m_output, HasSubstr("\n3\n" + kNotHandled + "4\n"));
    EXPECT_THAT(ended.m_output,
                HasSubstr("\n4\nError org.freedesktop.DBus.Error.Failed: the script says so\n"
                          "5\nError com.example.No: the script says so\n6\n"));
    EXPECT_THAT(ended.m_output, HasSubstr("\n6\n" + kNoBytes
                                          + "7\n"
                                            "string \"a text in place of bytes\"\n8\n"));
    EXPECT_THAT(ended.m_output, HasSubstr("\n8\narray of bytes [\n01 ff ff"));
    EXPECT_THAT(ended.m_output, EndsWith("\n0 (accepted)\n"));
    ExpectNothingLeft();
}

TEST_F(Testbus, TheLinesOfATypeTakeTurnsAndTheLastOneStays)
{
    WriteScript("on 8 handled\non any error com.example.First\non any error com.example.Last\n"
                "on 8 not-handled\n");

    const TSFinished ended
        = Shell({"--agent", m_script}, kSend + "for i in 8 1 8 2 8 3; do send $i; done");

    const std::string last = "Error com.example.Last: the script says so\n";
    EXPECT_EQ(ended.m_output, "array of bytes [\n01\n]\n"
                              "Error com.example.First: the script says so\n"
                                  + kNotHandled + last + kNotHandled + last);
}

TEST_F(Testbus, AnAnswerMayBeLate)
{
    WriteScript("on 8 handled after 700ms\n");

    const auto begin = std::chrono::steady_clock::now();
    const TSFinished ended = Shell({"--agent", m_script}, kSend + "send 8");

    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(700));
    EXPECT_EQ(ended.m_output, "array of bytes [\n01\n]\n");
}

TEST_F(Testbus, AnAnswerThatIsLateKeepsNobodyElseWaiting)
{
    WriteScript("on 8 handled after 86400s\non 9 not-handled\n");

    const TSFinished ended
        = Shell({"--agent", m_script}, kSend
                                           + "send 8 >/dev/null &\n"
                                             "until grep -q 'message 8' $KEL_TESTBUS_LOG; do "
                                             "sleep 0.01; done\n"
                                             "send 9");

    EXPECT_EQ(ended.m_output, kNotHandled);
}

TEST_F(Testbus, EventsAreSentToThoseWhoWantThem)
{
    WriteScript("wait client process-info-request\n"
                "send policy-update\n"
                "wait 9\n"
                "send process-info-request after 1ms\n");

    // The second one is not sent before the first has arrived.
    const TSFinished ended
        = Shell({"--agent", m_script},
                kSend
                    + KEL_CTL " monitor --count 2 >$KEL_TESTBUS_STATE/events &\n"
                              "until grep -q policy-update $KEL_TESTBUS_STATE/events; do "
                              "sleep 0.01; done\n"
                              "send 9 >/dev/null; wait; sed 's/.* //' $KEL_TESTBUS_STATE/events");

    EXPECT_EQ(ended.m_output, "policy-update\nprocess-info-request\n") << Text(ended);
}

TEST_F(Testbus, AnEventMayHaveANumber)
{
    WriteScript("wait client 2\nsend 2\n");

    const TSFinished ended = Run({"--agent", m_script}, {KEL_HEAR_POLICY_EXAMPLE});

    EXPECT_EQ(ended.m_output, "the policy has changed\n") << Text(ended);
    EXPECT_EQ(ended.m_exit, 0);
}

TEST_F(Testbus, AnApplicationHearsFromAnAgentThatHasDiedAndIsBack)
{
    WriteScript("wait client policy-update\n"
                "vanish\n"
                "return after 100ms\n"
                "wait client policy-update\n"
                "send policy-update\n");

    const TSFinished ended
        = Shell({"--agent", m_script}, KEL_HEAR_POLICY_EXAMPLE " && grep '^kel-' $KEL_TESTBUS_LOG");

    EXPECT_THAT(ended.m_output, StartsWith("the policy has changed\n"
                                           "kel-testbus: the agent is there\n"
                                           "kel-testbus: the agent vanishes\n"
                                           "kel-testbus: the agent is there\n"))
        << Text(ended);
    EXPECT_EQ(ended.m_exit, 0);
    ExpectNothingLeft();
}

TEST_F(Testbus, AnAgentDiesWhileAMessageWaitsAndGoesOnWithItsLines)
{
    WriteScript("on set-policy nothing\non set-policy handled 2\n"
                "wait set-policy\nvanish\nreturn after 1ms\n");

    const TSFinished ended
        = Shell({"--agent", m_script}, kSend
                                           + "send 4\n"
                                             "until " KEL_CTL
                                             " status >/dev/null 2>&1; do sleep 0.01; done\n"
                                           + kSetPolicy);

    EXPECT_EQ(ended.m_output, "Error org.freedesktop.DBus.Error.NoReply: Message recipient "
                              "disconnected from message bus without replying\n"
                              "2 (could not be stored)\n")
        << Text(ended);
}

TEST_F(Testbus, AMessageThatHasComeIsNotWaitedForAgain)
{
    WriteScript("on any handled\nwait client\nwait 9\nwait 9\nsend policy-update\n");

    const TSFinished ended
        = Shell({"--agent", m_script}, kSend + "send 9; send 9\n" KEL_HEAR_POLICY_EXAMPLE);

    EXPECT_THAT(ended.m_output, EndsWith("\nthe policy has changed\n")) << Text(ended);
}

TEST_F(Testbus, AScriptThatBeginsWithAReturnBeginsWithoutTheAgent)
{
    WriteScript("return after 86400s");
    EXPECT_EQ(Run({"--agent", m_script}, {KEL_CTL, "status"}).m_exit, 1);

    WriteScript("return after 1ms");
    EXPECT_EQ(Shell({"--agent", m_script},
                    "until " KEL_CTL " status >/dev/null 2>&1; do sleep 0.01; done")
                  .m_exit,
              0);
}

TEST_F(Testbus, AVanishedAgentIsGone)
{
    WriteScript("vanish");

    const TSFinished ended = Shell({"--agent", m_script},
                                   "while " KEL_CTL " status >/dev/null 2>&1; do sleep 0.01; done\n"
                                       + kSend + "send 9");

    EXPECT_THAT(ended.m_output, StartsWith("Error org.freedesktop.DBus.Error.ServiceUnknown: "))
        << Text(ended);
    ExpectNothingLeft();
}

struct TSFaultyScript
{
    const char* m_name;
    const char* m_text;
    const char* m_fault; // behind the file's name
};

class BadScript : public Testbus, public testing::WithParamInterface<TSFaultyScript>
{
};

TEST_P(BadScript, IsToldByItsLineAndStartsNothing)
{
    WriteScript(GetParam().m_text);

    const TSFinished ended = Run({"--agent", m_script}, {"echo", "started"});

    EXPECT_EQ(ended.m_exit, 2);
    EXPECT_EQ(ended.m_output, "");
    EXPECT_EQ(ended.m_errorOutput, "kel-testbus: " + m_script + GetParam().m_fault + "\n");
}

INSTANTIATE_TEST_SUITE_P(
    All, BadScript,
    testing::Values(
        TSFaultyScript{"Word", "on 9 handled\n\nfly away\n",
                       ":3: 'fly' is none of on, send, vanish, return, wait"},
        TSFaultyScript{"Answer", "on 9 maybe",
                       ":1: 'maybe' is none of handled, not-handled, error, garbage, nothing"},
        TSFaultyScript{"NoAnswer", "on 9", ":1: this has to be: on MESSAGE ANSWER [after TIME]"},
        TSFaultyScript{"Message", "on policy handled",
                       ":1: 'policy' is none of set-policy, nor a number"},
        TSFaultyScript{"LargeMessage", "on 2147483648 handled",
                       ":1: '2147483648' is none of set-policy, nor a number"},
        TSFaultyScript{"Event", "send update",
                       ":1: 'update' is none of policy-update, process-info-request, nor a number"},
        TSFaultyScript{"NoEvent", "send", ":1: this has to be: send EVENT [after TIME]"},
        TSFaultyScript{"Result", "on 9 handled well", ":1: 'well' is no number to answer with"},
        TSFaultyScript{"ErrorName", "on 9 error no-name",
                       ":1: 'no-name' is no name of a D-Bus error"},
        TSFaultyScript{"Garbage", "on 9 garbage can",
                       ":1: 'can' is none of junk, no-bytes, other-type"},
        TSFaultyScript{"Unit", "vanish after 2",
                       ":1: '2' is no time such as 500ms or 2s, of a day at most"},
        TSFaultyScript{"Negative", "vanish after -2s",
                       ":1: '-2s' is no time such as 500ms or 2s, of a day at most"},
        TSFaultyScript{"TooLong", "vanish after 86401s",
                       ":1: '86401s' is no time such as 500ms or 2s, of a day at most"},
        TSFaultyScript{"NoTime", "vanish after", ":1: a time is missing behind 'after'"},
        TSFaultyScript{"NothingButATime", "after 2s",
                       ":1: 'after' is none of on, send, vanish, return, wait"},
        TSFaultyScript{"NothingLate", "on 9 nothing after 2s",
                       ":1: nothing has no time after which it is answered"},
        TSFaultyScript{"MoreWords", "on 9 not-handled at all",
                       ":1: this has to be: on MESSAGE ANSWER [after TIME]"},
        TSFaultyScript{"WaitTime", "wait 9 after 2s",
                       ":1: what waits has no time: give it to the next line"},
        TSFaultyScript{"Away", "vanish\nsend policy-update",
                       ":2: the agent is away: it has to return first"},
        TSFaultyScript{"AwayTwice", "vanish\nvanish",
                       ":2: the agent is away: it has to return first"},
        TSFaultyScript{"ThereAlready", "send policy-update\nreturn",
                       ":2: the agent is there already"},
        TSFaultyScript{"Escapes", "\x1b[2J",
                       ":1: '\\x1b[2J' is none of on, send, vanish, return, wait"}),
    [](const auto& script) { return script.param.m_name; });

TEST_F(Testbus, AScriptThatCannotBeReadStartsNothing)
{
    const TSFinished missing = Run({"--agent", m_script}, {"echo", "started"});
    const TSFinished directory = Run({"--agent", "/tmp"}, {"echo", "started"});

    EXPECT_EQ(Text(missing),
              Text({2, "", "kel-testbus: " + m_script + ": No such file or directory\n"}));
    EXPECT_EQ(Text(directory), Text({2, "", "kel-testbus: /tmp: Is a directory\n"}));
}

} // namespace kel::test
