#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <gtest/gtest.h>

#include <kel/KELIssueReport.h>

#include "StandardOutput.h"
#include "support/FakePlatform.h"
#include "support/LogRecorder.h"
#include "support/Mount.h"
#include "support/Sandbox.h"

namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;

constexpr char kKey[] = "memory/kel/ndf_one";
const fs::path kDrop = "/tmp/kel_NDF";
const fs::path kRebootDrop = "/tmp/kel_NDF_reboot";

// The functions take writable texts, and do not write to them.
char* Text(const std::string& text) { return const_cast<char*>(text.c_str()); }

std::string Content(const fs::path& file)
{
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

std::vector<std::string> Names(const fs::path& directory)
{
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(directory)) {
        names.push_back(entry.path().filename());
    }
    return names;
}

typedef std::vector<std::string> TNames;

class IssueReport : public kel::test::SandboxTest
{
protected:
    void SetUp() override
    {
        for (const fs::path& directory : {kDrop, kRebootDrop}) {
            fs::remove_all(directory);
            fs::create_directory(directory);
        }
    }
    void TearDown() override
    {
        EXPECT_EQ(m_log.Text(), "") << "requests are not the system logger's business";
        fs::remove_all(kDrop);
        fs::remove_all(kRebootDrop);
    }

    // Runs a request, and keeps what it printed.
    template <typename... Arguments> int Request(Arguments... arguments)
    {
        int result = 0;
        m_output = StandardOutputOf([&] { result = Request_NDF(arguments...); });
        return result;
    }

    kel::test::FakePlatform m_platform;
    kel::test::LogRecorder m_log;
    std::string m_output;
};

TEST_F(IssueReport, ASlotRequestStoresItsThreeFieldsAndPrintsThemWithoutANewline)
{
    EXPECT_EQ(Request(Text("proc"), Text("main"), 3), 1);

    EXPECT_EQ(m_platform.Vconf(kKey), "proc|main|3");
    EXPECT_EQ(m_output, "[kel_courier] NDF request recieved. Process Name = proc, "
                        "Thread Name = main, requestReboot = 3");
    EXPECT_EQ(Names(kDrop), TNames());
}

TEST_F(IssueReport, ASlotRequestTakesTheOtherNameForAMissingOne)
{
    EXPECT_EQ(Request(static_cast<char*>(nullptr), Text("worker"), 1), 1);

    EXPECT_EQ(m_platform.Vconf(kKey), "worker|worker|1");
    EXPECT_EQ(m_output, "[kel_courier] NDF request recieved. Process Name = worker, "
                        "Thread Name = worker, requestReboot = 1");

    EXPECT_EQ(Request(Text("proc"), static_cast<char*>(nullptr)), 1);

    EXPECT_EQ(m_platform.Vconf(kKey), "proc|proc|0");
    EXPECT_EQ(m_output, "[kel_courier] NDF request recieved. Process Name = proc, "
                        "Thread Name = proc, requestReboot = 0");
}

TEST_F(IssueReport, WithoutAnyNameARequestFailsInSilence)
{
    char* const none = nullptr;

    EXPECT_EQ(Request(none, none) + Request(none, none, 1), -2);
    EXPECT_EQ(Request(ALWAYS, none, none) + Request(ALWAYS, none, none, 1), -2);
    EXPECT_EQ(Request(ALWAYS, none, none, "/a"s) + Request(ALWAYS, none, none, "/a"s, 1), -2);

    EXPECT_EQ(m_output, "");
    EXPECT_EQ(m_platform.Vconf(kKey), std::nullopt);
    EXPECT_EQ(Names(kDrop), TNames());
    EXPECT_EQ(Names(kRebootDrop), TNames());
}

TEST_F(IssueReport, ASlotValueIsCutAt511CharactersAndTheOutputIsNot)
{
    const std::string fits(507, 'p');
    const std::string tooLong(508, 'p');

    EXPECT_EQ(Request(Text(fits), Text("t"), 5), 1);
    EXPECT_EQ(m_platform.Vconf(kKey), fits + "|t|5");

    EXPECT_EQ(Request(Text(tooLong), Text("t"), 5), 1);
    EXPECT_EQ(m_platform.Vconf(kKey), tooLong + "|t|");
    EXPECT_EQ(m_output, "[kel_courier] NDF request recieved. Process Name = " + tooLong
                            + ", Thread Name = t, requestReboot = 5");
}

