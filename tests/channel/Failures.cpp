// What the last operation of a thread has failed of.

#include <future>
#include <ostream>

#include <kel/KELCallbacksProxy.h>
#include <kel/KELControlProxy.h>
#include <kel/KELFailure.h>

#include "channel/ChannelTest.h"
#include "support/Archives.h"

namespace kel {

// For the message of a failed test.
void PrintTo(EFailure kind, std::ostream* out) { *out << static_cast<int>(kind); }

namespace test {

namespace {

typedef RawPeer::TSAnswer TSAnswer;

std::string BusError(const std::string& name) { return "org.freedesktop.DBus.Error." + name; }

PrivateBus::TSOptions NobodyMayCallTheAgent()
{
    PrivateBus::TSOptions options;
    options.m_config = "<policy context=\"mandatory\">"
                       "<deny send_destination=\"com.norvale.kel.IControl\"/></policy>";
    return options;
}

void ExpectFailure(EFailure kind, const std::string& errorName)
{
    const TSFailure failure = LastFailure();
    EXPECT_EQ(failure.m_kind, kind) << failure.m_errorName << ": " << failure.m_text;
    EXPECT_EQ(failure.m_errorName, errorName) << failure.m_text;
}

class Failures : public ClientTest
{
protected:
    bool Send(bool async = false)
    {
        TBytes response;
        return m_client->SendMessage(4, {}, response, async);
    }

    bool SendTo(const TSAnswer& answer)
    {
        m_agent.SetAnswer("Send", answer);
        return Send();
    }
};

TEST_F(Failures, ThereIsNoneAfterASuccessAndOnAThreadThatHasDoneNothing)
{
    EXPECT_FALSE(Send());
    ExpectFailure(EFailure::NotOwned, BusError("ServiceUnknown"));
    EXPECT_NE(LastFailure().m_text, "");
    EXPECT_EQ(LastFailure().m_text.find("GDBus.Error"), std::string::npos) << LastFailure().m_text;

    std::async(std::launch::async, [] { ExpectFailure(EFailure::None, ""); }).get();
    StartAgent();
    ExpectFailure(EFailure::NotOwned, BusError("ServiceUnknown"));
    EXPECT_TRUE(Send());
    ExpectFailure(EFailure::None, "");
    EXPECT_EQ(LastFailure().m_text, "");
}

TEST_F(Failures, AnAgentThatTheBusCannotStartIsNone)
{
    m_bus.AddService(kBusName, "/bin/false");

    EXPECT_FALSE(Send());

    const TSFailure failure = LastFailure();
    EXPECT_EQ(failure.m_kind, EFailure::NotOwned) << failure.m_errorName;
    EXPECT_NE(failure.m_errorName, "");
}

TEST_F(Failures, AnAgentThatDeclinesOrServesNothingHasNotHandledIt)
{
    StartAgent();

    EXPECT_FALSE(SendTo(TSAnswer::Bytes({0, 7})));
    ExpectFailure(EFailure::NotHandled, "");
    for (const char* const name : {"UnknownMethod", "UnknownObject", "UnknownInterface"}) {
        EXPECT_FALSE(SendTo(TSAnswer::Error(BusError(name))));
        ExpectFailure(EFailure::NotHandled, BusError(name));
    }
}

TEST_F(Failures, AnAnswerOfAnotherTypeCannotBeRead)
{
    StartAgent();
    for (const char* const body : {"", "('yes',)", "(@ay [1], 1)"}) {
        EXPECT_FALSE(SendTo(TSAnswer::Other(body)));
        ExpectFailure(EFailure::Unreadable, "");
    }
}

TEST_F(Failures, ErrorsAreKnownByTheirNames)
{
    StartAgent();
    const std::pair<std::string, EFailure> kinds[] = {
        {BusError("AccessDenied"), EFailure::Denied},
        {BusError("NameHasNoOwner"), EFailure::NotOwned},
        {BusError("Spawn.ChildExited"), EFailure::NotOwned},
        {BusError("Spawn.ExecFailed"), EFailure::NotOwned},
        {BusError("TimedOut"), EFailure::TimedOut},
        {BusError("Timeout"), EFailure::TimedOut},
        {BusError("NoReply"), EFailure::Ended},
        {BusError("Disconnected"), EFailure::Ended},
        {BusError("NoMemory"), EFailure::Other},
        {"org.example.Strange", EFailure::Other},
    };
    for (const auto& [name, kind] : kinds) {
        EXPECT_FALSE(SendTo(TSAnswer::Error(name)));
        ExpectFailure(kind, name);
    }
}

TEST_F(Failures, AnAgentThatDiesBeforeItAnswersHasEnded)
{
    StartAgent();
    m_agent.SetAnswer("Send", TSAnswer::Nothing());
    std::future<void> sent = std::async(std::launch::async, [this] {
        EXPECT_FALSE(Send());
        ExpectFailure(EFailure::Ended, BusError("NoReply"));
    });
    ASSERT_TRUE(m_agent.WaitForCalls("Send", 1));

    m_agent.Vanish();

    sent.get();
}

TEST_F(Failures, AnAgentThatStaysSilentHasHadItsTime)
{
    StartAgent();

    EXPECT_FALSE(SendTo(TSAnswer::Nothing()));

    ExpectFailure(EFailure::TimedOut, "");
    EXPECT_NE(LastFailure().m_text, "");
}

TEST_F(Failures, AMessageIsTooLargeForTheBus)
{
    StartAgent();
    const TBytes data(32 << 20);
    TBytes response;
    for (const bool async : {false, true}) {
        EXPECT_TRUE(Send());

        EXPECT_FALSE(m_client->SendMessage(4, data, response, async));

        ExpectFailure(EFailure::TooLarge, "");
    }
}

TEST(FailuresOfTheBus, AUserWhomItForbidsTheAgentIsDenied)
{
    const PrivateBus bus(NobodyMayCallTheAgent());
    HostLoop loop;
    {
        RawPeer agent(bus);
        ASSERT_TRUE(agent.OwnName());
        TCDbusClient client(false);
        TBytes response;
        ASSERT_TRUE(WaitUntil([&] { return client.IsReady(); }));

        EXPECT_FALSE(client.SendMessage(4, {}, response, false));

        ExpectFailure(EFailure::Denied, BusError("AccessDenied"));
        EXPECT_TRUE(agent.Calls().empty());
    }
    EXPECT_TRUE(PrivateBus::WaitForDisconnection());
}

class FailuresWithoutABus : public testing::Test
{
protected:
    FailuresWithoutABus() { setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nowhere/at/all", 1); }
    ~FailuresWithoutABus() override { unsetenv("DBUS_SYSTEM_BUS_ADDRESS"); }

    HostLoop m_loop;
};

TEST_F(FailuresWithoutABus, BothEndsAndEverySendTellTheReason)
{
    TBytes response;
    TCDbusClient client(false);
    ExpectFailure(EFailure::NoBus, "");
    const std::string reason = LastFailure().m_text;
    EXPECT_NE(reason, "");

    for (const bool async : {false, true}) {
        std::async(std::launch::async, [&] {
            EXPECT_EQ(client.SendMessage(4, {}, response, async), async);
            ExpectFailure(EFailure::NoBus, "");
            EXPECT_EQ(LastFailure().m_text, reason);
        }).get();
    }
    const TCDbusServer server(false);
    ExpectFailure(EFailure::NoBus, "");
}

class FailuresOfSetPolicy : public ChannelTest
{
protected:
    FailuresOfSetPolicy() { m_agent.OwnName(); }
    ~FailuresOfSetPolicy() override
    {
        TCControlProxy::Destroy();
        TCControlProxy::m_destroyed = false;
    }

