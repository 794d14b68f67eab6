#include "KELDirectoryWalk.h"

#include <fcntl.h>
#include <limits.h>

#include <cerrno>
#include <cstring>

#include "KELFileStatus.h"

namespace fs = boost::filesystem;

namespace kel {

namespace {

// A directory's part of its entries' paths: with one slash at the end. What Boost's iterator makes
// of more differs from version to version; of "//" it makes the working directory, or a host's
// name.
std::string PrefixOf(std::string path)
{
    while (!path.empty() && path.back() == '/') {
        path.pop_back();
    }
    return path += '/';
}

boost::system::error_code ToCode(int error)
{
    return boost::system::error_code(error, boost::system::system_category());
}

} // namespace

TCDirectory::TCDirectory(const std::string& path, boost::system::error_code& code)
    : m_path(PrefixOf(path)), m_prefix(m_path.size()), m_pDirectory(opendir(path.c_str())),
      m_pEntry(nullptr), m_reach(EReach::Unknown)
{
    code = ToCode(m_pDirectory == nullptr ? errno : m_Read());
}

std::optional<fs::filesystem_error> TCDirectory::Advance()
{
    const int failure = m_Read();
    if (failure == 0) {
        return std::nullopt;
    }
    m_path.resize(m_prefix);
    return fs::filesystem_error("boost::filesystem::directory_iterator::operator++",
                                fs::path(m_path + "entry").parent_path(), ToCode(failure));
}

const std::string& TCDirectory::Path()
{
    m_path.resize(m_prefix);
    return m_path += m_pEntry->d_name;
}

bool TCDirectory::IsPlain()
{
    switch (m_pEntry->d_type) {
    case DT_REG:
    case DT_FIFO:
    case DT_SOCK:
    case DT_CHR:
    case DT_BLK:
        return m_IsSearchable() && m_IsShort();
    default:
        return false;
    }
}

bool TCDirectory::Stat(struct stat& status)
{
    return m_reach != EReach::PathOnly && m_IsShort()
           && GetStatus(dirfd(m_pDirectory.get()), Name(), AT_SYMLINK_NOFOLLOW, status);
}

// A path that is too long is no way to an entry that the opened directory still shows.
bool TCDirectory::m_IsShort() const { return m_prefix + strlen(Name()) < PATH_MAX; }

// A directory may be readable and yet not searchable; one query tells for all its entries.
bool TCDirectory::m_IsSearchable()
{
    if (m_reach == EReach::Unknown) {
        struct stat status;
        m_reach = Stat(status) ? EReach::Searchable : EReach::PathOnly;
    }
    return m_reach == EReach::Searchable;
}

int TCDirectory::m_Read()
{
    do {
        errno = 0;
        m_pEntry = readdir(m_pDirectory.get());
    } while (m_pEntry != nullptr && (strcmp(Name(), ".") == 0 || strcmp(Name(), "..") == 0));
    return m_pEntry == nullptr ? errno : 0;
}

} // namespace kel
