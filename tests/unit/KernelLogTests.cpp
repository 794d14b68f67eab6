#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <kel/KELKernelLog.h>

#include "StandardOutput.h"
#include "support/ChildProcess.h"
#include "support/Mount.h"
#include "support/Sandbox.h"
#include "support/WaitUntil.h"

namespace {

std::atomic<bool> reallyIdle{false};
std::atomic<int> schedulingChanges{0};

} // namespace

// In place of the C library's. A collector in the idle class makes no headway on a busy machine:
// it gets there only where a test looks at that.
extern "C" __attribute__((visibility("default"))) int
sched_setscheduler(pid_t id, int policy, const struct sched_param* parameters) noexcept
{
    ++schedulingChanges;
    return reallyIdle ? static_cast<int>(syscall(SYS_sched_setscheduler, id, policy, parameters))
                      : 0;
}

namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;

typedef std::vector<std::string> TLines;

const std::string lastSharedAtLoad = lastShared; // before any test has set it

const fs::path kSnapshot = "/tmp/Device_Tracker.log";
const fs::path kTools = "/tmp/tools";
const fs::path kKernel = "/tmp/kernel-log"; // what the tests' own dmesg shows

std::string Join(const TLines& lines)
{
    std::string text;
    for (const std::string& line : lines) {
        text += line + "\n";
    }
    return text;
}

TLines Numbered(const std::string& word, size_t count)
{
    TLines lines;
    for (size_t i = 0; i < count; ++i) {
        lines.push_back(word + std::to_string(i));
    }
    return lines;
}

class KernelLog : public kel::test::SandboxTest
{
protected:
    void SetUp() override
    {
        m_path = getenv("PATH");
        fs::remove_all(kSnapshot);
        fs::remove_all(kTools);
        fs::create_directory(kTools);
        std::ofstream(kTools / "dmesg") << "#!/bin/sh\nexec cat " << kKernel.string() << "\n";
        fs::permissions(kTools / "dmesg", fs::perms::owner_all);
        setenv("PATH", (kTools.string() + ":/usr/bin:/bin").c_str(), 1);
        lastShared = " ";
        SetKernelLog("");
    }
    void TearDown() override
    {
        setenv("PATH", m_path.c_str(), 1);
        for (const fs::path& path : {kSnapshot, kTools, kKernel}) {
            fs::remove_all(path);
        }
        reallyIdle = false;
    }

    // At once: a dmesg that runs sees the old text or the new one.
    static void SetKernelLog(const std::string& text)
    {
        std::ofstream("/tmp/kernel-log.new", std::ios::binary) << text;
        fs::rename("/tmp/kernel-log.new", kKernel);
    }
    static void SetKernelLog(const TLines& lines) { SetKernelLog(Join(lines)); }

    // Nothing when there was nothing new; the caller's lines must be as they were then. And
    // nothing is printed but what the test expects.
    static std::optional<TLines> Dump(const std::string& printed = "")
    {
        const TLines before = {"what", "was", "there"};
        TLines lines = before;
        bool delivered = false;
        const std::string output
            = StandardOutputOf([&] { delivered = DumpKernelLog(lines, DUMP_CONDITION_NONE); });
        EXPECT_EQ(output, printed);
        EXPECT_EQ(pthread_mutex_trylock(&DTLock), 0) << "it is free after every call";
        pthread_mutex_unlock(&DTLock);
        if (!delivered) {
            EXPECT_EQ(lines, before);
            return std::nullopt;
        }
        return lines;
    }

private:
    std::string m_path;
};

TEST_F(KernelLog, TheFirstCallDeliversEverythingAndALaterOneWhatIsNew)
{
    SetKernelLog(TLines{"one", "two"});
    EXPECT_EQ(Dump(), (TLines{"one", "two"}));
    EXPECT_EQ(Dump(), std::nullopt);
    EXPECT_EQ(lastShared, "two");

    SetKernelLog(TLines{"one", "two", "three", "four"});
    EXPECT_EQ(Dump(), (TLines{"three", "four"}));
    EXPECT_EQ(Dump(), std::nullopt);

    // The last line scrolls out: everything is new.
    SetKernelLog(TLines{"seven", "eight"});
    EXPECT_EQ(Dump(), (TLines{"seven", "eight"}));
}

TEST_F(KernelLog, OfRepeatedLinesTheFirstCountsAsTheOneDelivered)
{
    SetKernelLog(TLines{"one", "same"});
    Dump();

    SetKernelLog(TLines{"one", "same", "two", "same", "three"});

    EXPECT_EQ(Dump(), (TLines{"two", "same", "three"}));

    SetKernelLog(TLines{"three", "three"});

    EXPECT_EQ(Dump(), TLines{"three"}) << "delivered again rather than lost";
    EXPECT_EQ(Dump(), TLines{"three"});
}

