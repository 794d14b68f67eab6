#pragma once

#include <sys/stat.h>

#include <cstdint>

#include <boost/filesystem.hpp>

namespace kel {

// The status of files of any date. With a time_t of 4 bytes the system's own queries fail with
// EOVERFLOW for what is dated after 2038, and so does what stands on them, Boost's queries among
// them; whoever owns a file may date it so. A time that time_t does not hold is told as the
// nearest that it does.

/// Of an open file; false with errno set on failure.
bool GetStatus(int file, struct stat& status);

/// As fstatat() does; false with errno set on failure.
bool GetStatus(int directory, const char* path, int flags, struct stat& status);

/// As boost::filesystem::status() does; without a code it throws.
boost::filesystem::file_status StatusOf(const boost::filesystem::path& path);
boost::filesystem::file_status StatusOf(const boost::filesystem::path& path,
                                        boost::system::error_code& code);

/// As the entry itself does; it throws.
boost::filesystem::file_status StatusOf(const boost::filesystem::directory_entry& entry);

/// As boost::filesystem::file_size() does; it throws.
std::uintmax_t SizeOf(const boost::filesystem::path& path);

/// As Boost's operations of these names do, which look at a file before they act.
void Remove(const boost::filesystem::path& path, boost::system::error_code& code);
void RemoveAll(const boost::filesystem::path& path, boost::system::error_code& code);
void SetPermissions(const boost::filesystem::path& path, boost::filesystem::perms bits,
                    boost::system::error_code& code);

} // namespace kel
