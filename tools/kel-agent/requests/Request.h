#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>

namespace kel {
namespace agent {

/// What an application has asked for: a report. See <kel/KELIssueReport.h> for where the library
/// leaves it, and in which form.
struct TSRequest
{
    std::string m_source; // the drop directory, or the key
    std::string m_name;   // of the file; the key's value
    std::string m_process;
    std::string m_thread;
    std::optional<std::string> m_mode; // the word of the file's name
    std::optional<bool> m_reboot;
    bool m_cut = false; // the library had to cut the name or value: its last fields are missing

    std::optional<std::string> m_uploadPath;
    std::string m_noPath; // why there is none, when one was given
    std::optional<uid_t> m_user;

    timespec m_filed = {};
    std::string m_stamp; // tells it from all others, also from a later one of the same name; a file
                         // that was taken has it as its name
};

/// Reads the name of a request file into process, thread and mode.
///
/// Names may have hyphens, and the fields are separated by one. Two equal halves are a name that
/// stands for both process and thread; otherwise the last hyphen separates the two.
///
/// @param cutSize  the size of a name that the library has cut, and of the longest that it makes:
/// it
///                 need not have a mode.
/// @return true on success; false, with the request untouched, for a name that the library does
///         not make.
bool ReadFileName(const std::string& name, size_t cutSize, TSRequest& request);

/// Reads a value of the key, "process|thread|reboot", in the same way.
///
/// @return true on success; false, with the request untouched, for another value.
bool ReadSlotValue(const std::string& value, TSRequest& request);

/// A stamp for a request that is kept in a file of its own: what the file is told by.
std::string Stamp(const struct stat& status);

} // namespace agent
} // namespace kel