TEST_F(IssueReport, ARefusedSlotIsSaidOnTheSameLine)
{
    for (const int refusal : {-1, 1}) {
        m_platform.RefuseVconf(refusal);

        EXPECT_EQ(Request(Text("proc"), Text("main")), -1);

        EXPECT_EQ(m_output, "[kel_courier] NDF request recieved. Process Name = proc, "
                            "Thread Name = main, requestReboot = 0"
                            "[kel_courier] VCONF NDF NOT SET\n");
    }
}

TEST_F(IssueReport, OddCharactersReachTheSlotAsTheyAre)
{
    const std::string name = "%s%n%d\n../|/\xff";

    EXPECT_EQ(Request(Text(name), Text("%p")), 1);

    EXPECT_EQ(m_platform.Vconf(kKey), name + "|%p|0");
    EXPECT_EQ(m_output, "[kel_courier] NDF request recieved. Process Name = " + name
                            + ", Thread Name = %p, requestReboot = 0");
}

TEST_F(IssueReport, TheShortestFileRequestLeavesNoPathAndNoReboot)
{
    EXPECT_EQ(Request(ONCE_ONLY, Text("proc"), Text("main")), 1);

    EXPECT_EQ(Content(kDrop / "proc-main-ONCE_ONLY.log"), "NO_PATH");
    EXPECT_EQ(m_output, "[kel_courier] NDF2 api request = /tmp/kel_NDF/proc-main-ONCE_ONLY.log, "
                        "uploadPath = NO_PATH\n");
    EXPECT_EQ(Names(kDrop), TNames{"proc-main-ONCE_ONLY.log"});
    EXPECT_EQ(Names(kRebootDrop), TNames());
    EXPECT_EQ(m_platform.Vconf(kKey), std::nullopt);
}

TEST_F(IssueReport, AFileRequestWithARebootGoesToTheOtherDirectory)
{
    EXPECT_EQ(Request(ONCE_ONLY, Text("proc"), static_cast<char*>(nullptr), 1), 1);

    EXPECT_EQ(Content(kRebootDrop / "proc-proc-ONCE_ONLY.log"), "NO_PATH");
    EXPECT_EQ(m_output, "[kel_courier] NDF2 api request = "
                        "/tmp/kel_NDF_reboot/proc-proc-ONCE_ONLY.log, uploadPath = NO_PATH\n");
    EXPECT_EQ(Names(kDrop), TNames());

    EXPECT_EQ(Request(ONCE_ONLY, Text("proc"), Text("main"), 0), 1);

    EXPECT_EQ(Names(kDrop), TNames{"proc-main-ONCE_ONLY.log"});
}

TEST_F(IssueReport, AFileRequestHoldsItsArtefactsPathExactly)
{
    EXPECT_EQ(Request(ALWAYS, Text("proc"), Text("main"), "/opt/usr/a file"s), 1);

    EXPECT_EQ(Content(kDrop / "proc-main-ALWAYS.log"), "/opt/usr/a file");
    EXPECT_EQ(m_output, "[kel_courier] NDF2 api request = /tmp/kel_NDF/proc-main-ALWAYS.log, "
                        "uploadPath = /opt/usr/a file\n");

    EXPECT_EQ(Request(ALWAYS, Text("proc"), Text("main"), "/core"s, -1), 1);

    EXPECT_EQ(Content(kRebootDrop / "proc-main-ALWAYS.log"), "/core");
    EXPECT_EQ(m_output, "[kel_courier] NDF2 api request = "
                        "/tmp/kel_NDF_reboot/proc-main-ALWAYS.log, uploadPath = /core\n");
}

TEST_F(IssueReport, AnUnknownModeCountsAsPolicyAndAMissingNameAsTheOther)
{
    const std::pair<int, std::string> modes[]
        = {{-1, "POLICY"},   {0, "OQC_ALWAYS"}, {1, "ALWAYS"},
           {2, "ONCE_ONLY"}, {3, "POLICY"},     {7, "POLICY"}};
    for (const auto& [flag, word] : modes) {
        fs::remove_all(kDrop);
        fs::create_directory(kDrop);

        EXPECT_EQ(Request(static_cast<artifactSendFlag>(flag), nullptr, Text("t")), 1);

        EXPECT_EQ(Names(kDrop), TNames{"t-t-" + word + ".log"}) << flag;
    }
}

