// A callback that iterated the main context deadlocked with a thread that registered another one.

#include <atomic>
#include <future>

#include "channel/ChannelTest.h"

namespace kel::test {

namespace {

TEST_F(ServerTest, ACallbackMayIterateTheLoopWhileAnotherThreadRegisters)
{
    RawPeer peer(m_bus);
    std::promise<void> entered;
    std::atomic<bool> nested(false);
    m_server.SetCallback(1, [&](const TBytes&, TBytes&) {
        entered.set_value();
        // Until the other thread waits for the callbacks, and for the next message.
        while (!nested) {
            g_main_context_iteration(nullptr, TRUE);
        }
        return true;
    });
    m_server.SetCallback(2, [&](const TBytes&, TBytes&) {
        nested = true;
        return true;
    });

    const guint32 outer = peer.Post("Send", Body(SendBytes(1, 1)));
    entered.get_future().wait();
    std::future<bool> registered = std::async(std::launch::async, [this] {
        return m_server.SetCallback(3, [](const TBytes&, TBytes&) { return true; });
    });
    ASSERT_TRUE(WaitUntil([this] { return IsWriterWaiting(m_server.m_callbacksMutex); }));
    const guint32 inner = peer.Post("Send", Body(SendBytes(2, 1)));

    EXPECT_EQ(peer.WaitReply(inner).m_bytes, TBytes{1});
    EXPECT_EQ(peer.WaitReply(outer).m_bytes, TBytes{1});
    EXPECT_TRUE(registered.get());
}

} // namespace

} // namespace kel::test