TEST_F(KernelLog, OnlyWholeLinesAreCompared)
{
    SetKernelLog(TLines{"two"});
    Dump();

    SetKernelLog(TLines{"two and a half", "a two", "two ", "Two"});

    EXPECT_EQ(Dump(), (TLines{"two and a half", "a two", "two ", "Two"}));
}

TEST_F(KernelLog, TheLast512LinesAreReadAndEmptyOnesNotDelivered)
{
    const TLines lines = Numbered("line ", 513);
    SetKernelLog(lines);
    EXPECT_EQ(Dump(), TLines(lines.begin() + 1, lines.end()));

    SetKernelLog("lost\n\n" + Join(Numbered("a", 255)) + std::string(256, '\n'));
    EXPECT_EQ(Dump(), Numbered("a", 255));

    SetKernelLog("\n\n\n");
    EXPECT_EQ(Dump(), std::nullopt);
}

TEST_F(KernelLog, LongLinesAndOddBytesComeAsTheyAre)
{
    const TLines lines
        = {std::string(10240, 'x'), "zero \0 byte"s, "\0"s, "NULL", "\r", "\xff\xfe", "  ", "%s%n"};
    SetKernelLog(lines);

    EXPECT_EQ(Dump(), lines);

    SetKernelLog(TLines{lines[0] + "y", lines[0], "%s%n", "new"});

    EXPECT_EQ(Dump(), TLines{"new"});

    SetKernelLog("new\nwithout a newline"s);
    EXPECT_EQ(Dump(), TLines{"without a newline"});
}

// A space is what is remembered before the first call.
TEST_F(KernelLog, ALineOfOneSpaceHidesWhatIsBeforeItAtFirst)
{
    EXPECT_EQ(lastSharedAtLoad, " ");
    SetKernelLog(TLines{"one", " ", "two"});

    EXPECT_EQ(Dump(), TLines{"two"});
}

TEST_F(KernelLog, AnyConditionDoesTheSameAndTheLinesAreReplaced)
{
    for (const int condition : {-1, 0, 1, 4711}) {
        lastShared = " ";
        SetKernelLog(TLines{"one"});
        TLines lines = Numbered("old ", 1000);

        EXPECT_TRUE(DumpKernelLog(lines, static_cast<DumpCondition>(condition)));
        EXPECT_EQ(lines, TLines{"one"});
    }
}

TEST_F(KernelLog, WithoutDmesgThereIsNothingNew)
{
    fs::remove(kTools / "dmesg");
    fs::create_symlink("/usr/bin/tail", kTools / "tail");
    setenv("PATH", kTools.c_str(), 1);
    std::ofstream(kSnapshot) << "an old snapshot\n";

    const std::string errors = StandardErrorOf([] { EXPECT_EQ(Dump(), std::nullopt); });

    EXPECT_NE(errors.find("dmesg"), std::string::npos) << "the shell's own words";

    EXPECT_TRUE(fs::is_empty(kSnapshot));
    EXPECT_EQ(lastShared, " ");
}

TEST_F(KernelLog, WithoutAShellTheLastSnapshotIsRead)
{
    std::ofstream(kSnapshot) << "an old snapshot\n";
    const kel::test::Mount noShell = kel::test::Mount::Bind("/dev/null", "/bin/sh");

    EXPECT_EQ(Dump(), TLines{"an old snapshot"});

    EXPECT_EQ(runShell("exit 0"), W_EXITCODE(1, 0));
}

TEST_F(KernelLog, InAnUnwritableDirectoryTheLastSnapshotIsRead)
{
    SetKernelLog(TLines{"one"});
    const auto readOnly = [](unsigned long flag) {
        return mount(nullptr, "/tmp", nullptr, MS_REMOUNT | MS_NOSUID | MS_NODEV | flag, nullptr);
    };
    StandardErrorOf([&] {
        ASSERT_EQ(readOnly(MS_RDONLY), 0);
        EXPECT_EQ(Dump(), std::nullopt) << "and nothing is printed";
        ASSERT_EQ(readOnly(0), 0);

        std::ofstream(kSnapshot) << "an old snapshot\n";
        ASSERT_EQ(readOnly(MS_RDONLY), 0);
        EXPECT_EQ(Dump(), TLines{"an old snapshot"});
        ASSERT_EQ(readOnly(0), 0);
    });
}

