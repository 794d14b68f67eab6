// Walking a tree of 100,000 files in 2,000 directories, half of them with the extension sought:
//   TSFileSystem::GetFiles     against a walk that asks for the status of every entry, and `find`
//   TSFileSystem::GetDirSize   against such a walk, and `du`
// Making the tree, in TMPDIR or else in memory, is not measured, and everything is in the kernel's
// caches.

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <string>
#include <vector>

#include <boost/filesystem.hpp>

#include <kel/KELFileSystem.h>

#include "PairedMedian.h"
#include "support/PlainWalk.h"

namespace kel::bench {

namespace {

namespace fs = boost::filesystem;

constexpr char kExtension[] = ".log";
constexpr int kOuterDirectories = 40;
constexpr int kInnerDirectories = 49; // in each of those: 2,000 together
constexpr int kFilesPerDirectory = 50;
constexpr size_t kMatches = 50000;
constexpr int kBytes = 100000; // one in each file

// The files, gone with this object.
class TCTree
{
public:
    TCTree()
    {
        const char* base = std::getenv("TMPDIR");
        if (base == nullptr) {
            base = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
        }
        std::string name = std::string(base) + "/kel-bench-XXXXXX";
        if (mkdtemp(name.data()) == nullptr) {
            throw std::runtime_error("no directory " + name);
        }
        m_path = name;
        for (int i = 0; i < kOuterDirectories; ++i) {
            const fs::path outer = m_path / ("outer" + std::to_string(i));
            m_Fill(outer);
            for (int j = 0; j < kInnerDirectories; ++j) {
                m_Fill(outer / ("inner" + std::to_string(j)));
            }
        }
    }
    ~TCTree()
    {
        boost::system::error_code code;
        fs::remove_all(m_path, code);
    }
    TCTree(const TCTree&) = delete;
    TCTree& operator=(const TCTree&) = delete;

    const std::string& Path() const { return m_path.native(); }

private:
    static void m_Fill(const fs::path& directory)
    {
        fs::create_directory(directory);
        for (int i = 0; i < kFilesPerDirectory; ++i) {
            const fs::path file
                = directory / ("file" + std::to_string(i) + (i % 2 == 0 ? kExtension : ".data"));
            const int descriptor = open(file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
            if (descriptor < 0 || write(descriptor, "x", 1) != 1) {
                throw std::runtime_error("no file " + file.string());
            }
            close(descriptor);
        }
    }

    fs::path m_path;
};

void Expect(bool right, const char* what)
{
    if (!right) {
        throw std::runtime_error(std::string("wrong result of ") + what);
    }
}

// Runs a program to its end; its output goes nowhere.
void RunProgram(std::vector<std::string> command)
{
    std::vector<char*> arguments;
    for (std::string& word : command) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t child = 0;
    const int failure
        = posix_spawnp(&child, arguments[0], &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    int status = -1;
    Expect(failure == 0 && waitpid(child, &status, 0) == child && status == 0, arguments[0]);
}

void Row(const char* what, const char* baseline, const TSPaired& pair, double bound,
         TCBounds& bounds)
{
    std::printf("%-10s  %11s  %-16s %11s  %6.3f  %.3f to %.3f  %4zu   %s\n", what,
                Time(pair.m_ours).c_str(), baseline, Time(pair.m_baseline).c_str(), pair.m_ratio,
                pair.m_low, pair.m_high, pair.m_rounds, bounds.AtMost(pair.m_ratio, bound).c_str());
    std::fflush(stdout);
}

int Run()
{
    TCBounds bounds;
    const TCTree tree;
    const std::string& path = tree.Path();

    const auto files = [&] {
        std::vector<fs::path> names;
        Expect(TSFileSystem::GetFiles(names, path, kExtension) && names.size() == kMatches,
               "GetFiles");
    };
    const auto plainFiles = [&] {
        std::vector<fs::path> names;
        Expect(test::PlainGetFiles(names, path, kExtension) && names.size() == kMatches,
               "the plain walk");
    };
    const auto find = [&] { RunProgram({"find", path, "-name", std::string("*") + kExtension}); };
    const auto size = [&] { Expect(TSFileSystem::GetDirSize(path) == kBytes, "GetDirSize"); };
    const auto plainSize = [&] {
        std::vector<std::string> messages;
        Expect(test::PlainGetDirSize(path, messages) == kBytes, "the plain walk");
    };
    const auto du = [&] { RunProgram({"du", "-sb", path}); };

    TSEffort effort;
    effort.m_seconds = 6;
    std::printf("100000 files in 2000 directories, warm, medians of alternating calls\n"
                "%-10s  %11s  %-16s %11s  %6s  %s  rounds   bound\n",
                "", "time", "against", "time", "ratio", "95 % interval");
    Row("GetFiles", "status of all", MeasurePair(files, plainFiles, effort), 0.5, bounds);
    Row("GetFiles", "find -name", MeasurePair(files, find, effort), 1.0, bounds);
    Row("GetDirSize", "status of all", MeasurePair(size, plainSize, effort), 0.6, bounds);
    Row("GetDirSize", "du -sb", MeasurePair(size, du, effort), 1.0, bounds);
    return bounds.ExitStatus();
}

} // namespace

} // namespace kel::bench

int main()
{
    try {
        return kel::bench::Run();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 2;
    }
}
