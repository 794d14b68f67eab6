// While the agent put a directory of its own in the place of another one, there was none for a
// moment, in which applications could not file their requests.

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include <gmock/gmock.h>

#include "common/Files.h"
#include "requests/ExactDirectory.h"
#include "support/PrivateBus.h"

namespace kel::test {

namespace fs = std::filesystem;

TEST(DropDirectory, IsThereWhileAnotherOneTakesItsPlace)
{
    const fs::path parent = MakeDirectory();
    const fs::path drop = parent / "drop";
    fs::create_directory(drop);
    std::atomic<bool> over{false};
    std::atomic<size_t> looks{0};
    size_t missing = 0;
    std::thread application([&] {
        for (; !over; ++looks) {
            missing += access(drop.c_str(), F_OK) == 0 ? 0 : 1;
        }
    });

    const tools::TCDescriptor opened(open(parent.c_str(), O_RDONLY | O_DIRECTORY));
    const agent::TCExactDirectory own("drop", 01733, "aside-");
    for (int round = 0; round < 1000; ++round) {
        const size_t before = looks;
        fs::permissions(drop, fs::perms::owner_all); // as somebody else would have made it
        tools::TCDescriptor directory;
        bool moved = false;
        EXPECT_TRUE(own.Open(opened.Get(), directory, moved));
        EXPECT_TRUE(moved);
        while (looks == before) {
            std::this_thread::yield();
        }
    }
    over = true;
    application.join();
    fs::remove_all(parent);

    EXPECT_EQ(missing, 0U);
}

} // namespace kel::test
