// An application that answered with one of the bus's own errors was called again, or forgotten.

#include "channel/ChannelTest.h"

namespace kel::test {

namespace {

TEST_F(ServerTest, AnErrorOfTheBusThatAClientAnswersItselfIsAFailureAndTheClientStays)
{
    RawPeer first(m_bus);
    RawPeer second(m_bus);
    for (const char* const error : {"ServiceUnknown", "NameHasNoOwner", "LimitsExceeded"}) {
        first.SetAnswer(
            "Send", RawPeer::TSAnswer::Error(std::string("org.freedesktop.DBus.Error.") + error));
        Subscribe(first, {5});
        Subscribe(second, {5});
        first.ForgetCalls();

        EXPECT_EQ(m_server.SendMessage(5, {}, 20'000), TCounts(1, 1)) << error;

        EXPECT_EQ(m_server.NumberOfClients(), 2u) << error;
        EXPECT_EQ(first.Calls("Send").size(), 1u) << error;
    }
}

} // namespace

} // namespace kel::test
