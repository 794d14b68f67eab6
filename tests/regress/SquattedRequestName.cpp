// What was no request stayed under the name of somebody's request for ever, and his requests
// failed.

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include <gmock/gmock.h>

#include "e2e/ReportRoad.h"
#include "support/Stranger.h"

namespace kel::test {

namespace fs = std::filesystem;

TEST_F(ReportRoad, UnderASquattedNameARequestIsFiledInTheEnd)
{
    const auto agent = StartCollector();
    const TNames kinds = {"directory", "fifo", "link", "socket", "hardlink"};
    const Stranger stranger([] {
        fs::create_directories(kDrop / "proc-directory-ALWAYS.log/deep/er");
        fs::permissions(kDrop / "proc-directory-ALWAYS.log/deep", fs::perms::none);
        mkfifo((kDrop / "proc-fifo-ALWAYS.log").c_str(), 0600);
        fs::create_symlink("/nowhere/at/all", kDrop / "proc-link-ALWAYS.log");
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, (kDrop / "proc-socket-ALWAYS.log").c_str());
        static_cast<void>(bind(socket(AF_UNIX, SOCK_STREAM, 0),
                               reinterpret_cast<sockaddr*>(&address), sizeof(address)));
        close(open("/tmp/strangers", O_WRONLY | O_CREAT, 0600));
        fs::create_hard_link("/tmp/strangers", kDrop / "proc-hardlink-ALWAYS.log");
    });

    for (const std::string& kind : kinds) {
        EXPECT_TRUE(WaitUntil([&] { return Request(ALWAYS, "proc", kind) == 1; }))
            << kind << agent->ErrorOutput();
    }

    EXPECT_TRUE(WaitForReports(kinds.size())) << agent->ErrorOutput();
    EXPECT_TRUE(WaitUntil([] { return NamesIn(kTaken / "trash").empty(); }));
    fs::remove("/tmp/strangers");
}

} // namespace kel::test