    void SetAnswer(TBytes bytes)
    {
        bytes.insert(bytes.begin(), 1); // handled
        m_agent.SetAnswer("Send", TSAnswer::Bytes(bytes));
    }

    RawPeer m_agent{m_bus};
    boost::shared_ptr<IControl> m_control = TCControlProxy::Instance();
};

TEST_F(FailuresOfSetPolicy, MinusOneOfTheAgentIsNone)
{
    SetAnswer(ArchiveOf(-1));

    EXPECT_EQ(m_control->SetPolicy("<policy/>"), -1);

    ExpectFailure(EFailure::None, "");
}

TEST_F(FailuresOfSetPolicy, ADeclinedOneIsNotHandled)
{
    m_agent.SetAnswer("Send", TSAnswer::Bytes({0}));

    EXPECT_EQ(m_control->SetPolicy("<policy/>"), -1);

    ExpectFailure(EFailure::NotHandled, "");
}

TEST_F(FailuresOfSetPolicy, AnAnswerThatIsNoArchiveCannotBeRead)
{
    SetAnswer({1, 2, 3});

    EXPECT_ANY_THROW(m_control->SetPolicy("<policy/>"));

    ExpectFailure(EFailure::Unreadable, "");
}

TEST_F(FailuresOfSetPolicy, WhatIsNoMoreHasEnded)
{
    TCControlProxy::Destroy();

    EXPECT_EQ(TCControlProxy::Instance(), nullptr);

    ExpectFailure(EFailure::Ended, "");
}

} // namespace

} // namespace test

} // namespace kel
