// A program that closed the library, which it had loaded itself, while its client was in use
// crashed at the next event: GLib called a function that was no more.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/ChildProcess.h"
#include "support/RawPeer.h"

namespace kel::test {

namespace {

TEST(ClosedLibrary, StaysAsLongAsAnEventMayCome)
{
    PrivateBus bus;
    RawPeer agent(bus);
    ChildProcess program({KEL_CLOSED_LIBRARY_PROGRAM, KEL_LIBRARY}, {{"KEL_HOST_LOG", "none"}});
    ASSERT_TRUE(program.WaitForOutput("closed\n")) << program.ErrorOutput();

    ASSERT_TRUE(agent.OwnName());

    EXPECT_TRUE(agent.WaitForCalls("Hello", 1)) << "its client has heard of the agent";
    program.Write("end\n");
    EXPECT_THAT(program.Wait(), testing::Optional(0)) << program.ErrorOutput();
}

} // namespace

} // namespace kel::test
