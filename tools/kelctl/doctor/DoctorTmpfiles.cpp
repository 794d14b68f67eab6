#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "doctor/DoctorFiles.h"
#include "requests/Places.h"

namespace kel {
namespace ctl {

namespace {

constexpr char kFile[] = "kel-agent.conf";

// Where systemd-tmpfiles looks. A file of a name takes the place of those behind it.
constexpr const char* kDirectories[]
    = {"/etc/tmpfiles.d", "/run/tmpfiles.d", "/usr/local/lib/tmpfiles.d", "/usr/lib/tmpfiles.d"};
constexpr const char* kPrograms[] = {"/usr/bin/systemd-tmpfiles", "/bin/systemd-tmpfiles"};

constexpr size_t kMostBytes = 64U << 10;
constexpr char kInstall[] = "install tmpfiles.d/kel-agent.conf, and run systemd-tmpfiles --create "
                            "kel-agent.conf; where there is no systemd-tmpfiles, an init script "
                            "has to make the directories";

// Of a file for systemd-tmpfiles, without what is behind the fourth.
typedef std::array<std::string, 4> TLine; // type, path, mode, user

std::vector<TLine> LinesOf(const std::string& text)
{
    std::vector<TLine> lines;
    std::istringstream stream(text);
    for (std::string words; std::getline(stream, words);) {
        std::istringstream fields(words);
        TLine line;
        for (std::string& field : line) {
            fields >> field;
        }
        lines.push_back(line);
    }
    return lines;
}

bool Makes(const TLine& line, const std::string& path, mode_t mode)
{
    return line[0].rfind('d', 0) == 0 && line[1] == path
           && std::strtoul(line[2].c_str(), nullptr, 8) == mode
           && (line[3] == "root" || line[3] == "0");
}

bool Spares(const TLine& line, const std::string& path)
{
    return line[0].rfind('x', 0) == 0 && line[1] == path;
}

// What such a file leaves out; empty when it is nothing.
std::string MissingIn(const std::string& text)
{
    const std::vector<TLine> lines = LinesOf(text);
    const auto has
        = [&lines](const auto& is) { return std::any_of(lines.begin(), lines.end(), is); };
    for (const agent::TSDrop& drop : agent::kDrops) {
        if (!has([&](const TLine& line) { return Makes(line, drop.m_path, agent::kDropMode); })) {
            return std::string("does not make ") + drop.m_path + " root's, of the mode 1733";
        }
        if (!has([&](const TLine& line) { return Spares(line, drop.m_path); })) {
            return std::string("lets the cleaner of /tmp take requests from ") + drop.m_path;
        }
    }
    return "";
}

// The one that is in force; empty when there is none.
std::string FindFile()
{
    for (const char* const directory : kDirectories) {
        std::string path = std::string(directory) + "/" + kFile;
        struct stat status;
        if (lstat(path.c_str(), &status) == 0) {
            return path;
        }
    }
    return "";
}

bool IsThereAReader()
{
    return std::any_of(std::begin(kPrograms), std::end(kPrograms),
                       [](const char* program) { return access(program, X_OK) == 0; });
}

} // namespace

void CheckTmpfiles(TFindings& findings)
{
    const TCCheck check("tmpfiles.d", findings);
    const std::string path = FindFile();
    std::string text;
    if (path.empty()) {
        const bool isElsewhere = access(KEL_TMPFILES, F_OK) == 0;
        check.Warn((isElsewhere
                        ? std::string(KEL_TMPFILES) + " is where systemd-tmpfiles does not look"
                        : std::string("there is no ") + kFile)
                       + ": from boot until an agent starts, no request can be left",
                   kInstall);
    } else if (!tools::ReadRegularFile(AT_FDCWD, path, 0, kMostBytes, text)) {
        check.Warn(path
                       + " is masked, or cannot be read: from boot until an agent starts, no "
                         "request can be left",
                   "rm " + path);
    } else if (const std::string missing = MissingIn(text); !missing.empty()) {
        check.Warn(path + " " + missing, "put the file that was installed in its place");
    } else if (!IsThereAReader()) {
        check.Warn(path + " is there, and systemd-tmpfiles is not, which reads it", kInstall);
    } else {
        check.Good(path + " has the drop directories made at boot, and spared from cleaning");
    }
}

} // namespace ctl
} // namespace kel
