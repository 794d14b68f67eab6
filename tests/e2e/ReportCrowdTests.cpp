// Many users at once, one of whom does all that a stranger can to the others' requests: each of
// them has one report.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>

#include <gmock/gmock.h>

#include "e2e/ReportRoad.h"
#include "support/Stranger.h"

namespace kel::test {

namespace fs = std::filesystem;

namespace {

constexpr int kOfAUser = 500;
constexpr uid_t kUsers[] = {1001, 1002, 1003};

std::string NameOf(uid_t user, int number)
{
    return "user" + std::to_string(user) + "-" + std::to_string(number) + "-ALWAYS.log";
}

// As the library does; again where somebody has put something else under the name.
void FileAll(uid_t user)
{
    for (int i = 0; i < kOfAUser; ++i) {
        const std::string path = kDrop / NameOf(user, i);
        const std::string content = "/nowhere/" + NameOf(user, i);
        for (;;) {
            const int file = open(path.c_str(),
                                  O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0644);
            struct stat status;
            const bool filed = file >= 0 && fstat(file, &status) == 0 && S_ISREG(status.st_mode)
                               && status.st_nlink == 1 && status.st_uid == geteuid()
                               && write(file, content.data(), content.size())
                                      == static_cast<ssize_t>(content.size());
            if (file >= 0) {
                close(file);
            }
            if (filed) {
                break;
            }
            usleep(1000);
        }
        usleep(1000);
    }
}

// One round of all of it.
void Annoy()
{
    static int round = 0;
    ++round;
    const std::string number = std::to_string(round);
    for (int i = 0; i < 50; ++i) {
        const std::string odd = kDrop / ("odd-" + number + "." + std::to_string(i));
        close(open(odd.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666));
        const std::string valid
            = kDrop / ("bad" + number + "-" + std::to_string(i) + "-POLICY.log");
        const int file = open(valid.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
        if (write(file, "NO_PATH", 7) != 7 || i > 0 || round > 12) {
            close(file); // the first ones of 12 rounds stay open
        }
    }
    for (const uid_t user : kUsers) {
        const std::string squatted = kDrop / NameOf(user, (round * 7) % kOfAUser);
        mkdir(squatted.c_str(), 0777);
        mkdir((squatted + "/deep").c_str(), 0);
        mkfifo((kDrop / NameOf(user, (round * 7 + 1) % kOfAUser)).c_str(), 0666);
        static_cast<void>(
            symlink("/etc/shadow", (kDrop / NameOf(user, (round * 7 + 2) % kOfAUser)).c_str())
            == 0);
        const std::string swap = kDrop / ("swap-" + number + "-ALWAYS.log");
        renameat2(AT_FDCWD, squatted.c_str(), AT_FDCWD, swap.c_str(), RENAME_NOREPLACE);
    }
    usleep(10'000);
}

} // namespace

class ReportCrowd : public ReportRoad
{
protected:
    // How many reports there are of each request of the users.
    std::map<std::string, int> Counts() const
    {
        std::map<std::string, int> counts;
        for (const TSReport& report : Reports()) {
            if (report.Name().compare(0, 4, "user") == 0) {
                ++counts[report.Name()];
                EXPECT_EQ(report["/request/upload-path"], "/nowhere/" + report.Name());
            }
        }
        return counts;
    }

    static void ExpectEachOnce(const std::map<std::string, int>& counts)
    {
        for (const uid_t user : kUsers) {
            for (int i = 0; i < kOfAUser; ++i) {
                const auto count = counts.find(NameOf(user, i));
                EXPECT_EQ(count != counts.end() ? count->second : 0, 1) << NameOf(user, i);
            }
        }
    }
};

TEST_F(ReportCrowd, WithAStrangerWhoDoesAllThatHeCanEveryRequestHasItsReport)
{
    Sandbox::NeedOtherUsers();
    const auto agent = StartCollector({"--max-reports", "100000"});
    const Stranger annoying(Annoy, true);
    const Stranger first([] { FileAll(kUsers[0]); }, false, kUsers[0]);
    const Stranger second([] { FileAll(kUsers[1]); }, false, kUsers[1]);
    const Stranger third([] { FileAll(kUsers[2]); }, false, kUsers[2]);

    File("proc-last-ALWAYS.log");

    ASSERT_TRUE(Says(*agent, ": proc-last-ALWAYS.log in /tmp/kel_NDF collected\n"));
    // The stranger's own are of another mode.
    EXPECT_TRUE(WaitUntil(
        [&] {
            return CountOf(agent->ErrorOutput(), "-ALWAYS.log in /tmp/kel_NDF collected\n")
                   > std::size(kUsers) * kOfAUser;
        },
        kCollected));
    ExpectEachOnce(Counts());
    EXPECT_EQ(agent->Wait(std::chrono::milliseconds(0)), std::nullopt);
}

} // namespace kel::test
