// The agent made a stranger's directory its own and worked in it: his lock kept it from collecting,
// his default ACL made requests of others writable for him, and a link in the middle of a path led
// it elsewhere.

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstring>

#include <gmock/gmock.h>

#include "e2e/ReportRoad.h"
#include "support/Acl.h"
#include "support/Stranger.h"

namespace kel::test {

namespace fs = std::filesystem;

namespace {

void SetAcl(const fs::path& path, const char* kind)
{
    if (!TSAcl(Stranger::kNobody).Set(path, kind)) {
        perror("setxattr");
    }
}

bool HasAcl(const fs::path& path, const char* kind)
{
    return getxattr(path.c_str(), kind, nullptr, 0) > 0;
}

} // namespace

typedef ReportRoad DropOfAStranger;

TEST_F(DropOfAStranger, WhichHeHasLockedIsReplacedAndWhatIsInItIsServed)
{
    const Stranger stranger([] {
        for (const fs::path& directory : {kDrop, kRebootDrop, kTaken, kDrop / ".taken"}) {
            mkdir(directory.c_str(), 0777);
            flock(open(directory.c_str(), O_RDONLY | O_DIRECTORY), LOCK_EX);
        }
    });
    Request(ALWAYS, "proc", "early");

    const auto agent = StartCollector();
    Request(ALWAYS, "proc", "late");
    Request(ALWAYS, "proc", "late", 1);

    EXPECT_TRUE(WaitForReports(3)) << agent->ErrorOutput();
    struct stat status = {};
    EXPECT_EQ(stat(kDrop.c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, geteuid());
}

TEST_F(DropOfAStranger, HasItsAclNoLonger)
{
    Sandbox::NeedOtherUsers();
    const Stranger stranger([] {
        for (const fs::path& directory : {kDrop, kRebootDrop}) {
            mkdir(directory.c_str(), 0777);
            SetAcl(directory, kAccessAcl);
            SetAcl(directory, kDefaultAcl);
        }
    });

    const auto agent = StartCollector();

    for (const fs::path& directory : {kDrop, kRebootDrop}) {
        EXPECT_TRUE(WaitUntil([&] { return ModeOf(directory) == 01733; }));
        EXPECT_FALSE(HasAcl(directory, kAccessAcl));
        EXPECT_FALSE(HasAcl(directory, kDefaultAcl));
    }
    WriteFile(kDrop / "not-yet", "");
    EXPECT_FALSE(HasAcl(kDrop / "not-yet", kAccessAcl));
}

TEST_F(DropOfAStranger, IsReplacedWhenItsRightsChange)
{
    const auto agent = StartCollector();
    SetAcl(kDrop, kDefaultAcl);
    // For a moment there is none.
    EXPECT_TRUE(WaitUntil([] { return !HasAcl(kDrop, kDefaultAcl) && fs::exists(kDrop); }))
        << agent->ErrorOutput();

    fs::permissions(kDrop, fs::perms::all);

    EXPECT_TRUE(WaitUntil([] { return ModeOf(kDrop) == 01733; })) << agent->ErrorOutput();
}

TEST_F(DropOfAStranger, ARequestThatOthersCouldWriteHasNoArtefact)
{
    Sandbox::NeedOtherUsers();
    WriteFile(m_scratch / "secret", "secret");
    const auto agent = StartCollector();
    WriteFile(m_scratch / "request", (m_scratch / "secret").string());
    SetAcl(m_scratch / "request", kAccessAcl);

    fs::rename(m_scratch / "request", kDrop / kGood);

    ASSERT_TRUE(WaitForReports(1)) << agent->ErrorOutput();
    EXPECT_EQ(Reports().at(0)["/artefact/reason"], "others could write the request");
}

// A link comes and goes under the drop's name; what it leads to is root's alone.
TEST_F(DropOfAStranger, DoesNotLeadIntoAPrivateDirectory)
{
    const fs::path secret = m_scratch / "secret";
    fs::create_directory(secret);
    fs::permissions(secret, fs::perms::owner_all);
    const auto hasNothing = [&] { return NamesIn(secret).empty(); };
    const Stranger stranger(
        [&] {
            mkdir("/tmp/mine", 0777);
            static_cast<void>(symlink(secret.c_str(), "/tmp/link") == 0);
            rename("/tmp/mine", kDrop.c_str());
            renameat2(AT_FDCWD, "/tmp/link", AT_FDCWD, kDrop.c_str(), RENAME_EXCHANGE);
        },
        true);

    for (int i = 0; i < 10; ++i) {
        const auto agent = StartCollector();
        RequestSlot("proc", std::to_string(i)); // the key is served all the same
        ASSERT_TRUE(WaitForReports(i + 1)) << agent->ErrorOutput();
    }

    EXPECT_TRUE(hasNothing());
    EXPECT_EQ(ModeOf(secret), 0700U);
}

} // namespace kel::test
