// An end was taken for the one that had been at its address before.

#include <optional>

#include "channel/ChannelTest.h"
#include "support/Threads.h"

namespace kel::test {

namespace {

/// What a program may make of the base of both ends.
class BareEnd : public TCDbus
{
public:
    using TCDbus::TCDbus;
    bool SetCallback(int, const TMessageCallback&) override { return false; }
    bool UnSetCallback(int) override { return false; }
    using TCDbus::t_EndHandlers;
    using TCDbus::t_Start;
    using TCDbus::t_Stop;
};

TEST_F(ChannelTest, AnEndThatHasStoppedWithoutEndingItsHandlersIsNotTakenForTheNextInItsPlace)
{
    RawPeer peer(m_bus);
    std::optional<BareEnd> end(std::in_place, false);
    ASSERT_TRUE(end->t_Start());
    end->t_Stop();

    end.emplace(false); // at the same address
    ASSERT_TRUE(end->t_Start());
    peer.SetTarget(end->GetUniqueName());
    EXPECT_EQ(peer.Send(SendBytes(1, 0)).m_bytes, TBytes{0});
    end->t_EndHandlers();

    EXPECT_FALSE(peer.Send(SendBytes(1, 0)).IsOk());
    end->t_Stop();
}

TEST_F(ChannelTest, AClientInThePlaceOfTheOneThatItsHandlerDroppedHasItsOwnLocks)
{
    RawPeer peer(m_bus);
    std::optional<TCDbusClient> client(std::in_place, false);
    peer.SetTarget(client->GetUniqueName());
    bool waited = false;
    client->SetCallback(1, [&](const TBytes&, TBytes&) {
        client.reset();
        client.emplace(false); // at the same address
        std::atomic<bool> released(false);
        std::atomic<bool> returned(false);
        Gate locked;
        std::future<void> holder = std::async(std::launch::async, [&] {
            const TCWriteLock callbacks(client->m_callbacksMutex);
            locked.Open();
            WaitUntil([&] { return returned.load(); }, std::chrono::milliseconds(100));
            released = true;
        });
        locked.Wait();
        TBytes response;
        client->SendMessage(7, {}, response, false); // greets, which takes the lock
        waited = released;
        returned = true;
        return true;
    });

    EXPECT_TRUE(peer.Send(SendBytes(1, 0)).IsOk());

    m_loop.Settle();
    EXPECT_TRUE(waited);
    EXPECT_TRUE(client->SetCallback(1, TCDbus::TMessageCallback()));
}

} // namespace

} // namespace kel::test
