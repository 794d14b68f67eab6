#include "reports/ReportStore.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <vector>

#include <kel/KELFileSystem.h>

namespace kel {
namespace agent {

using tools::ListNames;
using tools::TCDescriptor;
using tools::TCOutcome;
using tools::WriteNewFile;
using tools::WrittenSize;

namespace {

constexpr char kReports[] = "/reports";
constexpr mode_t kMode = 0700;
constexpr mode_t kFileMode = 0600;
constexpr size_t kDigits = 10;
constexpr size_t kMostOfAText = 64U << 10; // of a report.json: ours are smaller
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

TSOrigin OriginOf(int directory)
{
    const TCDescriptor file(
        openat(directory, kReportFile, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    std::string text(kMostOfAText, '\0');
    size_t size = 0;
    ssize_t n = 1;
    while (n > 0 && size < text.size()) {
        n = read(file.Get(), &text[size], text.size() - size);
        size += n > 0 ? static_cast<size_t>(n) : 0;
    }
    text.resize(size);
    return OriginIn(text);
}

TCDescriptor OpenDirectory(const std::string& path)
{
    return TCDescriptor(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

TCOutcome FailedAt(const std::string& path)
{
    return TCOutcome::Failed(path + ": " + std::strerror(errno));
}

} // namespace

TCReportStore::TCReportStore(const std::string& stateDirectory, const TSLimits& limits)
    : m_directory(stateDirectory + kReports, kMode), m_shares(limits)
{}

TCOutcome TCReportStore::Open()
{
    std::string why;
    if (!m_directory.Open(why) || !m_directory.Lock(why)) {
        return TCOutcome::Failed(m_directory.Path() + ": " + why);
    }
    std::vector<std::string> names;
    if (!ListNames(m_directory.Get(), names)) {
        return FailedAt(m_directory.Path());
    }

    std::set<uint64_t> gone = m_shares.Ids();
    for (const std::string& name : names) {
        if (IsUnfinished(name) && m_drafts.count(name) == 0) {
            TSFileSystem::RemoveFolder(m_directory.Path() + "/" + name);
        } else if (IsReport(name)) {
            const uint64_t id = std::strtoull(name.c_str(), nullptr, 10);
            gone.erase(id);
            m_Learn(id);
        }
    }
    for (const uint64_t id : gone) {
        m_shares.Remove(id);
    }
    m_MakeRoom(std::nullopt);
    return TCOutcome();
}

TSOrigin TCReportStore::Newest() const
{
    const uint64_t id = m_shares.NewestId();
    return id == 0 ? TSOrigin() : OriginOf(OpenDirectory(m_PathOf(id)).Get());
}

// Of one that another agent has made, or this one in an earlier life.
void TCReportStore::m_Learn(uint64_t id)
{
    if (!m_shares.Has(id)) {
        const TCDescriptor directory = OpenDirectory(m_PathOf(id));
        m_shares.Add(id, OriginOf(directory.Get()).m_user, WrittenSize(directory.Get()));
    }
}

std::string TCReportStore::m_PathOf(uint64_t id) const
{
    return m_directory.Path() + "/" + Name(id);
}

void TCReportStore::m_MakeRoom(const std::optional<TCShares::TSNew>& added)
{
    const TSLimits& limits = m_shares.Limits();
    while (const auto id = m_shares.NextToGo(added)) {
        m_Drop(*id, m_shares.AreTooMany(added) ? std::to_string(limits.m_reports) + " reports"
                                               : std::to_string(limits.m_bytes) + " bytes");
        m_shares.Remove(*id);
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

TCReportDraft::TCReportDraft(TCReportStore& store, const TOwner& owner)
    : m_store(store), m_owner(owner), m_name(kNew + std::to_string(++store.m_draftNumber)),
      m_path(store.m_directory.Path() + "/" + m_name)
{
    store.m_drafts.insert(m_name);
}

TCReportDraft::~TCReportDraft()
{
    if (m_directory.IsOpen()) {
        TSFileSystem::RemoveFolder(m_path);
    }
    m_store.m_drafts.erase(m_name);
}

TCOutcome TCReportDraft::Begin()
{
    if (mkdir(m_path.c_str(), kMode) == 0) {
        m_directory = OpenDirectory(m_path);
    }
    return m_directory.IsOpen() ? TCOutcome() : FailedAt(m_path);
}

TCOutcome TCReportDraft::Write(const std::string& file, const std::string& text)
{
    return WriteNewFile(m_directory.Get(), file, text, kFileMode) ? TCOutcome()
                                                                  : FailedAt(PathOf(file));
}

void TCReportDraft::Remove(const std::string& file)
{
    unlinkat(m_directory.Get(), file.c_str(), 0);
}

TCOutcome TCReportDraft::Finish(uint64_t size)
{
    const int reports = m_store.m_directory.Get();
    const uint64_t id = Id();
    if (fsync(m_directory.Get()) != 0) {
        return FailedAt(m_path);
    }
    m_store.m_MakeRoom(TCShares::TSNew{m_owner, size});
    if (renameat(reports, m_name.c_str(), reports, Name(id).c_str()) != 0) {
        return FailedAt(m_store.m_PathOf(id));
    }
    m_store.m_shares.Add(id, m_owner, size);
    m_directory.Reset();
    return fsync(reports) == 0 ? TCOutcome() : FailedAt(m_store.m_PathOf(id));
}

} // namespace agent
} // namespace kel
