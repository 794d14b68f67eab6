#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdarg>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kel/KELDeactivator.h>
#include <kel/KELDebug.h>
#include <kel/KELIpcSerializationUtil.h>

#include "Messages.h"
#include "support/Sandbox.h"

using kel::TCDebug;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

extern "C" char* __progname;

namespace {

// What the library has told the kernel's performance trace.
struct TSTrace
{
    std::string m_text;
    unsigned long m_length;
};
std::vector<TSTrace> traces;

} // namespace

// In place of the C library's, to see the platform kernel's own option.
extern "C" int prctl(int option, ...)
{
    unsigned long arguments[4];
    va_list list;
    va_start(list, option);
    for (unsigned long& argument : arguments) {
        argument = va_arg(list, unsigned long);
    }
    va_end(list);

    if (option == 666) {
        traces.push_back({reinterpret_cast<const char*>(arguments[0]), arguments[1]});
        return -1; // as a kernel does that does not know it
    }
    return static_cast<int>(
        syscall(SYS_prctl, option, arguments[0], arguments[1], arguments[2], arguments[3]));
}

namespace {

std::string ReadFile(const std::string& path)
{
    std::stringstream contents;
    contents << std::ifstream(path).rdbuf();
    return contents.str();
}

// Not its directories: one may be this very checkout, which the sandbox leaves in its place.
std::vector<std::string> FilesInTmp()
{
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator("/tmp")) {
        if (!entry.is_directory()) {
            names.push_back(entry.path().filename());
        }
    }
    return names;
}

// Every test starts with an instance as at load, and with empty directories.
class Debug : public kel::test::SandboxTest
{
protected:
    Debug()
        : m_debug(TCDebug::m_instance),
          m_path("/tmp/kel_" + std::string(__progname) + "_" + std::to_string(getpid()) + ".log")
    {
        traces.clear();
    }

    void SetUp() override { m_Clean(); }

    void TearDown() override
    {
        m_debug.EnableStdoutLog(false);
        m_debug.EnableFileLog(false);
        m_debug.EnablePerfLog(false);
        if (m_debug.m_logFile != nullptr) {
            fclose(m_debug.m_logFile);
            m_debug.m_logFile = nullptr;
        }
        m_Clean();
    }

    // One debug line of the library's own.
    static void MakeLibraryLog()
    {
        std::stringstream empty;
        std::vector<unsigned char> bytes;
        kel::TCIpcSerializationUtil::ConvertData(empty, bytes);
    }

    std::string FileContents() const { return ReadFile(m_path); }

    TCDebug& m_debug;
    const std::string m_path;
    kel::test::LogRecorder m_log;

private:
    static void m_Clean()
    {
        std::filesystem::remove_all("/etc/release");
        for (const std::string& name : FilesInTmp()) {
            std::filesystem::remove("/tmp/" + name);
        }
    }
};

TEST_F(Debug, AllSinksAreOffAtLoad)
{
    EXPECT_FALSE(m_debug.m_perfLogEnabled);
    EXPECT_FALSE(m_debug.m_stdoutLogEnabled);
    EXPECT_FALSE(m_debug.m_fileLogEnabled);
    EXPECT_EQ(m_debug.m_logFile, nullptr);
}

TEST_F(Debug, ProgressIsLoggedAtPriorityDebugAndCopiedWithItsPlace)
{
    m_debug.EnableFileLog(true);

    kel::TCDeactivator::RegisterDBUS(+[] {});

    const auto lines = m_log.Lines();
    ASSERT_THAT(lines, SizeIs(1));
    EXPECT_EQ(lines[0].m_buffer, 2);
    EXPECT_EQ(lines[0].m_priority, 3);
    EXPECT_EQ(lines[0].m_tag, "KEL");
    EXPECT_EQ(lines[0].m_format, "%s: %s(%d) > Register a new DBUS callback");
    EXPECT_EQ(lines[0].m_source, "KELDeactivator");
    EXPECT_EQ(lines[0].m_function, "RegisterDBUS");
    EXPECT_EQ(FileContents(),
              "KEL >kel::TCDeactivator:RegisterDBUS:" + std::to_string(lines[0].m_line)
                  + "< Register a new DBUS callback\n");
}

TEST_F(Debug, NoSecondCopyWhileNoSinkIsOn)
{
    testing::internal::CaptureStdout();
    MakeLibraryLog();
    m_debug.External("kel::TCClass", "Function", 1, "message");
    const std::string output = testing::internal::GetCapturedStdout();

    EXPECT_EQ(output, "");
    EXPECT_THAT(FilesInTmp(), IsEmpty());
}

