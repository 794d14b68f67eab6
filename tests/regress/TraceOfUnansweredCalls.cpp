// kelctl trace looked through all the calls that waited for an answer whenever one more had none:
// each of a flood took it more than ten times as long as the first ones, and messages got lost.

#include <ctime>

#include <gtest/gtest.h>

#include "trace/Channel.h"

namespace kel::ctl {

namespace {

constexpr TMicroseconds kStart = 1'000'000'000;
constexpr guint32 kCalls = 4000; // fewer than it keeps at once

class Silent : public IChannelListener
{
public:
    void OnCall(const TSChannelCall&) override {}
    void OnAnswer(const TSChannelCall&, const TSChannelAnswer&) override {}
    void OnUnanswered(const TSChannelCall&, TMicroseconds) override { ++m_unanswered; }
    void OnAgent(TMicroseconds, const std::string&) override {}
    void OnFlood(TMicroseconds, const TSFlood&) override {}

    size_t m_unanswered = 0;
};

double Now()
{
    timespec time;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time); // whatever else runs on the machine
    return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

// What so many calls more take, a millisecond apart, in seconds.
double Take(TCChannel& channel, guint32& serial)
{
    const TGlibPtr<GDBusMessage> message(g_dbus_message_new_method_call(
        ":1.1", kChannel.m_object, "com.norvale.kel.IControl", "Send"));
    g_dbus_message_set_sender(message.get(), ":1.2");
    const double begin = Now();
    for (guint32 i = 0; i < kCalls; ++i) {
        g_dbus_message_set_serial(message.get(), ++serial);
        channel.Take(kStart + serial * TMicroseconds(1000), *message);
    }
    return Now() - begin;
}

} // namespace

TEST(TraceOfUnansweredCalls, TakesForEachWhatTheFirstOnesTook)
{
    Silent listener;
    TCChannel channel(false, listener);
    guint32 serial = 0;
    const double first = Take(channel, serial); // none of them is late yet
    EXPECT_EQ(listener.m_unanswered, 0U);

    const double late = Take(channel, serial);

    EXPECT_GT(listener.m_unanswered, kCalls / 2);
    EXPECT_LT(late / first, 5) << first << " s, then " << late << " s";
    channel.End(kStart);
    EXPECT_EQ(listener.m_unanswered, 2 * kCalls) << "each is told of once";
}

} // namespace kel::ctl