TEST_F(KernelLog, ASnapshotThatCannotBeReadIsSaidWithoutANewline)
{
    SetKernelLog(TLines{"one"});
    fs::create_directory(kSnapshot);

    StandardErrorOf([] { EXPECT_EQ(Dump("Error Opening File Device_Tracker.log"), std::nullopt); });

    EXPECT_EQ(lastShared, " ");
}

// The first opening of a pipe for writing returns when dmesg has opened it for reading.
TEST_F(KernelLog, TheLockIsHeldWhileTheSnapshotIsMade)
{
    fs::remove(kKernel);
    ASSERT_EQ(mkfifo(kKernel.c_str(), 0600), 0);
    std::optional<TLines> lines;

    std::thread collector([&] { lines = Dump(); });
    std::ofstream pipe(kKernel);
    const int result = pthread_mutex_trylock(&DTLock);
    pipe << "one\n";
    pipe.close();
    collector.join();

    EXPECT_EQ(result, EBUSY);
    EXPECT_EQ(lines, TLines{"one"});
}

TEST_F(KernelLog, TheRealDmesgsLinesAreDelivered)
{
    setenv("PATH", "/usr/sbin:/usr/bin:/sbin:/bin", 1);
    const auto readReal = [] {
        TLines lines;
        std::istringstream text(kel::test::RunProgram({"dmesg"}).m_output);
        for (std::string line; std::getline(text, line);) {
            if (!line.empty()) {
                lines.push_back(line);
            }
        }
        return lines;
    };
    const TLines before = readReal();
    if (before.empty()) {
        GTEST_SKIP() << "this machine keeps its kernel log from us, or has none";
    }
    TLines lines;

    ASSERT_TRUE(DumpKernelLog(lines, DUMP_CONDITION_NONE));

    // The kernel's log may grow at any time: the lines are in what came before, but for the newest.
    const TLines after = readReal();
    EXPECT_LE(lines.size(), 512u);
    EXPECT_NE(std::find(lines.begin(), lines.end(), before.back()), lines.end());
    for (const std::string& line : lines) {
        EXPECT_NE(std::find(after.begin(), after.end(), line), after.end()) << line;
    }
}

TEST_F(KernelLog, ConcurrentCallsDeliverEachLineOnceInTotal)
{
    std::mutex mutex;
    std::map<std::string, int> deliveries; // guarded by mutex
    std::atomic<bool> stop{false};
    std::vector<std::thread> collectors;
    const auto collect = [&] {
        TLines lines;
        if (DumpKernelLog(lines, DUMP_CONDITION_NONE)) {
            const std::lock_guard<std::mutex> lock(mutex);
            for (const std::string& line : lines) {
                ++deliveries[line];
            }
        }
    };
    const auto count = [&] {
        const std::lock_guard<std::mutex> lock(mutex);
        return deliveries.size();
    };
    for (int i = 0; i < 4; ++i) {
        collectors.emplace_back([&] {
            while (!stop) {
                collect();
            }
        });
    }

    constexpr size_t kRounds = 5;
    constexpr size_t kEach = 20;
    for (size_t round = 1; round <= kRounds; ++round) {
        SetKernelLog(Numbered("line ", round * kEach));
        EXPECT_TRUE(kel::test::WaitUntil([&] { return count() >= round * kEach; }));
    }
    stop = true;
    for (std::thread& collector : collectors) {
        collector.join();
    }

    EXPECT_EQ(deliveries.size(), kRounds * kEach);
    for (const auto& [line, times] : deliveries) {
        EXPECT_EQ(times, 1) << line;
    }
}

class KernelLogScheduling : public KernelLog
{
protected:
    struct TSOutcome
    {
        bool m_permitted; // to begin in that class
        int m_policy;     // after the call
        int m_changes;    // how often it was set
    };

    // Calls in a thread of its own, which begins in a class: there may be no way back from idle.
    static TSOutcome DumpFrom(int policy, int priority)
    {
        TSOutcome outcome{};
        std::thread collector([&] {
            reallyIdle = true;
            sched_param parameters{};
            parameters.sched_priority = priority;
            outcome.m_permitted = sched_setscheduler(0, policy, &parameters) == 0;
            schedulingChanges = 0;
            TLines lines;
            DumpKernelLog(lines, DUMP_CONDITION_NONE);
            outcome.m_policy = sched_getscheduler(0);
            outcome.m_changes = schedulingChanges;
            reallyIdle = false;
        });
        collector.join();
        return outcome;
    }
};

