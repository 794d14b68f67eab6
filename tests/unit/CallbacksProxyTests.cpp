#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kel/KELCallbacksProxy.h>
#include <kel/KELDebug.h>

#include "Messages.h"
#include "StandardOutput.h"

namespace {

using testing::ElementsAre;

typedef std::vector<unsigned char> TBytes;

// An event as the channel hands it over; what comes through a bus is tested with the channel.
class CallbacksProxyEvents : public testing::Test
{
protected:
    CallbacksProxyEvents() { m_log.Clear(); }

    kel::TCCallbacksProxy m_proxy;
    kel::test::LogRecorder m_log;
};

TEST_F(CallbacksProxyEvents, OfAnyOtherTypeAreNotImplemented)
{
    TBytes response{7};

    for (const int type : {3, 0, -1}) {
        EXPECT_FALSE(m_proxy.m_Callback(type, {1, 2}, response));
        EXPECT_THAT(TakeMessages(m_log),
                    ElementsAre("3 Callback called with id " + std::to_string(type),
                                "6 Not implemented message type " + std::to_string(type)));
    }

    EXPECT_EQ(response, TBytes{7});
}

TEST_F(CallbacksProxyEvents, AreLoggedWithTheirPlaceInBothCopies)
{
    TBytes response;
    kel::TCDebug::m_instance.EnableStdoutLog(true);
    const std::string output = StandardOutputOf([&] { m_proxy.m_Callback(2, {}, response); });
    kel::TCDebug::m_instance.EnableStdoutLog(false);

    ASSERT_EQ(m_log.Lines().size(), 1u);
    const kel::test::TSLogLine line = m_log.Lines()[0];
    EXPECT_EQ(line.m_source, "KELCallbacksProxy");
    EXPECT_EQ(line.m_function, "m_OnCallback");
    EXPECT_EQ(output, "KEL >kel::TCCallbacksProxy:m_OnCallback:" + std::to_string(line.m_line)
                          + "< Callback called with id 2\n");
}

} // namespace
