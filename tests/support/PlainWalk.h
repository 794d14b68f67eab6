#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include <boost/filesystem.hpp>

namespace kel::test {

// The recursive walks in their plainest form, without a thought for the time: Boost is asked for
// the status of every entry. The library's are compared with these, in what they report and in
// time.

inline bool PlainGetFiles(std::vector<boost::filesystem::path>& files,
                          const boost::filesystem::path& directory, const std::string& extension)
{
    namespace fs = boost::filesystem;

    std::deque<std::string> queue{directory.string()};
    boost::system::error_code code;
    while (!queue.empty()) {
        fs::directory_iterator entry(queue.front(), code);
        queue.pop_front();
        for (; entry != fs::directory_iterator(); ++entry) {
            if (fs::is_directory(fs::status(entry->path(), code))) {
                queue.push_back(entry->path().string());
            } else if (fs::is_regular_file(entry->status())
                       && entry->path().extension() == fs::path(extension)) {
                files.push_back(entry->path().filename());
            }
        }
    }
    return !code;
}

/// @param messages  gets the text of the error line, if there is one.
inline int PlainGetDirSize(const boost::filesystem::path& directory,
                           std::vector<std::string>& messages)
{
    namespace fs = boost::filesystem;

    const std::string failure = "Error getting dir size, boost error ";
    std::uint32_t total = 0;
    std::deque<std::string> queue{directory.string()};
    boost::system::error_code code;
    while (!queue.empty()) {
        fs::directory_iterator entry(queue.front(), code);
        queue.pop_front();
        while (entry != fs::directory_iterator()) {
            if (fs::is_directory(fs::status(entry->path(), code))) {
                queue.push_back(entry->path().string());
            } else {
                total += static_cast<std::uint32_t>(fs::file_size(entry->path()));
            }
            try {
                ++entry;
            } catch (const fs::filesystem_error& error) {
                messages.push_back(failure + error.what());
                return 20971520;
            }
        }
    }
    if (code) {
        messages.push_back(failure + std::to_string(code.value()));
        return 0;
    }
    return static_cast<int>(total);
}

} // namespace kel::test
