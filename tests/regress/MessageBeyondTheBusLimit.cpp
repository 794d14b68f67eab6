// A message larger than the bus takes cost the sender its connection, and the process with it.

#include "KELPayload.h"
#include "channel/ChannelTest.h"

#include <gio/gio.h>

namespace kel::test {

namespace {

/// Payload of a "Send" that makes a message of exactly this size.
TBytes PayloadFor(size_t size, const char* destination)
{
    const size_t rest
        = MessageSize({destination, kObjectPath, kInterface, "Send"}, false, kRequestHeaderSize);
    return TBytes(size - rest);
}

TEST(MessageSize, IsThatOfTheMessageOnTheBus)
{
    for (const char* const destination : {":1.7", "com.norvale.kel.IControl", ":1.1234567"}) {
        for (const size_t bytes : {0, 1, 4096}) {
            GDBusMessage* const call
                = g_dbus_message_new_method_call(destination, kObjectPath, kInterface, "Send");
            g_dbus_message_set_body(call, Body(TBytes(bytes)).get());
            g_dbus_message_set_serial(call, 1);
            gsize size = 0;
            g_free(g_dbus_message_to_blob(call, &size, G_DBUS_CAPABILITY_FLAGS_NONE, nullptr));
            EXPECT_EQ(MessageSize({destination, kObjectPath, kInterface, "Send"}, false, bytes),
                      size);

            g_dbus_message_set_sender(call, destination); // whom the reply goes to
            GDBusMessage* const reply = g_dbus_message_new_method_reply(call);
            g_dbus_message_set_body(reply, Body(TBytes(bytes)).get());
            g_dbus_message_set_serial(reply, 2);
            g_free(g_dbus_message_to_blob(reply, &size, G_DBUS_CAPABILITY_FLAGS_NONE, nullptr));
            EXPECT_EQ(MessageSize({destination}, true, bytes), size);
            g_object_unref(reply);
            g_object_unref(call);
        }
    }
}

TEST_F(ClientTest, ARequestLargerThanTheBusTakesIsRefusedAtOnce)
{
    StartAgent();
    TBytes response{7};
    for (const bool async : {false, true}) {
        m_log.Clear();

        EXPECT_FALSE(
            m_client->SendMessage(4, PayloadFor(kBusMessageLimit + 1, kBusName), response, async));

        EXPECT_EQ(m_log.Text(), "6 KELDbusClient: Unable to send 33554433 bytes, the bus takes "
                                "33554432\n");
        EXPECT_EQ(response, TBytes{7});
    }
    EXPECT_TRUE(m_agent.Calls("Send").empty());
}

TEST_F(ClientTest, ARequestAsLargeAsTheBusTakesArrives)
{
    StartAgent();
    TBytes response;

    EXPECT_TRUE(m_client->SendMessage(4, PayloadFor(kBusMessageLimit, kBusName), response, false));
}

TEST_F(ServerTest, AnEventLargerThanTheBusTakesIsAFailureOfEachClient)
{
    RawPeer first(m_bus);
    RawPeer second(m_bus);
    Subscribe(first, {5});
    Subscribe(second, {5});

    const TBytes data = PayloadFor(kBusMessageLimit + 1, first.Name().c_str());
    EXPECT_EQ(m_server.SendMessage(5, data, 20'000), TCounts(0, 2));

    EXPECT_TRUE(m_log.Has(kError, "Unable to send 33554433 bytes to " + first.Name()
                                      + ", the bus takes 33554432"));
    EXPECT_EQ(m_server.SendMessage(5, {}, 20'000), TCounts(2, 0)) << "it is still connected";
}

TEST_F(ServerTest, AnAnswerLargerThanTheBusTakesIsAnError)
{
    RawPeer peer(m_bus);
    m_server.SetCallback(1, [](const TBytes&, TBytes& response) {
        response.resize(kBusMessageLimit);
        return true;
    });

    EXPECT_EQ(peer.Send(SendBytes(1, 0)).m_error, "org.freedesktop.DBus.Error.LimitsExceeded");

    EXPECT_TRUE(m_log.Mentions(" bytes, the bus takes 33554432")) << m_log.Text();
    EXPECT_EQ(peer.Send(SendBytes(2, 0)).m_bytes, TBytes{0}) << "it is still connected";
}

} // namespace

} // namespace kel::test
