// Request_NDF() failed on a request that the agent was just looking at: it opened the file without
// waiting, and the agent takes a lease to see whether a request is still being written.

#include <kel/KELIssueReport.h>

#include "FileSystemTests.h"
#include "Lessee.h"

namespace kel::test {

namespace {

class RequestUnderALease : public FileSystemTest
{
protected:
    RequestUnderALease() { fs::create_directory(m_request.parent_path()); }
    ~RequestUnderALease() override { fs::remove_all(m_request.parent_path()); }

    const fs::path m_request = "/tmp/kel_NDF/a-b-ALWAYS.log";
    char m_process[2] = "a";
    char m_thread[2] = "b";
};

TEST_F(RequestUnderALease, IsFiledWhenTheLeaseIsGivenBack)
{
    Write(m_request, "before");
    Lessee lessee(m_request);
    if (!lessee.HasLease()) {
        GTEST_SKIP() << "this machine grants no leases";
    }

    EXPECT_EQ(Request_NDF(ALWAYS, m_process, m_thread, "after"), 1);

    EXPECT_EQ(lessee.End(), SIGIO);
    EXPECT_EQ(Read(m_request), "after");
}

TEST_F(RequestUnderALease, FailsWhenTheLeaseIsKept)
{
    Write(m_request, "before");
    const Lessee lessee(m_request, true);
    if (!lessee.HasLease()) {
        GTEST_SKIP() << "this machine grants no leases";
    }

    EXPECT_EQ(Request_NDF(ALWAYS, m_process, m_thread, "after"), -1);
}

} // namespace

} // namespace kel::test
