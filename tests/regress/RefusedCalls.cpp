// Calls that the bus had refused waited for a slow one of their send, though others had made room.

#include "channel/FanOutTest.h"
#include "channel/Traffic.h"

namespace kel::test {

namespace {

bool IsRefusal(GDBusMessage* message)
{
    return g_strcmp0(g_dbus_message_get_error_name(message),
                     "org.freedesktop.DBus.Error.LimitsExceeded")
           == 0;
}

TEST_F(FullConnection, ItsCallsFindTheRoomThatOthersMake)
{
    TPeers older = FillConnection();
    const TPeers peers = MakeSilentClients(8);

    const Traffic<IsRefusal> refusals;

    std::future<TCounts> sent = SendInBackground(5, 60'000);
    EXPECT_TRUE(WaitUntil([&] { return refusals.Count() >= 8; }));
    EXPECT_EQ(CountCalls(peers), 0u);
    older.clear();

    EXPECT_TRUE(WaitForWaiting(peers, kRoom)) << "all of it";
    AnswerAll(peers);
    EXPECT_TRUE(WaitForWaiting(peers, kRoom));
    AnswerAll(peers);
    EXPECT_EQ(sent.get(), TCounts(8, 0));
}

TEST_F(FullConnection, ItsCallsDoNotWaitForASlowOneWhenOthersMakeRoom)
{
    TPeers older = FillConnection(kRoom - 1);
    const TPeers peers = MakeSilentClients(5);

    std::future<TCounts> sent = SendInBackground(5, 60'000);
    EXPECT_TRUE(WaitForWaiting(peers, 1));
    older.clear();

    EXPECT_TRUE(WaitForWaiting(peers, kRoom)) << "before the first has answered";
    AnswerAll(peers);
    EXPECT_TRUE(WaitForWaiting(peers, 1));
    AnswerAll(peers);
    EXPECT_EQ(sent.get(), TCounts(5, 0));
}

} // namespace

} // namespace kel::test