TEST_F(IssueReport, ASecondFileRequestOfTheSameNameReplacesTheFirst)
{
    Request(ALWAYS, Text("proc"), Text("main"), "/a/long/path/to/an/artefact"s);

    EXPECT_EQ(Request(ALWAYS, Text("proc"), Text("main"), "/b"s), 1);

    EXPECT_EQ(Content(kDrop / "proc-main-ALWAYS.log"), "/b");

    EXPECT_EQ(Request(ALWAYS, Text("proc"), Text("other"), "/c"s), 1);

    EXPECT_EQ(Content(kDrop / "proc-main-ALWAYS.log"), "/b");
    EXPECT_EQ(Content(kDrop / "proc-other-ALWAYS.log"), "/c");
}

TEST_F(IssueReport, WithoutItsDirectoryAFileRequestFailsAndMakesNone)
{
    fs::remove_all(kDrop);

    EXPECT_EQ(Request(ALWAYS, Text("p"), Text("t"), "/a"s), -1);

    EXPECT_EQ(m_output, "[kel_courier] NDF2 api request = /tmp/kel_NDF/p-t-ALWAYS.log, "
                        "uploadPath = /a\n[kel_courier] FILE OPEN FAILED \n");
    EXPECT_FALSE(fs::exists(kDrop));
}

TEST_F(IssueReport, InAnUnwritableDirectoryOrUnderADirectorysNameAFileRequestFails)
{
    fs::create_directory(kDrop / "p-t-ALWAYS.log");
    EXPECT_EQ(Request(ALWAYS, Text("p"), Text("t")), -1);

    const kel::test::Mount mount(kDrop, "ro");
    EXPECT_EQ(Request(ALWAYS, Text("p"), Text("t")), -1);
    EXPECT_EQ(m_output, "[kel_courier] NDF2 api request = /tmp/kel_NDF/p-t-ALWAYS.log, "
                        "uploadPath = NO_PATH\n[kel_courier] FILE OPEN FAILED \n");
}

TEST_F(IssueReport, AFullDiskAtTheEndOfAFileRequestIsNotReported)
{
    const kel::test::Mount mount(kDrop, "size=4k");
    std::ofstream(kDrop / "filler") << std::string(4096, 'x');

    EXPECT_EQ(Request(ALWAYS, Text("p"), Text("t"), "/a"s), 1);

    EXPECT_TRUE(fs::is_empty(kDrop / "p-t-ALWAYS.log"));
}

TEST_F(IssueReport, OddCharactersReachTheFileNameAsTheyAre)
{
    const std::string process = "%s%n\n \xff";
    const std::string thread = "%d-|";

    EXPECT_EQ(Request(ALWAYS, Text(process), Text(thread), "%s%n\n"s), 1);

    const std::string name = process + "-" + thread + "-ALWAYS.log";
    EXPECT_EQ(Names(kDrop), TNames{name});
    EXPECT_EQ(Content(kDrop / name), "%s%n\n");
    EXPECT_EQ(m_output,
              "[kel_courier] NDF2 api request = /tmp/kel_NDF/" + name + ", uploadPath = %s%n\n\n");
}

TEST_F(IssueReport, ASlashInANameIsADirectoryThatMustExist)
{
    EXPECT_EQ(Request(ALWAYS, Text("a/b"), Text("t")), -1);
    EXPECT_EQ(m_output, "[kel_courier] NDF2 api request = /tmp/kel_NDF/a/b-t-ALWAYS.log, "
                        "uploadPath = NO_PATH\n[kel_courier] FILE OPEN FAILED \n");
    EXPECT_EQ(Names(kDrop), TNames());

    fs::create_directory(kDrop / "a");

    EXPECT_EQ(Request(ALWAYS, Text("a/b"), Text("t")), 1);
    EXPECT_EQ(Names(kDrop / "a"), TNames{"b-t-ALWAYS.log"});

    EXPECT_EQ(Request(ALWAYS, Text("../kel_NDF_reboot/p"), Text("t"), "/a"s), 1);
    EXPECT_EQ(Content(kRebootDrop / "p-t-ALWAYS.log"), "/a");
}

TEST_F(IssueReport, AnArtefactsPathIsTakenAsItIsWithItsZeroBytesInTheFile)
{
    const std::string path = "/a\0b\0"s;

    EXPECT_EQ(Request(ALWAYS, Text("p"), Text("t"), path), 1);
    EXPECT_EQ(Content(kDrop / "p-t-ALWAYS.log"), path);
    EXPECT_EQ(m_output, "[kel_courier] NDF2 api request = /tmp/kel_NDF/p-t-ALWAYS.log, "
                        "uploadPath = /a\n");

    EXPECT_EQ(Request(ALWAYS, Text(""), Text(""), ""s), 1);
    EXPECT_TRUE(fs::is_empty(kDrop / "--ALWAYS.log"));
}

} // namespace
