// The copy of the log, whose name anybody can guess, went to where a link under that name pointed.

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include <kel/KELDebug.h>

#include "FileSystemTests.h"

extern "C" char* __progname;

namespace kel::test {

namespace {

class LogFileThroughALink : public FileSystemTest
{
protected:
    ~LogFileThroughALink() override { fs::remove(m_path); }

    void ExpectRefusal(int error)
    {
        TCDebug& debug = TCDebug::m_instance;
        debug.EnableFileLog(true);
        debug.EnableFileLog(false);

        EXPECT_EQ(debug.m_logFile, nullptr);
        EXPECT_TRUE(m_log.Has(4, "Unable to create file " + m_path.string() + " - errno "
                                     + std::to_string(error)))
            << m_log.Text();
        m_log.Clear();
        fs::remove(m_path);
    }

    const fs::path m_path
        = "/tmp/kel_" + std::string(__progname) + "_" + std::to_string(getpid()) + ".log";
};

TEST_F(LogFileThroughALink, IsNotMade)
{
    const fs::path target = Write(m_root / "target", "precious");

    fs::create_symlink(target, m_path);
    ExpectRefusal(ELOOP);
    fs::create_symlink(m_root / "new", m_path);
    ExpectRefusal(ELOOP);
    fs::create_hard_link(target, m_path);
    ExpectRefusal(EINVAL);
    ASSERT_EQ(mkfifo(m_path.c_str(), 0600), 0); // it would be full one day, and be waited for
    ExpectRefusal(EINVAL);

    EXPECT_EQ(Read(target), "precious");
    EXPECT_FALSE(fs::exists(m_root / "new"));
}

} // namespace

} // namespace kel::test
