// A message for whose bytes there was no memory ended the process.

#include <dlfcn.h>

#include <atomic>
#include <new>

#include "channel/ChannelTest.h"

namespace {

std::atomic<bool> noPayload(false);

} // namespace

// In place of GLib's.
void* g_try_malloc(gsize size)
{
    static const auto next = reinterpret_cast<void* (*)(gsize)>(dlsym(RTLD_NEXT, "g_try_malloc"));
    return noPayload ? nullptr : next(size);
}

namespace kel::test {

namespace {

TEST_F(ServerTest, AMessageThatHasNoRoomThrowsAndTheEndWorksOn)
{
    RawPeer peer(m_bus);
    peer.SetAnswer("Send", RawPeer::TSAnswer::Bytes({1}));
    Subscribe(peer, {5});

    noPayload = true;
    EXPECT_THROW(m_server.SendMessage(5, {}, 20'000), std::bad_alloc);
    noPayload = false;

    EXPECT_EQ(m_server.SendMessage(5, {}, 20'000), (std::pair<size_t, size_t>(1, 0)));
    peer.Vanish();
    EXPECT_TRUE(WaitUntil([this] { return m_server.NumberOfClients() == 0; })) << "nothing locked";
}

} // namespace

} // namespace kel::test