TEST_F(KernelLogScheduling, ACallLeavesItsThreadInTheIdleClass)
{
    for (const int policy : {SCHED_OTHER, SCHED_BATCH, SCHED_IDLE}) {
        const TSOutcome outcome = DumpFrom(policy, 0);

        EXPECT_TRUE(outcome.m_permitted);
        EXPECT_EQ(outcome.m_policy, 5) << policy;
        EXPECT_EQ(outcome.m_changes, policy == SCHED_IDLE ? 0 : 1);
    }
    EXPECT_EQ(sched_getscheduler(0), SCHED_OTHER) << "of this thread nothing was asked";
}

TEST_F(KernelLogScheduling, ARealTimeThreadGetsThereToo)
{
    for (const int policy : {SCHED_FIFO, SCHED_RR}) {
        const TSOutcome outcome = DumpFrom(policy, 1);
        if (!outcome.m_permitted) {
            GTEST_SKIP() << "this machine permits no real-time threads";
        }
        EXPECT_EQ(outcome.m_policy, 5) << policy;
    }
}

class RunShell : public KernelLog
{
protected:
    static bool HasChildren() { return waitpid(-1, nullptr, WNOHANG) != -1 || errno != ECHILD; }
};

TEST_F(RunShell, GivesTheRawWaitStatus)
{
    EXPECT_EQ(runShell("exit 0"), W_EXITCODE(0, 0));
    EXPECT_EQ(runShell("exit 3"), W_EXITCODE(3, 0));
    EXPECT_EQ(runShell("kill -9 $$"), W_EXITCODE(0, SIGKILL));
    EXPECT_EQ(runShell(""), 0);
    EXPECT_FALSE(HasChildren());
}

TEST_F(RunShell, GivesTheWholeTextToTheShell)
{
    EXPECT_EQ(StandardOutputOf([] {
                  fflush(stdout);
                  runShell("echo '%s' \"a  b\" | cat; echo $0");
              }),
              "%s a  b\n/bin/sh\n");
}

TEST_F(RunShell, FailsWhenNobodyCanWaitForTheChild)
{
    const auto before = signal(SIGCHLD, SIG_IGN);

    const int status = runShell("exit 3");

    signal(SIGCHLD, before);
    EXPECT_EQ(status, -1);
    EXPECT_FALSE(HasChildren());
}

// The kernel refuses the thread another process.
TEST_F(RunShell, FailsWhenThereIsNoChild)
{
    int status = 0;
    std::optional<TLines> lines = TLines();
    std::ofstream(kSnapshot) << "an old snapshot\n";

    std::thread refused([&] {
        sock_filter program[] = {
            BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
#ifdef SYS_vfork
            BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_vfork, 2, 0),
#else
            BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_clone, 2, 0),
#endif
            BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_clone, 1, 0),
            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EAGAIN),
        };
        const sock_fprog filter{sizeof(program) / sizeof(program[0]), program};
        ASSERT_EQ(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
        ASSERT_EQ(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter), 0);
        status = runShell("exit 0");
        lines = Dump();
    });
    refused.join();

    EXPECT_EQ(status, -1);
    EXPECT_EQ(lines, TLines{"an old snapshot"});
}

volatile sig_atomic_t signalsSeen = 0;

// A handler without SA_RESTART interrupts the wait.
TEST_F(RunShell, WaitsOnAfterASignal)
{
    struct sigaction action = {};
    struct sigaction before = {};
    action.sa_handler = [](int) { signalsSeen = signalsSeen + 1; };
    ASSERT_EQ(sigaction(SIGUSR1, &action, &before), 0);
    signalsSeen = 0;

    const int status
        = runShell("for i in 1 2 3 4 5; do kill -USR1 $PPID; sleep 0.02; done; exit 7");

    sigaction(SIGUSR1, &before, nullptr);
    EXPECT_EQ(status, W_EXITCODE(7, 0));
    EXPECT_GE(signalsSeen, 1);
    EXPECT_FALSE(HasChildren());
}

TEST_F(RunShell, LeavesNeitherProcessesNorDescriptorsBehind)
{
    SetKernelLog(TLines{"one"});
    Dump(); // what is opened for good is open now
    const size_t descriptors = kel::test::CountDescriptors();
    const size_t threads = kel::test::CountThreads();

    int failures = 0;
    for (int i = 0; i < 1000; ++i) {
        failures += runShell(":") != 0;
    }
    for (int i = 0; i < 1000; ++i) {
        Dump();
    }

    EXPECT_EQ(failures, 0);
    EXPECT_FALSE(HasChildren());
    EXPECT_EQ(kel::test::CountDescriptors(), descriptors);
    EXPECT_EQ(kel::test::CountThreads(), threads);
}

} // namespace
