// kelctl doctor: what it finds in the files of a machine. Each check is seen good and not good.

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <fstream>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "e2e/KelctlTest.h"
#include "requests/TakenName.h"
#include "support/Acl.h"
#include "support/Mount.h"
#include "support/Stranger.h"
#include "support/WaitUntil.h"

namespace kel::test {

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

const fs::path kTaken = "/tmp/.kel_NDF.taken";
const fs::path kTmpfiles = "/etc/tmpfiles.d";
const fs::path kPolicy = "/opt/usr/share/dlog/default_kel_policy.xml";
constexpr char kRequest[] = "player-decoder-ONCE_ONLY.log";
constexpr fs::perms kDropMode = fs::perms(01733);
constexpr time_t kAYear = 366 * 24 * 3600;

void Write(const fs::path& file, const std::string& text)
{
    fs::create_directories(file.parent_path());
    std::ofstream(file) << text;
}

void Date(const fs::path& file, time_t time)
{
    const timespec times[2] = {{time, 0}, {time, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, file.c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
}

// Of the sandbox, which goes with this process.
void ResizeTemporary(const std::string& size)
{
    ASSERT_EQ(mount(nullptr, "/tmp", nullptr, MS_REMOUNT | MS_NOSUID | MS_NODEV,
                    ("size=" + size).c_str()),
              0)
        << std::strerror(errno);
}

// What the doctor says of one machine.
struct TSDiagnosis
{
    json m_findings;

    // Whether a check has found this, and in these words.
    bool Has(const std::string& check, const std::string& health, const std::string& what,
             const std::string& advice = "") const
    {
        for (const json& one : m_findings) {
            if (one.at("check") == check && one.at("health") == health
                && one.at("what").get<std::string>().find(what) != std::string::npos
                && one.at("advice").get<std::string>().find(advice) != std::string::npos
                && (health == "good") == (one.at("advice") == "")) {
                return true;
            }
        }
        return false;
    }

    // Whether all that a check has found is good, and it has found something.
    bool IsGood(const std::string& check) const
    {
        size_t good = 0;
        size_t all = 0;
        for (const json& one : m_findings) {
            all += one.at("check") == check ? 1 : 0;
            good += one.at("check") == check && one.at("health") == "good" ? 1 : 0;
        }
        return all > 0 && good == all;
    }
};

std::ostream& operator<<(std::ostream& stream, const TSDiagnosis& diagnosis)
{
    return stream << diagnosis.m_findings.dump(2);
}

#define EXPECT_FOUND(diagnosis, ...) EXPECT_TRUE((diagnosis).Has(__VA_ARGS__)) << (diagnosis)
#define EXPECT_GOOD(diagnosis, check) EXPECT_TRUE((diagnosis).IsGood(check)) << (diagnosis)

} // namespace

// A machine on which all is well.
class DoctorFiles : public KelctlTest
{
protected:
    DoctorFiles()
    {
        m_Clear();
        for (const fs::path& drop : {kDrop, kRebootDrop}) {
            fs::permissions(drop, kDropMode);
        }
        fs::create_directory(kTaken);
        fs::permissions(kTaken, fs::perms::owner_all);
        fs::create_directory(kTmpfiles);
        fs::copy(fs::path(KEL_PACKAGING) / "tmpfiles.d/kel-agent.conf", kTmpfiles);
        Write(kPolicy, "<policy/>");
        SetKernelLog("[    0.000000] a line\n");
    }
    ~DoctorFiles() override { m_Clear(); }

    static TSDiagnosis Diagnose(const TWords& before = {})
    {
        TWords command = before;
        for (const std::string word :
             {KEL_CTL, "doctor", "--json", "--state-dir", kState.c_str()}) {
            command.push_back(word);
        }
        const TSFinished ended = RunProgram(command, Environment());
        EXPECT_TRUE(ended.m_exit == 0 || ended.m_exit == 1) << Text(ended);
        EXPECT_EQ(ended.m_errorOutput, "");
        return {json::parse(ended.m_output)};
    }

    // As somebody else, who may see less.
    static TSDiagnosis DiagnoseAsNobody()
    {
        Sandbox::NeedOtherUsers();
        return Diagnose({"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "--"});
    }

private:
    static void m_Clear()
    {
        fs::remove_all(kTaken);
        fs::remove_all(kTmpfiles); // at first a link to the machine's
        fs::permissions("/tmp", fs::perms(01777));
    }
};

TEST_F(DoctorFiles, OfAMachineOnWhichAllIsWellAreGood)
{
    const TSDiagnosis diagnosis = Diagnose();

    for (const std::string check :
         {"drop", "requests", "taken", "junk", "cut names", "collisions", "clock", "tmpfiles.d",
          "state", "shares", "kernel log", "policy files", "agent's policy"}) {
        EXPECT_GOOD(diagnosis, check);
    }
    EXPECT_FOUND(diagnosis, "drop", "good", "/tmp/kel_NDF is root's, has the mode 1733");
    EXPECT_FOUND(diagnosis, "drop", "good", "/tmp/kel_NDF_reboot is root's, has the mode 1733");
    EXPECT_FOUND(diagnosis, "requests", "good", "no request waits");
    EXPECT_FOUND(diagnosis, "policy files", "good", kPolicy.string() + " applies: there is no");
    EXPECT_FOUND(diagnosis, "tmpfiles.d", "good", "/etc/tmpfiles.d/kel-agent.conf");
}

TEST_F(DoctorFiles, TellWhatIsWrongWithADropDirectory)
{
    const auto isFault = [](const std::string& what, const std::string& advice) {
        const TSDiagnosis diagnosis = Diagnose();
        EXPECT_FOUND(diagnosis, "drop", "fault", "/tmp/kel_NDF " + what, advice);
        EXPECT_FOUND(diagnosis, "drop", "good", "/tmp/kel_NDF_reboot is root's");
    };

    fs::permissions(kDrop, fs::perms(0777));
    isFault("has the mode 0777, and not 1733", "start an agent");
    fs::permissions(kDrop, kDropMode);

    ASSERT_TRUE(TSAcl(0).Set(kDrop, kDefaultAcl)) << std::strerror(errno);
    isFault("has an ACL", "start an agent");
    fs::remove(kDrop);

    isFault("is missing: no request can be left there", "systemctl start kel-agent");

    fs::create_directory_symlink("/etc", kDrop);
    isFault("is no directory", "start an agent");
    fs::remove(kDrop);

    ASSERT_EQ(mkfifo(kDrop.c_str(), 0666), 0);
    isFault("is no directory", "start an agent");
    fs::remove(kDrop);

    const Mount mounted(kDrop, "mode=1733");
    isFault("has something mounted on it", "umount /tmp/kel_NDF");
}

TEST_F(DoctorFiles, TellWhoseADropDirectoryIs)
{
    Sandbox::NeedOtherUsers();
    ASSERT_EQ(chown(kDrop.c_str(), Stranger::kNobody, 0), 0);

    const TSDiagnosis diagnosis = Diagnose();

    EXPECT_FOUND(diagnosis, "drop", "fault", "/tmp/kel_NDF belongs to user 65534",
                 "start an agent");
}

TEST_F(DoctorFiles, TellThatADirectoryWithoutTheStickyBitIsNotUsed)
{
    fs::permissions("/tmp", fs::perms(0777));

    const TSDiagnosis diagnosis = Diagnose();

    EXPECT_FOUND(diagnosis, "drop", "fault", "/tmp has no sticky bit", "chmod 1777 /tmp");
}

TEST_F(DoctorFiles, TellHowLongTheOldestRequestHasWaited)
{
    Write(kDrop / kRequest, "NO_PATH");
    Write(kRebootDrop / kRequest, "NO_PATH");

    EXPECT_FOUND(Diagnose(), "requests", "good", "2 requests wait in the drop directories");
    EXPECT_TRUE(WaitUntil([] {
        return Diagnose().Has("requests", "warning",
                              "2 requests wait in the drop directories, the oldest, "
                              "player-decoder-ONCE_ONLY.log in /tmp/kel_NDF",
                              "is an agent running?");
    }));
}

// Whoever has left it may date it as he likes.
TEST_F(DoctorFiles, DoNotBelieveTheDateOfARequest)
{
    Write(kDrop / kRequest, "NO_PATH");
    Date(kDrop / kRequest, time(nullptr) - kAYear);

    const TSDiagnosis diagnosis = Diagnose();

    EXPECT_FOUND(diagnosis, "requests", "good", "1 request waits");
}

TEST_F(DoctorFiles, TellOfRequestsThatWereTakenAndHaveNoReport)
{
    const auto take = [](time_t when) {
        const agent::TSTakenName name
            = {static_cast<uint64_t>(when) * 1'000'000'000, 1, false, kRequest};
        Write(kTaken / name.Text(), "NO_PATH");
    };
    fs::create_directory(kTaken / "trash");
    take(time(nullptr));
    EXPECT_FOUND(Diagnose(), "taken", "good", "1 request that was taken waits for its report");

    take(time(nullptr) - 2 * 3600 - 60);
    EXPECT_FOUND(Diagnose(), "taken", "warning",
                 "2 requests that were taken wait for their reports, the oldest, "
                 "player-decoder-ONCE_ONLY.log, for 2 h",
                 "journalctl");
}

TEST_F(DoctorFiles, TellOfWhatIsNoRequest)
{
    Write(kDrop / "evil\033[2J.txt", "");
    Write(kRebootDrop / "player-decoder-NEVER.log", "");

    const TSDiagnosis diagnosis = Diagnose();
    const TSFinished words = RunProgram({KEL_CTL, "doctor", "--state-dir", kState}, Environment());

    EXPECT_FOUND(diagnosis, "junk", "warning", "2 things in the drop directories are no requests",
                 "kelctl report");
    EXPECT_FOUND(diagnosis, "requests", "good", "no request waits");
    EXPECT_THAT(words.m_output, testing::Not(testing::HasSubstr("\033")));
}

TEST_F(DoctorFiles, TellOfNamesThatWereCut)
{
    Write(kDrop / (std::string(100, 'p') + "-" + std::string(12, 't')), "NO_PATH");

    const TSDiagnosis diagnosis = Diagnose();

    EXPECT_FOUND(diagnosis, "cut names", "warning", "1 request has a name that was too long",
                 "shorter names");
    EXPECT_GOOD(diagnosis, "junk");
    EXPECT_GOOD(diagnosis, "collisions");
}

TEST_F(DoctorFiles, TellOfANameThatTwoRequestsWouldHave)
{
    Write(kDrop / "dbus-daemon-dbus-daemon-ALWAYS.log", "NO_PATH"); // one name, twice
    EXPECT_GOOD(Diagnose(), "collisions");

    Write(kDrop / "media-player-decoder-ALWAYS.log", "NO_PATH");
    EXPECT_FOUND(Diagnose(), "collisions", "warning",
                 "1 request has a name that is another's, too, such as "
                 "media-player-decoder-ALWAYS.log in /tmp/kel_NDF",
                 "without a hyphen");
}

TEST_F(DoctorFiles, TellOfWhatHasTheNameOfARequest)
{
    const auto isFault = [] {
        const TSDiagnosis diagnosis = Diagnose();
        EXPECT_FOUND(diagnosis, "collisions", "fault",
                     "1 name of a request is taken by what is none, such as "
                     "player-decoder-ONCE_ONLY.log in /tmp/kel_NDF",
                     "start an agent");
        EXPECT_FOUND(diagnosis, "requests", "good", "no request waits");
        fs::remove(kDrop / kRequest);
    };

    fs::create_directory(kDrop / kRequest);
    isFault();
    fs::create_symlink("/etc/passwd", kDrop / kRequest);
    isFault();
    ASSERT_EQ(mkfifo((kDrop / kRequest).c_str(), 0666), 0);
    isFault();
    Write("/tmp/other", "");
    fs::create_hard_link("/tmp/other", kDrop / kRequest);
    isFault();
    fs::remove("/tmp/other");
}

TEST_F(DoctorFiles, TellOfRequestsAndReportsOfTheFuture)
{
    json report = WholeReport(7);
    report["time"] = "2026-01-02T03:04:05.000Z";
    WriteReport("0000000007", report);
    Write(kDrop / kRequest, "NO_PATH");
    EXPECT_GOOD(Diagnose(), "clock");

    report["time"] = "2199-01-02T03:04:05.000Z";
    WriteReport("0000000007", report);
    Date(kDrop / kRequest, time(nullptr) + kAYear);
    const TSDiagnosis diagnosis = Diagnose();

    EXPECT_FOUND(diagnosis, "clock", "warning",
                 "1 report is of the future, such as number 7 of 2199-01-02T03:04:05.000Z",
                 "timedatectl");
    EXPECT_FOUND(diagnosis, "clock", "warning",
                 "1 request that waits is of the future, such as player-decoder-ONCE_ONLY.log in "
                 "/tmp/kel_NDF, of 20",
                 "timedatectl");
}

TEST_F(DoctorFiles, TellThatTheDropDirectoriesAreNotMadeAtBoot)
{
    const fs::path file = kTmpfiles / "kel-agent.conf";

    const std::string reboot = "d /tmp/kel_NDF_reboot 1733 root root -\nx /tmp/kel_NDF_reboot\n";
    for (const std::string line :
         {"d /tmp/kel_NDF 1777 root root -", "d /tmp/kel_NDF 1733 daemon -",
          "f /tmp/kel_NDF 1733 root root -", "x /tmp/kel_NDF"}) {
        Write(file, reboot + "x /tmp/kel_NDF\n" + line + "\n");
        EXPECT_FOUND(Diagnose(), "tmpfiles.d", "warning",
                     "does not make /tmp/kel_NDF root's, of the mode 1733",
                     "put the file that was installed");
    }

    Write(file, "d /tmp/kel_NDF 1733 root root -\nx /tmp/kel_NDF\n");
    EXPECT_FOUND(Diagnose(), "tmpfiles.d", "warning", "does not make /tmp/kel_NDF_reboot",
                 "put the file that was installed");

    Write(file, "d /tmp/kel_NDF 1733 root root -\nd /tmp/kel_NDF_reboot 1733 root root -\n");
    EXPECT_FOUND(Diagnose(), "tmpfiles.d", "warning", "lets the cleaner of /tmp take requests",
                 "put the file that was installed");

    fs::remove(file);
    fs::create_symlink("/dev/null", file);
    EXPECT_FOUND(Diagnose(), "tmpfiles.d", "warning", "is masked", "rm " + file.string());

    fs::remove(file);
    if (!fs::exists("/usr/lib/tmpfiles.d/kel-agent.conf")
        && !fs::exists("/usr/local/lib/tmpfiles.d/kel-agent.conf")) {
        EXPECT_FOUND(Diagnose(), "tmpfiles.d", "warning", "no request can be left", "install");
    }
}

TEST_F(DoctorFiles, TellWhatIsWrongWithTheStateDirectory)
{
    fs::permissions(kState, fs::perms(0777));
    EXPECT_FOUND(Diagnose(), "state", "fault", "can be written to by others than root", "chmod");

    fs::permissions(kState, fs::perms(0755));
    Write(kReports, "no directory");
    EXPECT_FOUND(Diagnose(), "state", "fault", "has a directory of reports that is no directory");
    fs::remove_all(kState);

    EXPECT_FOUND(Diagnose(), "state", "fault", "/tmp/the state cannot be used: No such file",
                 "install -d");
    EXPECT_EQ(
        RunProgram({KEL_CTL, "doctor", "--json", "--state-dir", kState}, Environment()).m_exit, 1);
}

TEST_F(DoctorFiles, TellWhoseTheStateDirectoryIs)
{
    Sandbox::NeedOtherUsers();
    ASSERT_EQ(chown(kState.c_str(), Stranger::kNobody, 0), 0);

    const TSDiagnosis diagnosis = Diagnose();

    EXPECT_FOUND(diagnosis, "state", "fault", "belongs to user 65534", "chown root");
}

TEST_F(DoctorFiles, TellHowMuchRoomThereIs)
{
    {
        const Mount large(kState, "mode=755,size=2g");
        EXPECT_FOUND(Diagnose(), "room", "good", "2 GiB are free in /tmp/the state");
    }
    {
        const Mount small(kState, "mode=755,size=32m");
        EXPECT_FOUND(Diagnose(), "room", "warning", "32 MiB are free in /tmp/the state",
                     "--max-bytes");
    }
    {
        const Mount tiny(kState, "mode=755,size=512k");
        EXPECT_FOUND(Diagnose(), "room", "fault", "512 KiB are free in /tmp/the state",
                     "kelctl reports --remove");
    }
    {
        const Mount withoutFiles(kState, "mode=755,nr_inodes=1");
        EXPECT_FOUND(Diagnose(), "room", "fault", "no file can be made in /tmp/the state");
    }
    const Mount fixed(kState, "mode=755,ro");
    EXPECT_FOUND(Diagnose(), "room", "fault", "/tmp/the state is read-only", "remount");
}

TEST_F(DoctorFiles, TellThatNoRequestHasRoom)
{
    EXPECT_FOUND(Diagnose(), "room", "good", "are free in /tmp");

    struct statvfs room;
    ASSERT_EQ(statvfs("/tmp", &room), 0);
    ResizeTemporary(std::to_string((room.f_blocks - room.f_bfree) * room.f_frsize));
    const TSDiagnosis diagnosis = Diagnose();
    ResizeTemporary("50%");

    EXPECT_FOUND(diagnosis, "room", "fault", "/tmp is full or read-only: no request can be left",
                 "df /tmp");
}

TEST_F(DoctorFiles, TellWhoHoldsHowManyReports)
{
    for (int id = 1; id <= 5; ++id) {
        json report = WholeReport(id);
        report["request"]["user"] = id < 4 ? json(1000) : id < 5 ? json(0) : json(nullptr);
        WriteReport("000000000" + std::to_string(id), report);
    }
    TSDiagnosis diagnosis = Diagnose();
    EXPECT_FOUND(diagnosis, "shares", "good", "5 reports: 3 of user 1000 with ");
    EXPECT_FOUND(diagnosis, "shares", "good", "1 of user 0 with ");
    EXPECT_FOUND(diagnosis, "shares", "good", "1 of an unknown user with ");

    WriteText("0000000006", "no JSON");
    WriteText("0000000009", R"({"request": [4], "time": 5})");
    fs::create_directory(kReports / "0000000007");
    ASSERT_EQ(mkfifo((kReports / "0000000007/report.json").c_str(), 0666), 0);
    fs::create_directory_symlink(kReports / "0000000001", kReports / "0000000008");
    diagnosis = Diagnose();
    EXPECT_FOUND(diagnosis, "shares", "warning", "3 reports of 9 cannot be read, such as 000000000",
                 "kelctl reports --remove");
    EXPECT_FOUND(diagnosis, "shares", "good", "5 of an unknown user with ");
}

TEST_F(DoctorFiles, TellThatTheRoomForReportsIsUsedUp)
{
    for (int id = 1; id <= 4000; ++id) {
        const std::string digits = std::to_string(id);
        WriteText(std::string(10 - digits.size(), '0') + digits, "{}");
    }

    const TSDiagnosis diagnosis = Diagnose();

    EXPECT_FOUND(diagnosis, "shares", "warning", "4000 reports", "--max-reports");
}

TEST_F(DoctorFiles, TellWhetherTheKernelLogCanBeRead)
{
    SetKernelLog("");
    EXPECT_FOUND(Diagnose(), "kernel log", "warning", "dmesg gives no line: ", "cleared");

    SetDmesg("echo 'dmesg: read kernel buffer failed: Operation not permitted' >&2; exit 1");
    EXPECT_FOUND(Diagnose(), "kernel log", "warning",
                 "dmesg fails: dmesg: read kernel buffer failed: Operation not permitted",
                 "dmesg_restrict");

    SetDmesg("exec sleep 1000");
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FOUND(Diagnose(), "kernel log", "warning", "no line within 1000 ms", "run dmesg");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));

    ChildProcess::TEnvironment nothing = Environment();
    nothing["PATH"] = "/nowhere";
    const TSFinished ended
        = RunProgram({KEL_CTL, "doctor", "--json", "--state-dir", kState}, nothing);
    const TSDiagnosis diagnosis{json::parse(ended.m_output)};
    EXPECT_FOUND(diagnosis, "kernel log", "warning", "there is no dmesg", "install");
}

// On a machine that is busy with tests the class has its turn at last.
TEST_F(DoctorFiles, TellWhetherThereIsAnIdleClass)
{
    EXPECT_TRUE(WaitUntil(
        [] { return Diagnose().Has("idle class", "good", "a thread of the idle class runs"); },
        std::chrono::seconds(100)));

    const TSDiagnosis without = Diagnose({KEL_NOT_IDLE});
    EXPECT_FOUND(without, "idle class", "warning", "does not let a thread into the idle class",
                 "sched_setscheduler");
}

TEST_F(DoctorFiles, TellWhichPolicyFileWins)
{
    const fs::path high = "/opt/usr/share/dlog/yol_kel_policy_high.xml";
    Write(high, "<policy/>");
    EXPECT_FOUND(Diagnose(), "policy files", "good",
                 high.string() + " applies: a high variant comes before the others");

    Write(kDebugImage, "");
    EXPECT_FOUND(Diagnose(), "policy files", "good", "on this debug image a USB device's");

    fs::permissions(high, fs::perms(0600));
    EXPECT_FOUND(Diagnose(), "policy files", "fault", "can be read by its owner alone",
                 "kelctl policy");

    Write(high, "");
    EXPECT_FOUND(Diagnose(), "policy files", "fault", "is empty", "kelctl policy");

    fs::remove(high);
    fs::create_directory(high);
    EXPECT_FOUND(Diagnose(), "policy files", "fault", "is no file", "kelctl policy");

    fs::remove_all("/opt/usr");
    EXPECT_FOUND(Diagnose(), "policy files", "warning", "the device has no policy file",
                 "install one");
}

TEST_F(DoctorFiles, TellWhetherTheAgentHasAPolicy)
{
    EXPECT_FOUND(Diagnose(), "agent's policy", "good", "no application has set a policy");

    Write(kState / "policy.xml", "<policy/>");
    EXPECT_FOUND(Diagnose(), "agent's policy", "good", "/tmp/the state/policy.xml was set at 20");

    fs::remove(kState / "policy.xml");
    fs::create_symlink("/etc/passwd", kState / "policy.xml");
    EXPECT_FOUND(Diagnose(), "agent's policy", "fault", "/tmp/the state/policy.xml cannot be read",
                 "kelctl set-policy");
}

// Neither a fault nor good is what a user cannot see.
TEST_F(DoctorFiles, TellAnOrdinaryUserWhatOnlyRootMaySee)
{
    fs::create_directory(kReports);
    Write(kState / "policy.xml", "<policy/>");
    fs::permissions(kState / "policy.xml", fs::perms(0600));
    fs::permissions(kReports, fs::perms(0700));
    fs::permissions(kTools / "dmesg", fs::perms(0755));
    SetDmesg("exit 1");
    fs::permissions(kTools / "dmesg", fs::perms(0755));

    const TSDiagnosis diagnosis = DiagnoseAsNobody();

    EXPECT_GOOD(diagnosis, "drop");
    EXPECT_GOOD(diagnosis, "state");
    for (const std::string check : {"requests", "shares", "kernel log", "agent's policy"}) {
        EXPECT_FOUND(diagnosis, check, "warning", "only root may see", "sudo kelctl doctor");
    }
    for (const json& one : diagnosis.m_findings) { // there is no bus, either
        EXPECT_TRUE(one.at("health") != "fault" || one.at("check") == "bus"
                    || one.at("check") == "bus policy")
            << one;
    }
}

// It would wait for good, or for as long as the system lets a lease break.
TEST_F(DoctorFiles, WaitForNobodyWhoHasLeftSomething)
{
    const std::string file = kDrop / kRequest;
    const Stranger stranger([file] {
        const int own = open(file.c_str(), O_RDWR | O_CREAT, 0644);
        static_cast<void>(fcntl(own, F_SETLEASE, F_WRLCK) == 0);
    });
    ASSERT_EQ(mkfifo((kState / "policy.xml").c_str(), 0666), 0);

    const auto start = std::chrono::steady_clock::now();
    const TSDiagnosis diagnosis = Diagnose();

    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
    EXPECT_FOUND(diagnosis, "requests", "good", "1 request waits");
    EXPECT_FOUND(diagnosis, "agent's policy", "fault", "cannot be read");
}

// The agent that runs has put right what there is to be put right.
class DoctorOfAnAgentsFiles : public AgentRoad
{
};

TEST_F(DoctorOfAnAgentsFiles, FindsThemGood)
{
    const auto agent = StartAgent();
    ASSERT_TRUE(WaitUntil([this] { return AgentId().has_value(); }));
    ASSERT_EQ(Kelctl({"report", "--process", "player", "--wait", "--state-dir", m_stateDir}).m_exit,
              0);

    const TSFinished ended = Kelctl({"doctor", "--json", "--state-dir", m_stateDir});

    const TSDiagnosis diagnosis{json::parse(ended.m_output)};
    for (const std::string check :
         {"drop", "requests", "taken", "junk", "cut names", "collisions", "clock", "state"}) {
        EXPECT_GOOD(diagnosis, check);
    }
    EXPECT_FOUND(diagnosis, "shares", "good", "1 report: 1 of user " + std::to_string(geteuid()));
}

} // namespace kel::test
