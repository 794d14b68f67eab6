#include "reports/ReportStore.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <kel/KELFileSystem.h>

namespace kel {
namespace agent {

using tools::ListNames;
using tools::WriteNewFile;

namespace {

constexpr char kReports[] = "/reports";
constexpr mode_t kMode = 0700;
constexpr mode_t kFileMode = 0600;
constexpr size_t kDigits = 10;
// Names that no report has, for what is being made and for what is being removed.
constexpr char kNew[] = ".new-";
constexpr char kOld[] = ".old-";

std::string Name(uint64_t id)
{
    const std::string digits = std::to_string(id);
    return std::string(kDigits - std::min(kDigits, digits.size()), '0') + digits;
}

bool IsReport(const std::string& name)
{
    return name.size() == kDigits && std::all_of(name.begin(), name.end(), [](unsigned char c) {
               return std::isdigit(c) != 0;
           });
}

bool IsUnfinished(const std::string& name)
{
    return name.rfind(kNew, 0) == 0 || name.rfind(kOld, 0) == 0;
}

uint64_t SizeOf(const std::string& directory)
{
    try {
        // What is larger than the library's result can tell is an artefact that nobody copies.
        return static_cast<uint32_t>(TSFileSystem::GetDirSize(directory));
    } catch (const boost::filesystem::filesystem_error&) {
        return 0; // somebody removes it
    }
}

} // namespace

TCReportStore::TCReportStore(const std::string& stateDirectory, const TSLimits& limits)
    : m_limits(limits), m_directory(stateDirectory + kReports, kMode, TCOwnDirectory::EMode::Kept)
{}

bool TCReportStore::Open(std::string& reason)
{
    std::string why;
    std::vector<std::string> names;
    bool open = m_directory.Open(why) && m_directory.Lock(why);
    if (open && !ListNames(m_directory.Get(), names)) {
        why = std::strerror(errno);
        open = false;
    }
    if (!open) {
        reason = m_directory.Path() + ": " + why;
        return false;
    }

    std::map<uint64_t, uint64_t> sizes;
    for (const std::string& name : names) {
        if (IsUnfinished(name)) {
            TSFileSystem::RemoveFolder(m_directory.Path() + "/" + name);
        } else if (IsReport(name)) {
            const uint64_t id = std::strtoull(name.c_str(), nullptr, 10);
            const auto known = m_sizes.find(id);
            sizes[id] = known != m_sizes.end() ? known->second : SizeOf(m_PathOf(id));
        }
    }
    m_sizes.swap(sizes);
    m_MakeRoom(0, 0);
    return true;
}

std::string TCReportStore::Newest() const
{
    return m_sizes.empty() ? "" : m_PathOf(m_sizes.rbegin()->first);
}

std::string TCReportStore::m_PathOf(uint64_t id) const
{
    return m_directory.Path() + "/" + Name(id);
}

void TCReportStore::m_MakeRoom(size_t reports, uint64_t bytes)
{
    uint64_t total = bytes;
    for (const auto& [id, size] : m_sizes) {
        total += size;
    }
    while (!m_sizes.empty()) {
        const bool tooMany = m_sizes.size() + reports > m_limits.m_reports;
        if (!tooMany && total <= m_limits.m_bytes) {
            return;
        }
        const auto oldest = m_sizes.begin();
        total -= oldest->second;
        m_Drop(oldest->first, tooMany ? std::to_string(m_limits.m_reports) + " reports"
                                      : std::to_string(m_limits.m_bytes) + " bytes");
        m_sizes.erase(oldest);
    }
}

void TCReportStore::m_Drop(uint64_t id, const std::string& reason)
{
    // In one step: half a report is none.
    const std::string old = kOld + Name(id);
    if (renameat(m_directory.Get(), Name(id).c_str(), m_directory.Get(), old.c_str()) == 0
        && TSFileSystem::RemoveFolder(m_directory.Path() + "/" + old)) {
        std::fprintf(stderr, "kel-agent: report %llu dropped: more than %s\n",
                     static_cast<unsigned long long>(id), reason.c_str());
    } else {
        std::fprintf(stderr, "kel-agent: report %llu cannot be dropped\n",
                     static_cast<unsigned long long>(id));
    }
}

TCReportDraft::TCReportDraft(TCReportStore& store)
    : m_store(store), m_id(store.m_sizes.empty() ? 1 : store.m_sizes.rbegin()->first + 1),
      m_path(store.m_directory.Path() + "/" + kNew + Name(m_id))
{}

TCReportDraft::~TCReportDraft()
{
    if (m_directory.IsOpen()) {
        TSFileSystem::RemoveFolder(m_path);
    }
}

bool TCReportDraft::Begin(std::string& reason)
{
    if (mkdir(m_path.c_str(), kMode) == 0) {
        m_directory.Reset(open(m_path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    }
    if (!m_directory.IsOpen()) {
        reason = m_path + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

bool TCReportDraft::Write(const std::string& file, const std::string& text, std::string& reason)
{
    if (!WriteNewFile(m_directory.Get(), file, text, kFileMode)) {
        reason = PathOf(file) + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

bool TCReportDraft::Finish(uint64_t size, std::string& reason)
{
    const int reports = m_store.m_directory.Get();
    const std::string name = Name(m_id);
    if (fsync(m_directory.Get()) != 0) {
        reason = m_path + ": " + std::strerror(errno);
        return false;
    }
    m_store.m_MakeRoom(1, size);
    bool done = renameat(reports, (kNew + name).c_str(), reports, name.c_str()) == 0;
    if (done) {
        m_store.m_sizes[m_id] = size;
        m_directory.Reset();
        done = fsync(reports) == 0;
    }
    if (!done) {
        reason = m_store.m_PathOf(m_id) + ": " + std::strerror(errno);
    }
    return done;
}

} // namespace agent
} // namespace kel
