// A system log whose reader hangs held up whoever logged, for good.

#include <dlfcn.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <dlog.h>

#include <gmock/gmock.h>

#include "HostPlatformTests.h"

namespace {

// The system log's end of its socket, in a "/dev" of this test's own.
class SystemLog
{
public:
    SystemLog() : m_socket(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0))
    {
        const sockaddr_un address{AF_UNIX, "/dev/log"};
        EXPECT_EQ(bind(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    }
    ~SystemLog() { close(m_socket); }
    SystemLog(const SystemLog&) = delete;
    SystemLog& operator=(const SystemLog&) = delete;

    // The next line; empty when there is none.
    std::string Read() const
    {
        char line[1024];
        const ssize_t size = recv(m_socket, line, sizeof(line), 0);
        return std::string(line, size < 0 ? 0 : static_cast<size_t>(size));
    }

private:
    const kel::test::Mount m_dev{"/dev"};
    const int m_socket;
};

// More lines than any queue has room for. To wait for the reader at every one of them would take
// longer than this program may run.
TEST(LogThatIsNotRead, LosesLinesAndHoldsUpNobody)
{
    unsetenv("KEL_HOST_LOG");
    const SystemLog log;
    constexpr int kLines = 5000;
    // By its name, or the linker puts in the recorder of other tests.
    const auto print
        = reinterpret_cast<decltype(&__dlog_print)>(dlsym(RTLD_DEFAULT, "__dlog_print"));
    ASSERT_NE(print, nullptr);

    for (int i = 0; i < kLines; ++i) {
        EXPECT_EQ(print(LOG_ID_SYSTEM, DLOG_ERROR, "KEL", "line %04d", i), 9);
    }

    int read = 0;
    std::string last;
    for (std::string line = log.Read(); !line.empty(); line = log.Read(), ++read) {
        last = line;
    }
    EXPECT_GT(read, 0);
    EXPECT_LT(read, kLines);
    EXPECT_THAT(last, testing::HasSubstr("]: KEL: line "));

    // It reads again: so lines arrive.
    print(LOG_ID_SYSTEM, DLOG_DEBUG, "KEL", "%s", "afterwards");
    EXPECT_THAT(log.Read(), testing::MatchesRegex("<15>.*\\[[0-9]+\\]: KEL: afterwards"));
}

} // namespace
