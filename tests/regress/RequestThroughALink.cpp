// A request for an issue report truncated what a link under its name pointed to, and waited for the
// other end of a FIFO there.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <kel/KELIssueReport.h>

#include "FileSystemTests.h"
#include "StandardOutput.h"

namespace kel::test {

namespace {

class RequestThroughALink : public FileSystemTest
{
protected:
    RequestThroughALink() { MakeDirectory(m_drop); }
    ~RequestThroughALink() override { fs::remove_all(m_drop); }

    void ExpectRefusal()
    {
        char process[] = "p";
        char thread[] = "t";
        int result = 0;

        const std::string output
            = StandardOutputOf([&] { result = Request_NDF(ALWAYS, process, thread); });

        EXPECT_EQ(result, -1);
        EXPECT_EQ(output, "[kel_courier] NDF2 api request = /tmp/kel_NDF/p-t-ALWAYS.log, "
                          "uploadPath = NO_PATH\n[kel_courier] FILE OPEN FAILED \n");
        fs::remove(m_request);
    }

    const fs::path m_drop = "/tmp/kel_NDF";
    const fs::path m_request = "/tmp/kel_NDF/p-t-ALWAYS.log";
};

TEST_F(RequestThroughALink, FailsAndLeavesWhatItPointsTo)
{
    const fs::path target = Write(m_root / "target", "precious");

    fs::create_symlink(target, m_request);
    ExpectRefusal();
    fs::create_hard_link(target, m_request);
    ExpectRefusal();
    fs::create_symlink(m_root / "new", m_request);
    ExpectRefusal();

    EXPECT_EQ(Read(target), "precious");
    EXPECT_FALSE(fs::exists(m_root / "new"));
}

TEST_F(RequestThroughALink, OrAFifoFailsAndWaitsForNobody)
{
    ASSERT_EQ(mkfifo(m_request.c_str(), 0600), 0);
    ExpectRefusal();

    ASSERT_EQ(mkfifo(m_request.c_str(), 0600), 0);
    const int reader = open(m_request.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ExpectRefusal();
    close(reader);
}

} // namespace

} // namespace kel::test
