// Destroying an end on any thread, whatever arrives meanwhile.

#include <atomic>
#include <future>

#include <boost/make_shared.hpp>

#include "channel/ChannelTest.h"
#include "channel/Traffic.h"
#include "support/Threads.h"

namespace kel::test {

namespace {

bool IsSend(GDBusMessage* message) { return IsCall(message, "Send"); }

template <typename End> class Teardown : public ChannelTest
{
protected:
    Teardown() { m_peer.SetTarget(Name()); }

    /// The unique name of every end to come.
    const char* Name() const { return g_dbus_connection_get_unique_name(m_shared.get()); }

    /// Waits for the name event that comes of the end's start, if there is one.
    void WaitForFirstNameEvent();

    /// Brings about one name event that concerns the end.
    void MakeNameEvent();

    /// Keeps the loop from running, until the gate opens.
    std::future<void> Block(const Gate& gate)
    {
        std::promise<void> blocked;
        PostToHostLoop([&] {
            blocked.set_value();
            gate.Wait();
        });
        blocked.get_future().wait();
        return std::async(std::launch::async, [this] { m_loop.Settle(); });
    }

    // Keeps the connection, and so its name, from one end to the next.
    const std::unique_ptr<GDBusConnection, void (*)(gpointer)> m_shared{
        g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr), &g_object_unref};
    RawPeer m_peer{m_bus};
};

// The watch tells at once that there is no agent yet.
template <> void Teardown<TCDbusServer>::WaitForFirstNameEvent() {}
template <> void Teardown<TCDbusClient>::WaitForFirstNameEvent()
{
    EXPECT_TRUE(m_log.WaitFor(std::string("Name vanished - name ") + kBusName));
}

// A client comes and goes.
template <> void Teardown<TCDbusServer>::MakeNameEvent()
{
    RawPeer visitor(m_bus);
    visitor.SetTarget(Name());
    visitor.Call("Hello", Body(HelloBytes({1})), std::chrono::milliseconds(100)); // if answered
}

// The agent comes and goes.
template <> void Teardown<TCDbusClient>::MakeNameEvent()
{
    EXPECT_TRUE(m_peer.OwnName());
    m_peer.ReleaseName();
}

struct EndNames
{
    template <typename End> static std::string GetName(int)
    {
        return std::is_same_v<End, TCDbusServer> ? "Server" : "Client";
    }
};

typedef testing::Types<TCDbusServer, TCDbusClient> TEnds;
TYPED_TEST_SUITE(Teardown, TEnds, EndNames);

TYPED_TEST(Teardown, IsSafeOnAnotherThreadWhileCallsAndNameEventsArrive)
{
    std::atomic<unsigned int> handled(0);
    std::atomic<unsigned int> late(0);
    const Repeat calls([this] {
        for (int i = 0; i < 8; ++i) {
            this->m_peer.Post("Send", Body(SendBytes(1, 1)), true);
        }
        this->m_peer.Send(SendBytes(1, 0)); // answered, by whomever: the queue stays short
    });
    const Repeat names([this] { this->MakeNameEvent(); });

    for (int round = 0; round < 2000; ++round) {
        const auto alive = std::make_shared<std::atomic<bool>>(true);
        auto end = std::make_unique<TypeParam>(false);
        end->SetCallback(1, [&, alive](const TBytes&, TBytes&) {
            late += *alive ? 0 : 1;
            ++handled;
            std::this_thread::yield();
            late += *alive ? 0 : 1;
            return true;
        });
        if (round % 2 == 0) { // otherwise while it is still young
            const unsigned int before = handled;
            ASSERT_TRUE(WaitUntil([&] { return handled != before; }));
        }

        std::thread([&] {
            end.reset();
            *alive = false;
        }).join();
        this->m_log.Clear();
    }

    EXPECT_GT(handled, 1000u);
    EXPECT_EQ(late, 0u);
}

TYPED_TEST(Teardown, AHandlerMayDropTheLastReferenceToItsOwnEnd)
{
    for (int round = 0; round < 200; ++round) {
        auto end = boost::make_shared<TypeParam>(false);
        const boost::weak_ptr<TypeParam> observer(end);
        end->SetCallback(1, [&end](const TBytes&, TBytes& response) {
            response = {7};
            end.reset();
            return true;
        });

        const TSReply reply = this->m_peer.Send(SendBytes(1, 0));

        ASSERT_EQ(reply.m_bytes, (TBytes{1, 7})) << "the answer still goes out";
        ASSERT_TRUE(observer.expired());
    }
}

TYPED_TEST(Teardown, AHandlerThatDropsItsOwnEndAndThrowsIsAnsweredAsNotHandled)
{
    auto end = boost::make_shared<TypeParam>(false);
    end->SetCallback(1, [&end](const TBytes&, TBytes&) -> bool {
        end.reset();
        throw std::runtime_error("and gone");
    });

    EXPECT_EQ(this->m_peer.Send(SendBytes(1, 0)).m_bytes, TBytes{0});
    EXPECT_TRUE(this->m_log.Has(kError, "Callback for type 1 has thrown: and gone"));
}

TYPED_TEST(Teardown, AHandlerThatRunsElsewhereIsWaitedFor)
{
    Gate gate;
    std::promise<void> entered;
    std::atomic<bool> left(false);
    auto end = std::make_unique<TypeParam>(false);
    end->SetCallback(1, [&](const TBytes&, TBytes&) {
        entered.set_value();
        gate.Wait();
        left = true;
        return true;
    });
    const guint32 call = this->m_peer.Post("Send", Body(SendBytes(1, 0)));
    entered.get_future().wait();

    std::future<bool> leftBefore = CallUntilItSleeps([&] {
        end.reset();
        return left.load();
    });
    gate.Open();

    EXPECT_TRUE(leftBefore.get());
    EXPECT_EQ(this->m_peer.WaitReply(call).m_bytes, TBytes{1});
}

TYPED_TEST(Teardown, ACallThatIsStillQueuedFindsTheEndGone)
{
    const Traffic<IsSend> calls;
    std::atomic<int> handled(0);
    auto end = std::make_unique<TypeParam>(false);
    end->SetCallback(1, [&](const TBytes&, TBytes&) {
        ++handled;
        return true;
    });
    this->WaitForFirstNameEvent();
    this->m_log.Clear();
    Gate gate;
    std::future<void> settled = this->Block(gate);
    std::vector<guint32> posted;
    for (int i = 0; i < 20; ++i) {
        posted.push_back(this->m_peer.Post("Send", Body(SendBytes(1, 0))));
    }
    this->MakeNameEvent();
    ASSERT_TRUE(WaitUntil([&] { return calls.Count() == 20; }));

    end.reset();
    gate.Open();
    settled.wait();

    for (const guint32 call : posted) {
        const TSReply reply = this->m_peer.WaitReply(call);
        EXPECT_EQ(reply.m_error, "org.freedesktop.DBus.Error.UnknownMethod");
    }
    EXPECT_EQ(handled, 0);
    EXPECT_FALSE(this->m_log.Mentions("vanished"));
    EXPECT_FALSE(this->m_log.Mentions("appeared"));
}

TYPED_TEST(Teardown, AnEndCanFollowAnotherInsideItsHandler)
{
    boost::shared_ptr<TypeParam> end = boost::make_shared<TypeParam>(false);
    end->SetCallback(1, [&end](const TBytes&, TBytes&) {
        end.reset();
        end = boost::make_shared<TypeParam>(false);
        end->SetCallback(2, [](const TBytes&, TBytes&) { return true; });
        return true;
    });

    EXPECT_EQ(this->m_peer.Send(SendBytes(1, 0)).m_bytes, TBytes{1});
    EXPECT_EQ(this->m_peer.Send(SendBytes(2, 0)).m_bytes, TBytes{1});
    EXPECT_EQ(this->m_peer.Send(SendBytes(1, 0)).m_bytes, TBytes{0});
    this->m_loop.Settle();
}

TYPED_TEST(Teardown, AHandlerMayDropAnEndOfTheOtherChannel)
{
    TypeParam end(false);
    auto other = std::make_unique<TypeParam>(true);
    end.SetCallback(1, [&other](const TBytes&, TBytes&) {
        other.reset();
        return true;
    });

    EXPECT_EQ(this->m_peer.Send(SendBytes(1, 0)).m_bytes, TBytes{1});

    this->m_loop.Settle();
    EXPECT_EQ(other, nullptr);
    EXPECT_TRUE(end.UnSetCallback(1)) << "the end that stays has let go of its callbacks";
}

TYPED_TEST(Teardown, AHandlerMaySendThroughAnEndOfTheOtherChannel)
{
    TypeParam end(false);
    TCDbusClient other(true);
    end.SetCallback(1, [&other](const TBytes&, TBytes& response) {
        return other.SendMessage(7, {}, response, false);
    });
    this->m_log.Clear();

    EXPECT_EQ(this->m_peer.Send(SendBytes(1, 0)).m_bytes, TBytes{0});

    EXPECT_TRUE(this->m_log.Has(kDebug, "Connection is not ready"));
    EXPECT_TRUE(this->m_log.Has(kDebug, "Send hello " + other.GetUniqueName()));
    EXPECT_TRUE(other.SetCallback(1, TCDbus::TMessageCallback())) << "nothing stays locked";
}

TEST_F(ChannelTest, AServerThatLosesItsNameWhileItEndsDoesNotReportIt)
{
    auto server = std::make_unique<TCDbusServer>(false);
    ASSERT_TRUE(WaitUntil([&] { return server->IsReady(); }));
    m_loop.Settle();
    GDBusConnection* const connection = server->m_pConnection;
    TCSharedMutex& mutex = server->m_stateMutex;
    m_log.Clear();

    // Its handlers have ended when it waits for its state.
    std::future<void> ended;
    {
        const TCReadLock state(mutex);
        ended = std::async(std::launch::async, [&] { server.reset(); });
        ASSERT_TRUE(WaitUntil([&] { return IsWriterWaiting(mutex); }));
        g_variant_unref(g_dbus_connection_call_sync(
            connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
            "ReleaseName", g_variant_new("(s)", kBusName), nullptr, G_DBUS_CALL_FLAGS_NONE, -1,
            nullptr, nullptr));
        m_loop.Settle();
    }
    ended.wait();

    EXPECT_FALSE(m_log.Mentions("has been lost")) << m_log.Text();
    EXPECT_EQ(m_log.Count(FailedCheck("KELDbusServer", 233)), 0u);
}

} // namespace

} // namespace kel::test
