// A server destroyed on an interrupted boost::thread ended the process: its destructor waited at an
// interruption point, which throws.

#include "channel/ChannelTest.h"

#include <boost/thread/thread.hpp>

namespace kel::test {

namespace {

TEST_F(ChannelTest, AServerMayBeDestroyedOnAnInterruptedThread)
{
    auto server = std::make_unique<TCDbusServer>(false);
    bool isStillInterrupted = false;

    boost::thread thread([&] {
        boost::this_thread::disable_interruption until;
        while (!boost::this_thread::interruption_requested()) {
            std::this_thread::yield();
        }
        boost::this_thread::restore_interruption now(until);
        server.reset();
        isStillInterrupted = boost::this_thread::interruption_requested();
    });
    thread.interrupt();
    thread.join();

    EXPECT_EQ(server, nullptr);
    EXPECT_TRUE(isStillInterrupted) << "the thread learns of it at a point of its own";
}

} // namespace

} // namespace kel::test
