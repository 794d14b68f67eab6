// What a removed function had held was destroyed later, by the thread that had run it last.

#include <dlfcn.h>

#include <atomic>

#include "channel/ChannelTest.h"
#include "support/Threads.h"

namespace kel::test {

namespace {

/// Where answers wait.
struct TSHalt
{
    Gate m_reached;
    Gate m_goOn;
};

std::atomic<TSHalt*> halt(nullptr);

TEST_F(ServerTest, WhatAFunctionHeldIsGoneWithItsRemovalWhileItsAnswerIsStillToBeSent)
{
    TSHalt atTheAnswer;
    halt = &atTheAnswer;
    const auto held = std::make_shared<int>();
    m_server.SetCallback(5, [held](const TBytes&, TBytes&) { return true; });
    RawPeer peer(m_bus);
    const guint32 call = peer.Post("Send", Body(SendBytes(5, 0)));
    atTheAnswer.m_reached.Wait(); // the function has run, and may be removed

    EXPECT_TRUE(m_server.UnSetCallback(5));

    EXPECT_EQ(held.use_count(), 1);
    atTheAnswer.m_goOn.Open();
    EXPECT_EQ(peer.WaitReply(call).m_bytes, TBytes{1});
    m_loop.Settle();
}

} // namespace

} // namespace kel::test

// In place of GIO's function of this name.
extern "C" __attribute__((visibility("default"))) void
g_dbus_method_invocation_return_value(GDBusMethodInvocation* invocation, GVariant* parameters)
{
    static const auto next = reinterpret_cast<decltype(&g_dbus_method_invocation_return_value)>(
        dlsym(RTLD_NEXT, "g_dbus_method_invocation_return_value"));
    if (kel::test::TSHalt* const at = kel::test::halt.exchange(nullptr)) {
        at->m_reached.Open();
        at->m_goOn.Wait();
    }
    next(invocation, parameters);
}
