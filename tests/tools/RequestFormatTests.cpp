// What the tools take for the form of a request is what the library leaves.

#include <filesystem>
#include <fstream>
#include <iterator>

#include <gmock/gmock.h>

#include <kel/KELIssueReport.h>
#include <vconf.h>

#include "common/RequestFormat.h"
#include "requests/Places.h"
#include "requests/Request.h"
#include "support/Sandbox.h"

namespace kel::test {

namespace fs = std::filesystem;
using namespace tools;

class RequestFormat : public SandboxTest
{
protected:
    RequestFormat()
    {
        setenv("KEL_HOST_VCONF_DIR", "/tmp/store", 1);
        for (const agent::TSDrop& drop : agent::kDrops) {
            fs::create_directory(drop.m_path);
        }
    }
    ~RequestFormat() override
    {
        unsetenv("KEL_HOST_VCONF_DIR");
        fs::remove_all("/tmp/store");
        for (const agent::TSDrop& drop : agent::kDrops) {
            fs::remove_all(drop.m_path);
        }
    }

    // The only request in a drop, which is removed; its name and its content.
    static std::pair<std::string, std::string> Take(const agent::TSDrop& drop)
    {
        std::pair<std::string, std::string> taken;
        size_t count = 0;
        for (const auto& entry : fs::directory_iterator(drop.m_path)) {
            std::ifstream file(entry.path(), std::ios::binary);
            taken = {entry.path().filename(), {std::istreambuf_iterator<char>(file), {}}};
            fs::remove(entry.path());
            ++count;
        }
        EXPECT_EQ(count, 1U) << drop.m_path;
        return taken;
    }

    static std::string Slot()
    {
        char* const value = vconf_get_str(kRequestKey);
        const std::string text = value != nullptr ? value : "(none)";
        free(value);
        return text;
    }

    char m_process[5] = "proc";
    char m_thread[5] = "main";
};

TEST_F(RequestFormat, OfAFileIsThatOfTheLibrary)
{
    for (const artifactSendFlag mode : {OQC_ALWAYS, ALWAYS, ONCE_ONLY, POLICY}) {
        const std::string name = std::string("proc") + kRequestNameSeparator + "main"
                                 + kRequestNameSeparator + kRequestModes[mode] + kRequestSuffix;

        ASSERT_EQ(Request_NDF(mode, m_process, m_thread), 1);
        EXPECT_EQ(Take(agent::Drop(false)), std::make_pair(name, std::string(kNoArtefactPath)));
        ASSERT_EQ(Request_NDF(mode, m_process, m_thread, "/a path", 1), 1);
        EXPECT_EQ(Take(agent::Drop(true)), std::make_pair(name, std::string("/a path")));
    }
}

TEST_F(RequestFormat, OfANameThatIsCutIsThatOfTheLibrary)
{
    std::string process(200, 'p');
    for (const agent::TSDrop& drop : agent::kDrops) {
        ASSERT_EQ(Request_NDF(ALWAYS, process.data(), m_thread, drop.m_reboot ? 1 : 0), 1);

        const std::string name = Take(drop).first;
        EXPECT_EQ(name.size(), drop.NameSize());
        EXPECT_EQ((std::string(drop.m_path) + "/" + name).size(), kLongestRequestPath);
        agent::TSRequest request;
        EXPECT_TRUE(agent::ReadFileName(name, drop.NameSize(), request));
        EXPECT_TRUE(request.m_cut);
    }
}

TEST_F(RequestFormat, OfTheKeyIsThatOfTheLibrary)
{
    ASSERT_EQ(Request_NDF(m_process, m_thread, 3), 1);
    EXPECT_EQ(Slot(),
              std::string("proc") + kRequestValueSeparator + "main" + kRequestValueSeparator + "3");

    std::string process(600, 'p');
    ASSERT_EQ(Request_NDF(process.data(), m_thread), 1);
    EXPECT_EQ(Slot().size(), kLongestRequestValue);
    agent::TSRequest request;
    EXPECT_TRUE(agent::ReadSlotValue(Slot(), request));
    EXPECT_TRUE(request.m_cut);
}

} // namespace kel::test
