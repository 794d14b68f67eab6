// Memory that ran out while a call, an answer or a name event was handled threw through GLib, which
// ended the process or leaked what it held.

#include <dlfcn.h>

#include <atomic>
#include <memory>

#include "channel/ChannelTest.h"
#include "support/MemoryShortage.h"

#include <gio/gio.h>

namespace {

std::atomic<bool> noPayload(false);
std::atomic<bool> noCompletion(false);

} // namespace

// In place of GLib's.
extern "C" __attribute__((visibility("default"))) void* g_try_malloc(gsize size)
{
    static const auto next = reinterpret_cast<void* (*)(gsize)>(dlsym(RTLD_NEXT, "g_try_malloc"));
    return noPayload ? nullptr : next(size);
}

// In place of GIO's: nothing can be allocated on the server's private thread from here on.
extern "C" __attribute__((visibility("default"))) GDBusMessage*
g_dbus_connection_send_message_with_reply_finish(GDBusConnection* connection, GAsyncResult* result,
                                                 GError** error)
{
    static const auto next
        = reinterpret_cast<decltype(&g_dbus_connection_send_message_with_reply_finish)>(
            dlsym(RTLD_NEXT, __func__));
    GDBusMessage* const reply = next(connection, result, error);
    kel::test::FailAllocation(noCompletion ? 1 : 0);
    return reply;
}

namespace kel::test {

namespace {

constexpr char kNoMemory[] = "org.freedesktop.DBus.Error.NoMemory";

template <typename Fixture> class InShortage : public Fixture
{
protected:
    /// Repeats a step while ever later allocations of the main context's thread fail, until none
    /// does. Returns how many have.
    template <typename Step> size_t Repeat(Step step)
    {
        for (size_t failures = 0;; ++failures) {
            this->m_loop.Run([failures] { FailAllocation(failures + 1); });
            step();
            bool isOver = false;
            this->m_loop.Run([&] {
                isOver = IsFailureToCome();
                FailAllocation(0);
            });
            if (isOver) {
                return failures;
            }
        }
    }
};

typedef InShortage<ServerTest> ServerInShortage;
typedef InShortage<ClientTest> ClientInShortage;

TEST_F(ServerInShortage, ASendThatCannotBeHandledIsAnsweredWithNoMemory)
{
    RawPeer peer(m_bus);
    TBytes received;
    m_server.SetCallback(1, [&](const TBytes& request, TBytes& response) {
        received = request;
        response = request;
        return true;
    });
    size_t refused = 0;

    Repeat([&] {
        const TSReply reply = peer.Send(SendBytes(1, 0, TBytes(100, 7)));
        ASSERT_TRUE(reply.m_arrived);
        if (!reply.IsOk()) {
            EXPECT_EQ(reply.m_error, kNoMemory);
            ++refused;
        }
    });

    EXPECT_GT(refused, 0u);
    EXPECT_TRUE(m_log.Mentions("has thrown: std::bad_alloc"));
    EXPECT_EQ(peer.Send(SendBytes(1, 0, {7})).m_bytes, (TBytes{1, 7}));
    m_loop.Settle(); // the answer goes out first
    EXPECT_TRUE(m_server.m_currentSender.empty());
}

TEST_F(ServerInShortage, AnAnswerThatHasNoRoomIsAnsweredWithNoMemory)
{
    RawPeer peer(m_bus);
    m_server.SetCallback(1, [](const TBytes&, TBytes&) { return true; });

    noPayload = true;
    const guint32 call = peer.Post("Send", Body(SendBytes(1, 0)));
    const TSReply reply = peer.WaitReply(call);
    noPayload = false;

    EXPECT_EQ(reply.m_error, kNoMemory);
    EXPECT_EQ(peer.Send(SendBytes(1, 0)).m_bytes, TBytes{1});
}

TEST_F(ServerInShortage, AHelloThatCannotBeHandledLeavesNothingHalfMade)
{
    RawPeer peer(m_bus);

    const size_t failures = Repeat([&] {
        const TSReply reply = peer.Hello({5, 6, 7});
        ASSERT_TRUE(reply.m_arrived);
        EXPECT_TRUE(reply.IsOk() || reply.m_error == kNoMemory) << reply.m_error;
        peer.Settle();
    });

    EXPECT_GT(failures, 3u);
    EXPECT_EQ(m_server.NumberOfClients(), 1u);
    EXPECT_EQ(m_server.SendMessage(6, {}, 20'000), TCounts(1, 0));
    peer.Vanish();
    EXPECT_TRUE(WaitUntil([this] { return m_server.NumberOfClients() == 0; }))
        << "it is watched, whichever step had failed";
}

TEST_F(ServerInShortage, AnAnswerIsCountedWithoutMemory)
{
    RawPeer peer(m_bus);
    peer.SetAnswer("Send", RawPeer::TSAnswer::Bytes(TBytes(1'000'000, 1)));
    Subscribe(peer, {5});

    noCompletion = true;
    EXPECT_EQ(m_server.SendMessage(5, {}, 20'000), TCounts(1, 0));
    noCompletion = false;

    EXPECT_EQ(m_server.SendMessage(5, {}, 20'000), TCounts(1, 0));
}

// Not in a handler, but of the same class: what had been done when the "Hello" found no memory
// stayed, and the caller had heard of an exception.
TEST_F(ClientInShortage, ACallbackIsSetAndRemovedWhollyOrNotAtAll)
{
    StartAgent();
    const TCDbus::TMessageCallback callback = [](const TBytes&, TBytes&) { return true; };
    for (const bool removes : {false, true}) {
        bool isOver = false;
        for (size_t number = 1; !isOver; ++number) {
            FailAllocation(number);
            try {
                EXPECT_TRUE(removes ? m_client->UnSetCallback(1)
                                    : m_client->SetCallback(1, callback));
                isOver = true;
            } catch (const std::bad_alloc&) {
                EXPECT_EQ(m_client->m_callbacks.count(1), removes ? 1u : 0u) << number;
            }
            FailAllocation(0);
        }
    }
}

TEST_F(ClientInShortage, ANameEventThatCannotBeHandledLeavesALineAndTheClientWorksOn)
{
    m_client->SetCallback(1, [](const TBytes&, TBytes&) { return true; });

    const size_t failures = Repeat([&] {
        ASSERT_TRUE(m_agent.OwnName());
        ASSERT_TRUE(m_agent.Send(SendBytes(9, 0)).m_arrived) << "it comes behind the event";
        m_agent.ReleaseName();
        ASSERT_TRUE(m_agent.Send(SendBytes(9, 0)).m_arrived);
    });

    EXPECT_GT(failures, 0u);
    EXPECT_TRUE(m_log.Has(kError, "An event's handler has thrown: std::bad_alloc"));
    m_agent.ForgetCalls();
    ASSERT_TRUE(m_agent.OwnName());
    EXPECT_TRUE(WaitUntil([this] { return m_client->IsReady(); }));
    ASSERT_TRUE(m_agent.WaitForCalls("Hello", 1));
    EXPECT_EQ(m_agent.Calls("Hello").at(0).m_bytes, HelloBytes({1}));
}

} // namespace

} // namespace kel::test
