// kelctl trace whose output nobody read kept messages without a bound: only what they carried was
// counted, and most carry nothing.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include "e2e/TraceRoad.h"

namespace kel::test {

TEST_F(TraceRoad, MessagesWithoutAnythingAreBounded)
{
    constexpr int kMore = 40000; // than are kept, and a pipe takes
    constexpr char kPipe[] = "/tmp/pipe";
    ASSERT_EQ(mkfifo(kPipe, 0600), 0);
    ChildProcess trace(
        {"sh", "-c", "exec 3<>/tmp/pipe; echo >&2; exec '" KEL_CTL "' trace >&3 3>&-"});
    const int pipe = open(kPipe, O_RDWR | O_NONBLOCK | O_CLOEXEC);
    std::string output;
    const auto isTold = [&](const char* text) {
        char block[65536];
        for (ssize_t size = 0; (size = read(pipe, block, sizeof(block))) > 0;) {
            output.append(block, static_cast<size_t>(size));
        }
        return output.find(text) != std::string::npos;
    };
    ASSERT_TRUE(WaitUntil([&] { return isTold("no agent"); })) << trace.ErrorOutput();

    m_peer.SetTarget(m_busPeer.Name());
    for (int i = 0; i < kMore; ++i) {
        m_peer.Post("Send", TBody(), true);
    }
    ASSERT_TRUE(m_busPeer.WaitForCalls("Send", kMore));

    EXPECT_TRUE(WaitUntil([&] { return isTold("messages that came too fast: "); }));
    trace.Signal(SIGTERM);
    EXPECT_EQ(trace.Wait(), 0);
    close(pipe);
}

} // namespace kel::test
