#include "ReportDirectory.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace kel {
namespace ctl {

using tools::ForEachName;
using tools::Freeze;
using tools::OpenIn;
using tools::TCDescriptor;
using tools::TCOutcome;

namespace {

constexpr size_t kDigits = 10;   // of a report's directory
constexpr char kOld[] = ".old-"; // the agent calls what it is removing so, too
constexpr int kDirectory = O_RDONLY | O_DIRECTORY;

TCOutcome FailedAt(const std::string& path)
{
    return TCOutcome::Failed(path + ": " + std::strerror(errno));
}

// The whole file, or as much of one that is too large as tells so.
std::string ReadText(const std::string& path)
{
    const TCDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::string text;
    char block[1U << 14];
    ssize_t size = 1;
    while (file.IsOpen() && size > 0 && text.size() <= TSReportView::kMostBytes) {
        size = read(file.Get(), block, sizeof(block));
        text.append(block, size > 0 ? static_cast<size_t>(size) : 0);
    }
    return text;
}

// Removes trees from a directory. Another one, the agent, may remove the same meanwhile.
class TCTreeRemoval
{
public:
    explicit TCTreeRemoval(int directory) : m_directory(directory) {}

    // False with errno set; what is left has a name that the agent removes.
    bool Remove(const std::string& name);

private:
    bool m_RemoveOne(const std::string& name);

    const int m_directory;
    std::vector<std::string> m_names; // of what is to go
    size_t m_moved = 0;
};

bool TCTreeRemoval::Remove(const std::string& name)
{
    m_names = {name};
    while (!m_names.empty()) {
        const std::string next = m_names.back();
        m_names.pop_back();
        if (!m_RemoveOne(next)) {
            return false;
        }
    }
    return true;
}

// A directory in it is moved beside it and is the next: depth costs neither memory nor open files.
bool TCTreeRemoval::m_RemoveOne(const std::string& name)
{
    if (unlinkat(m_directory, name.c_str(), 0) == 0 || errno == ENOENT) {
        return true;
    }
    const TCDescriptor one = OpenIn(m_directory, name, kDirectory);
    if (!one.IsOpen() || !Freeze(one.Get())) {
        return errno == ENOENT;
    }
    const bool listed = ForEachName(one.Get(), [&](const std::string& entry, unsigned char) {
        if (unlinkat(one.Get(), entry.c_str(), 0) != 0
            && unlinkat(one.Get(), entry.c_str(), AT_REMOVEDIR) != 0) {
            const std::string beside
                = kOld + std::to_string(getpid()) + "." + std::to_string(m_moved++);
            if (renameat(one.Get(), entry.c_str(), m_directory, beside.c_str()) == 0) {
                m_names.push_back(beside);
            }
        }
        return true;
    });
    return listed && (unlinkat(m_directory, name.c_str(), AT_REMOVEDIR) == 0 || errno == ENOENT);
}

} // namespace

TCReportDirectory::TCReportDirectory(std::string stateDirectory)
    : m_state(std::move(stateDirectory)), m_path(m_state + "/" + kName)
{}

TCOutcome TCReportDirectory::List(std::vector<std::string>& names) const
{
    names.clear();
    const TCDescriptor state(open(m_state.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!state.IsOpen()) {
        return FailedAt(m_state);
    }
    const TCDescriptor reports(openat(state.Get(), kName, kDirectory | O_CLOEXEC));
    if (!reports.IsOpen()) {
        return errno == ENOENT ? TCOutcome() : FailedAt(m_path);
    }
    const bool listed
        = ForEachName(reports.Get(), [&](const std::string& name, unsigned char type) {
              struct stat status;
              if (IsReport(name)
                  && (type == DT_DIR
                      || ((type == DT_UNKNOWN || type == DT_LNK)
                          && fstatat(reports.Get(), name.c_str(), &status, 0) == 0
                          && S_ISDIR(status.st_mode)))) {
                  names.push_back(name);
              }
              return true;
          });
    std::sort(names.begin(), names.end());
    return listed ? TCOutcome() : FailedAt(m_path);
}

TCReportDirectory::ERead TCReportDirectory::Read(const std::string& name, TJson& report) const
{
    const std::string path = PathOf(name);
    if (TSReportView::Read(ReadText(path + "/" + kReportFile), report)) {
        report["directory"] = path;
        return ERead::Done;
    }
    struct stat status;
    return lstat(path.c_str(), &status) != 0 && errno == ENOENT ? ERead::Gone : ERead::Unreadable;
}

TCDescriptor TCReportDirectory::Open(const std::string& name) const
{
    return TCDescriptor(open(PathOf(name).c_str(), kDirectory | O_NOFOLLOW | O_CLOEXEC));
}

TCOutcome TCReportDirectory::Remove(const std::string& name) const
{
    const TCDescriptor reports(open(m_path.c_str(), kDirectory | O_NOFOLLOW | O_CLOEXEC));
    const TCDescriptor one = OpenIn(reports.Get(), name, kDirectory);
    if (!reports.IsOpen() || !one.IsOpen()) {
        return errno == ENOENT ? TCOutcome() : FailedAt(PathOf(name)); // the agent was first
    }
    const std::string old = kOld + name;
    TCTreeRemoval removal(reports.Get());
    if (!removal.Remove(old) // of one that was killed
        || renameat(reports.Get(), name.c_str(), reports.Get(), old.c_str()) != 0) {
        return FailedAt(PathOf(name));
    }
    return removal.Remove(old) ? TCOutcome() : FailedAt(m_path + "/" + old);
}

std::string TCReportDirectory::NameOf(const std::string& number)
{
    return std::string(kDigits - std::min(kDigits, number.size()), '0') + number;
}

bool TCReportDirectory::IsNumber(const std::string& text)
{
    return !text.empty() && text.size() <= kDigits
           && text.find_first_not_of("0123456789") == std::string::npos;
}

bool TCReportDirectory::IsReport(const std::string& name)
{
    return name.size() == kDigits && IsNumber(name);
}

uint64_t TCReportDirectory::IdOf(const std::string& name)
{
    return std::strtoull(name.c_str(), nullptr, 10);
}

} // namespace ctl
} // namespace kel
