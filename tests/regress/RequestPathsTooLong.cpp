// A request's path was cut one character later than who reads the drop directories expects.

#include <kel/KELIssueReport.h>

#include "FileSystemTests.h"
#include "StandardOutput.h"

namespace kel::test {

namespace {

class RequestPaths : public FileSystemTest
{
protected:
    RequestPaths()
    {
        MakeDirectory(m_drop);
        MakeDirectory(m_rebootDrop);
    }
    ~RequestPaths() override
    {
        fs::remove_all(m_drop);
        fs::remove_all(m_rebootDrop);
    }

    // Expects the request to be in this file, and to be said to be.
    void ExpectRequest(std::string process, int reboot, const std::string& path)
    {
        char thread[] = "t";
        int result = 0;

        const std::string output = StandardOutputOf(
            [&] { result = Request_NDF(ALWAYS, process.data(), thread, "/a", reboot); });

        EXPECT_EQ(result, 1);
        EXPECT_EQ(output, "[kel_courier] NDF2 api request = " + path + ", uploadPath = /a\n");
        EXPECT_EQ(Read(path), "/a");
    }

    const fs::path m_drop = "/tmp/kel_NDF";
    const fs::path m_rebootDrop = "/tmp/kel_NDF_reboot";
};

// "/tmp/kel_NDF/" is 13 characters long, "-t-ALWAYS.log" as well: a name of 100 fits.
TEST_F(RequestPaths, AreCutAt126CharactersFromTheEnd)
{
    const std::string fits(100, 'p');
    ExpectRequest(fits, 0, "/tmp/kel_NDF/" + fits + "-t-ALWAYS.log");
    ExpectRequest(fits + "p", 0, "/tmp/kel_NDF/" + fits + "p-t-ALWAYS.lo");

    const std::string left(126 - std::string("/tmp/kel_NDF_reboot/").size(), 'p');
    for (const size_t length : {200u, 600u}) {
        fs::remove_all(m_rebootDrop);
        MakeDirectory(m_rebootDrop);
        ExpectRequest(std::string(length, 'p'), 1, "/tmp/kel_NDF_reboot/" + left);
    }
}

} // namespace

} // namespace kel::test