TEST_F(Debug, SlashesOfTheProgramNameBecomeUnderscores)
{
    char* const before = __progname;
    char name[] = "a/b//c";
    __progname = name;
    m_debug.EnableFileLog(true);
    __progname = before;

    EXPECT_THAT(FilesInTmp(), ElementsAre("kel_a_b__c_" + std::to_string(getpid()) + ".log"));
}

TEST_F(Debug, FileIsAppendedTo)
{
    std::ofstream(m_path) << "before\n";

    m_debug.EnableFileLog(true);
    m_debug.External("C", "F", 1, "after");

    EXPECT_EQ(FileContents(), "before\nKEL >C:F:1< after\n");
}

TEST_F(Debug, OneStreamServesWheneverTheFileIsOn)
{
    m_debug.EnableFileLog(true);
    FILE* const first = m_debug.m_logFile;
    ASSERT_NE(first, nullptr);
    m_debug.EnableFileLog(true);
    EXPECT_EQ(m_debug.m_logFile, first);
    m_debug.External("C", "F", 1, "one");
    m_debug.EnableFileLog(false);
    m_debug.External("C", "F", 2, "not written");
    EXPECT_EQ(m_debug.m_logFile, first);

    m_debug.EnableFileLog(true);
    m_debug.External("C", "F", 3, "three");

    EXPECT_EQ(m_debug.m_logFile, first);
    EXPECT_EQ(FileContents(), "KEL >C:F:1< one\nKEL >C:F:3< three\n");
    EXPECT_THAT(FilesInTmp(), SizeIs(1));
}

TEST_F(Debug, AChildKeepsItsParentsFileAndItsName)
{
    m_debug.EnableFileLog(true);
    m_debug.External("C", "F", 1, "parent");
    m_debug.EnableFileLog(false);

    const pid_t child = fork();
    if (child == 0) {
        m_debug.EnableFileLog(true);
        m_debug.External("C", "F", 2, "child");
        _exit(0);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);

    EXPECT_EQ(status, 0);
    EXPECT_EQ(FileContents(), "KEL >C:F:1< parent\nKEL >C:F:2< child\n");
    EXPECT_THAT(FilesInTmp(), SizeIs(1));
}

TEST_F(Debug, AFailedOpenIsReportedToTheMainBufferAloneAndStopsNoConsoleLine)
{
    ASSERT_EQ(mkdir(m_path.c_str(), 0700), 0);
    m_debug.EnableStdoutLog(true);

    testing::internal::CaptureStdout();
    m_debug.EnableFileLog(true);
    m_debug.External("C", "F", 1, "to the console");
    const std::string output = testing::internal::GetCapturedStdout();

    const auto lines = m_log.Lines();
    ASSERT_THAT(lines, SizeIs(1));
    EXPECT_EQ(lines[0].m_buffer, 0);
    EXPECT_EQ(lines[0].m_priority, 4);
    EXPECT_EQ(lines[0].m_tag, "KEL");
    EXPECT_EQ(lines[0].m_format, "%s: %s(%d) > Unable to create file %s - errno %d");
    EXPECT_EQ(lines[0].m_source, "KELDebug");
    EXPECT_EQ(lines[0].m_function, "EnableFileLog");
    EXPECT_EQ(lines[0].m_message,
              "Unable to create file " + m_path + " - errno " + std::to_string(EISDIR));
    EXPECT_EQ(output, "KEL >C:F:1< to the console\n");
    EXPECT_TRUE(m_debug.m_fileLogEnabled);
    EXPECT_EQ(m_debug.m_logFile, nullptr);
}

TEST_F(Debug, FailedOpenIsTriedAgainTheNextTime)
{
    ASSERT_EQ(mkdir(m_path.c_str(), 0700), 0);
    m_debug.EnableFileLog(true);
    m_debug.External("C", "F", 1, "nowhere");
    ASSERT_EQ(rmdir(m_path.c_str()), 0);

    m_debug.EnableFileLog(true);
    m_debug.External("C", "F", 2, "here");

    EXPECT_EQ(FileContents(), "KEL >C:F:2< here\n");
}

TEST_F(Debug, BothSinksGetTheSameLine)
{
    m_debug.EnableFileLog(true);
    m_debug.EnableStdoutLog(true);

    testing::internal::CaptureStdout();
    m_debug.External("kel::TCClass", "Function", 4294967295u, "%d%% of %s", 5, "all");
    const std::string output = testing::internal::GetCapturedStdout();

    EXPECT_EQ(output, "KEL >kel::TCClass:Function:4294967295< 5% of all\n");
    EXPECT_EQ(FileContents(), output);
}

