#pragma once

#include <dirent.h>
#include <sys/stat.h>

#include <list>
#include <memory>
#include <optional>
#include <string>

#include <boost/filesystem.hpp>

namespace kel {

// A breadth-first walk of a directory.
//
// What it reports is what Boost's directory_iterator and a status query for every entry would: the
// entries in the directory's order, the error code that the last query leaves, the exceptions. It
// saves system calls where the entry itself already tells its type, and looks at entries by way of
// the opened directory, which saves the kernel the walk along the path. A type is as old as the
// directory's last read, and tells what is below a file mounted on the entry.

/// One open directory of a walk, standing at one entry.
class TCDirectory
{
public:
    /// A directory that cannot be opened, or begun, has no entries and sets the code; otherwise the
    /// code is clear.
    TCDirectory(const std::string& path, boost::system::error_code& code);

    bool AtEnd() const { return m_pEntry == nullptr; }

    /// Goes to the next entry, or the end; what stopped it when the directory cannot be read on.
    std::optional<boost::filesystem::filesystem_error> Advance();

    const char* Name() const { return m_pEntry->d_name; }
    const std::string& Path();

    /// Whether the entry is certain to be what d_type says, and a status query by path certain to
    /// succeed, for anything but a directory (something may be mounted on it) or a link.
    bool IsPlain();

    bool IsRegular() const { return m_pEntry->d_type == DT_REG; }

    /// The entry's own status, a link's included: following it from here would take it farther than
    /// from the path, all of whose links count. False when a query by path would, or might, fail.
    bool Stat(struct stat& status);

private:
    enum class EReach { Unknown, Searchable, PathOnly };

    struct TSClose
    {
        void operator()(DIR* directory) const { closedir(directory); }
    };

    bool m_IsShort() const;
    bool m_IsSearchable();
    int m_Read();

    std::string m_path; // the directory with a slash, and then the last entry asked for
    size_t m_prefix;
    std::unique_ptr<DIR, TSClose> m_pDirectory;
    dirent* m_pEntry;
    EReach m_reach;
};

/// Visits every entry below a directory, level by level. The visitor tells which are directories to
/// walk. Gives back what stopped it, when a directory could not be read on after its first entry.
template <typename Visitor>
std::optional<boost::filesystem::filesystem_error>
Walk(const boost::filesystem::path& start, boost::system::error_code& code, Visitor isDirectory)
{
    std::list<std::string> queue(1, start.string());
    while (!queue.empty()) {
        TCDirectory directory(queue.front(), code);
        queue.pop_front();
        while (!directory.AtEnd()) {
            if (isDirectory(directory)) {
                queue.push_back(directory.Path());
            }
            if (auto error = directory.Advance()) {
                return error;
            }
        }
    }
    return std::nullopt;
}

} // namespace kel
