// A call that the bus had refused for want of room was known by one daemon's sentence: another
// daemon's failed at once, and an application that spoke the same sentence was called again and
// again.

#include "channel/FanOutTest.h"

namespace kel::test {

namespace {

constexpr char kLimitsExceeded[] = "org.freedesktop.DBus.Error.LimitsExceeded";

/// Changes what the bus says to this process when it refuses something.
class OtherWords
{
public:
    explicit OtherWords(const char* words)
        : m_words(words), m_pConnection(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr)),
          m_filter(g_dbus_connection_add_filter(m_pConnection, &OtherWords::Filter, this, nullptr))
    {}
    ~OtherWords()
    {
        g_dbus_connection_remove_filter(m_pConnection, m_filter);
        g_object_unref(m_pConnection);
    }
    OtherWords(const OtherWords&) = delete;
    OtherWords& operator=(const OtherWords&) = delete;

private:
    static GDBusMessage* Filter(GDBusConnection*, GDBusMessage* message, gboolean, gpointer words)
    {
        if (g_strcmp0(g_dbus_message_get_error_name(message), kLimitsExceeded) != 0) {
            return message;
        }
        GDBusMessage* const changed = g_dbus_message_copy(message, nullptr);
        g_object_unref(message);
        g_dbus_message_set_body(changed,
                                g_variant_new("(s)", static_cast<OtherWords*>(words)->m_words));
        return changed;
    }

    const char* const m_words;
    GDBusConnection* const m_pConnection; // one reference, released by the destructor
    const guint m_filter;
};

TEST_F(FullConnection, RefusesInAnyWordsAndEveryClientIsCalledOnce)
{
    const TPeers peers = MakeSilentClients(kRoom + 2);
    for (const char* const words : {"Sending user's quota exceeded", ""}) {
        const OtherWords others(words);

        std::future<TCounts> sent = SendInBackground(5, 60'000);
        EXPECT_TRUE(WaitForWaiting(peers, kRoom)) << words;
        AnswerAll(peers);
        EXPECT_TRUE(WaitForWaiting(peers, 2)) << words;
        AnswerAll(peers);

        EXPECT_EQ(sent.get(), TCounts(kRoom + 2, 0)) << words << m_log.Text();
        EXPECT_EQ(CountCalls(peers), 0u) << "nobody is called twice";
    }
}

TEST_F(FanOut, AnApplicationThatRefusesInTheWordsOfABusIsAFailureAndIsNotCalledAgain)
{
    const TPeers peers = MakeClients(2);
    for (const char* const words : {"The maximum number of pending replies per connection has been "
                                    "reached",
                                    "Sending user's quota exceeded"}) {
        peers[0]->SetAnswer(
            "Send", {true, ParseBody("(\"" + std::string(words) + "\",)"), kLimitsExceeded});
        peers[0]->ForgetCalls();

        EXPECT_EQ(m_server.SendMessage(5, {}, 1000), TCounts(1, 1)) << words;

        EXPECT_EQ(peers[0]->Calls("Send").size(), 1u) << words;
    }
}

} // namespace

} // namespace kel::test
