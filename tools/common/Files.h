#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace kel {
namespace tools {

/// Owns an open file.
class TCDescriptor
{
public:
    /// @param descriptor  what the system has given: negative for none.
    explicit TCDescriptor(int descriptor = -1) : m_descriptor(descriptor) {}
    ~TCDescriptor() { Reset(); }
    TCDescriptor(TCDescriptor&& other) noexcept;
    TCDescriptor& operator=(TCDescriptor&& other) noexcept;
    TCDescriptor(const TCDescriptor&) = delete;
    TCDescriptor& operator=(const TCDescriptor&) = delete;

    bool IsOpen() const { return m_descriptor >= 0; }
    int Get() const { return m_descriptor; }
    void Reset(int descriptor = -1);

private:
    int m_descriptor;
};

/// The status of a file of any date. With a time_t of 4 bytes the system's own queries fail with
/// EOVERFLOW for what is dated after 2038, and whoever owns a file may date it so. A time that
/// time_t does not hold is told as the nearest that it does.
///
/// @return true on success, otherwise false with errno set.
bool GetStatus(int file, struct stat& status);

/// Of a name in an open directory, as fstatat() tells it; no link is followed.
bool GetStatus(int directory, const std::string& name, struct stat& status, int flags = 0);

/// Writes to an open file.
///
/// @return true on success, otherwise false with errno set; part of the text may be written.
bool WriteAll(int descriptor, const std::string& text);

/// Writes a file that reaches the disk. There is never one of this name before: what a killed
/// agent, or anyone else, has left there is removed, not written to.
///
/// @param directory  an open directory.
/// @return true on success, otherwise false with errno set; part of the file may be there.
bool WriteNewFile(int directory, const std::string& name, const std::string& text, mode_t mode);

/// Opens what has this name in an open directory. Whoever else may write to the directory leads
/// nobody astray: no link is followed, no directory above is reached, and nothing that is mounted
/// there is entered (EXDEV).
///
/// @return none with errno set when it cannot be opened.
TCDescriptor OpenIn(int directory, const std::string& name, int flags);

/// Whether others than a file's mode tells have rights to it, or to what is made in it; also when
/// that cannot be told.
bool HasAcl(int file);

/// Takes such rights away. The file is the agent's own.
///
/// @return true when there are none.
bool RemoveAcl(int file);

/// Makes a directory this user's alone, so that nobody else changes it, also through what he has
/// open. Its contents stay as they are.
///
/// @return true on success, otherwise false with errno set.
bool Freeze(int directory);

/// Calls a function with each name in an open directory but "." and "..", and with its type as
/// readdir() tells it, until the function returns false. It may remove what it is called for.
///
/// @return true on success, otherwise false with errno set.
bool ForEachName(int directory,
                 const std::function<bool(const std::string& name, unsigned char type)>& visit);

/// The names in an open directory but "." and "..", in its order.
///
/// @return true on success, otherwise false with errno set.
bool ListNames(int directory, std::vector<std::string>& names);

/// How many bytes were written to the files in an open directory: holes are none.
uint64_t WrittenSize(int directory);

/// Reads a regular file. Nothing else in its place is waited for.
///
/// @param flags  of open(): O_NOFOLLOW, say.
/// @param most   bytes; what is behind them stays unread.
/// @param text   replaced on success.
/// @return true on success, otherwise false with errno set.
bool ReadRegularFile(int directory, const std::string& name, int flags, size_t most,
                     std::string& text);

/// The whole text of a regular file.
///
/// @param most  the bytes of the longest that is read.
/// @return nothing, with errno set, when it cannot be read; EFBIG when it is longer.
std::optional<std::string> ReadText(const std::string& path, size_t most);

/// The names in a directory, which is followed when it is a link.
bool ListNames(const std::string& path, std::vector<std::string>& names);

} // namespace tools
} // namespace kel