TEST_F(Debug, ALineIsCutTo255CharactersWithItsPrefix)
{
    m_debug.EnableFileLog(true);
    const std::string prefix = "KEL >C:F:1< ";
    const std::string fits(255 - prefix.size(), 'y');
    const std::string className(300, 'C');

    m_debug.External("C", "F", 1, "%s", fits.c_str());
    m_debug.External("C", "F", 1, "%sx", fits.c_str());
    m_debug.External(className.c_str(), "F", 1, "message");

    EXPECT_EQ(FileContents(), prefix + fits + "\n" + prefix + fits + "\n"
                                  + ("KEL >" + className).substr(0, 255) + "\n");
}

TEST_F(Debug, LinesOfManyThreadsDoNotMix)
{
    constexpr int kThreads = 4;
    constexpr int kLines = 500;
    m_debug.EnableFileLog(true);

    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([this, thread] {
            for (int i = 0; i < kLines; ++i) {
                m_debug.External("C", "F", 1, "%s", std::string(100, 'a' + thread).c_str());
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }

    std::istringstream file(FileContents());
    int count = 0;
    for (std::string line; std::getline(file, line); ++count) {
        ASSERT_EQ(line, "KEL >C:F:1< " + std::string(100, line.back()));
    }
    EXPECT_EQ(count, kThreads * kLines);
}

TEST_F(Debug, AssertWritesOneErrorLineAndItsCopy)
{
    m_debug.EnableFileLog(true);

    TCDebug::Assert("RV-HIVE-api/impl/src/KELSomething", 4294967295u);

    const auto lines = m_log.Lines();
    ASSERT_THAT(lines, SizeIs(1));
    EXPECT_EQ(lines[0].m_buffer, 2);
    EXPECT_EQ(lines[0].m_priority, 6);
    EXPECT_EQ(lines[0].m_tag, "KEL");
    EXPECT_EQ(lines[0].m_format, "%s: %s(%d) > Error for %s file in line %zu.");
    EXPECT_EQ(lines[0].m_source, "KELDebug");
    EXPECT_EQ(lines[0].m_function, "Assert");
    EXPECT_EQ(lines[0].m_message,
              "Error for RV-HIVE-api/impl/src/KELSomething file in line 4294967295.");
    EXPECT_EQ(FileContents(), "KEL >kel::TCDebug:Assert:" + std::to_string(lines[0].m_line) + "< "
                                  + lines[0].m_message + "\n");
}

TEST_F(Debug, AssertIsSilentOnAReleasedImage)
{
    m_debug.EnableFileLog(true);
    m_debug.EnableStdoutLog(true);

    testing::internal::CaptureStdout();
    std::ofstream("/etc/release") << "";
    TCDebug::Assert("file", 1);
    std::filesystem::remove("/etc/release");
    std::filesystem::create_directory("/etc/release"); // whatever it is, it is there
    TCDebug::Assert("directory", 2);
    const std::string output = testing::internal::GetCapturedStdout();

    EXPECT_THAT(m_log.Lines(), IsEmpty());
    EXPECT_EQ(output, "");
    EXPECT_EQ(FileContents(), "");
}

TEST_F(Debug, AssertSpeaksWhenTheMarkerCannotBeFound)
{
    std::filesystem::create_symlink("/nowhere", "/etc/release");
    TCDebug::Assert("dangling", 1);
    std::filesystem::remove("/etc/release");
    std::filesystem::create_symlink("/etc/release", "/etc/release"); // the query itself fails
    TCDebug::Assert("loop", 2);

    EXPECT_THAT(TakeMessages(m_log), ElementsAre("6 Error for dangling file in line 1.",
                                                 "6 Error for loop file in line 2."));
}

TEST_F(Debug, PerfTracesALineOf255CharactersAtMostWhateverTheSwitchesSay)
{
    m_debug.EnablePerfLog(false);
    m_debug.Perf("kel::TCClass", "Function", 7, "took %d ms", 12);
    m_debug.EnablePerfLog(true);
    m_debug.Perf("C", "F", 1, "%s", std::string(300, 'x').c_str());

    ASSERT_THAT(traces, SizeIs(2));
    EXPECT_EQ(traces[0].m_text, "KEL >kel::TCClass:Function:7< took 12 ms");
    EXPECT_EQ(traces[0].m_length, traces[0].m_text.size());
    EXPECT_EQ(traces[1].m_text, "KEL >C:F:1< " + std::string(243, 'x'));
    EXPECT_EQ(traces[1].m_length, 255u);
    EXPECT_THAT(m_log.Lines(), IsEmpty());
    EXPECT_THAT(FilesInTmp(), IsEmpty());
}

} // namespace
