// An artefact was read with the rights of its request's group, and with more than its user's: it
// could be a file of that group, and what the kernel tells root alone of another's process.

#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include <gmock/gmock.h>

#include "e2e/ReportRoad.h"

namespace kel::test {

namespace fs = std::filesystem;

class ArtefactRights : public ReportRoad
{
protected:
    static constexpr uid_t kStranger = 65533;
    static constexpr gid_t kReaders = 65531;

    ArtefactRights()
    {
        Sandbox::NeedOtherUsers();
        fs::permissions(m_scratch / "", fs::perms(0755));
        WriteFile(m_scratch / "secret", "secret");
    }

    // A file that root may read, and a group.
    fs::path Secret(gid_t group) const
    {
        const fs::path path = m_scratch / "secret";
        EXPECT_EQ(chown(path.c_str(), 0, group), 0);
        EXPECT_EQ(chmod(path.c_str(), 0640), 0);
        return path;
    }

    // The report of a request that a user has moved in, with a group that is not the user's.
    TSReport ReportOf(const ChildProcess& agent, const fs::path& artefact, uid_t user, gid_t group)
    {
        const fs::path request = m_scratch / "request";
        WriteFile(request, artefact.string());
        EXPECT_EQ(chown(request.c_str(), user, group), 0);
        const size_t before = Ids().size();
        fs::rename(request, kDrop / kGood);
        EXPECT_TRUE(WaitForReports(before + 1)) << agent.ErrorOutput();
        return Reports().at(before);
    }

    // Some machines hide the processes of others, and some files are refused when they are read.
    static testing::Matcher<std::string> IsRefusal()
    {
        return testing::AnyOf("Permission denied", "No such file or directory");
    }

    // This machine's users and groups, as the agent sees them, with another line.
    static void Append(const fs::path& database, const std::string& line)
    {
        const std::string text = ReadFile(database);
        fs::remove(database); // a link to the machine's own
        WriteFile(database, text + line + "\n");
    }
};

TEST_F(ArtefactRights, AreNotLentByTheGroupOfTheRequest)
{
    const fs::path secret = Secret(kReaders);
    const auto agent = StartCollector();

    for (const uid_t user : {kStranger, uid_t(65534)}) {
        const TSReport report = ReportOf(*agent, secret, user, kReaders);
        EXPECT_EQ(report["/artefact/reason"], "Permission denied");
    }
    EXPECT_EQ(ReportOf(*agent, Secret(0), kStranger, 0)["/artefact/reason"], "Permission denied");
}

TEST_F(ArtefactRights, AreThoseOfTheUsersOwnGroups)
{
    Append("/etc/passwd", "kel-stranger:x:65533:65532::/nowhere:/bin/false");
    Append("/etc/group", "kel-readers:x:65531:kel-stranger");
    const auto agent = StartCollector();

    for (const gid_t group : {gid_t(65532), kReaders}) {
        const TSReport report = ReportOf(*agent, Secret(group), kStranger, 0);
        EXPECT_EQ(report["/artefact/bytes"], "6") << agent->ErrorOutput();
    }
    EXPECT_EQ(ReportOf(*agent, Secret(0), kStranger, 0)["/artefact/reason"], "Permission denied");

    fs::remove("/etc/passwd");
    fs::remove("/etc/group");
    for (const char* const name : {"passwd", "group"}) {
        fs::create_symlink(fs::path("/etc/.host") / name, fs::path("/etc") / name);
    }
}

TEST_F(ArtefactRights, AreNotRootsWithAnothersProcess)
{
    const auto agent = StartCollector();
    for (const std::string file : {"maps", "smaps", "environ", "auxv", "io", "stack"}) {
        const fs::path path = "/proc/" + std::to_string(getpid()) + "/" + file;

        const TSReport report = ReportOf(*agent, path, kStranger, 0);

        EXPECT_THAT(report["/artefact/reason"], IsRefusal()) << path;
    }
    const fs::path maps = "/proc/" + std::to_string(agent->Id()) + "/maps";
    EXPECT_THAT(ReportOf(*agent, maps, kStranger, 0)["/artefact/reason"], IsRefusal());
    EXPECT_EQ(ReportOf(*agent, "/proc/self/maps", 0, 0)["/artefact/file"], "artefact");
}

// What a reader has is nobody else's of the same user, and it leaves nothing behind.
TEST_F(ArtefactRights, AreGivenUpForGood)
{
    const auto agent = StartCollector();

    const TSReport status = ReportOf(*agent, "/proc/self/status", kStranger, kReaders);
    const TSReport limits = ReportOf(*agent, "/proc/self/limits", kStranger, kReaders);

    const std::string told = ReadFile(status.m_directory / "artefact");
    for (const char* const line :
         {"\nUid:\t65533\t65533\t65533\t65533\n", "\nGid:\t65534\t65534\t65534\t65534\n",
          "\nGroups:\t \n", "\nCapPrm:\t0000000000000000\n", "\nCapEff:\t0000000000000000\n",
          "\nCapInh:\t0000000000000000\n", "\nCapAmb:\t0000000000000000\n", "\nNoNewPrivs:\t1\n",
          "\nThreads:\t1\n", "\nSigBlk:\t0000000000000000\n", "\nSigIgn:\t0000000000000000\n"}) {
        EXPECT_THAT(told, testing::HasSubstr(line));
    }
    const std::string most = ReadFile(limits.m_directory / "artefact");
    EXPECT_THAT(most, testing::ContainsRegex("Max core file size +0 +0"));
    EXPECT_THAT(most, testing::ContainsRegex("Max data size +0 +0"));
    EXPECT_THAT(most, testing::ContainsRegex("Max processes +0 +0"));
    EXPECT_GT(ReaderServerOf(agent->Id()), 0);
    EXPECT_TRUE(WaitUntil([&] { return ReadersOf(agent->Id()).empty(); }));
}

} // namespace kel::test
