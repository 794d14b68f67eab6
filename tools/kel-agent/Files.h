#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <string>
#include <vector>

namespace kel {
namespace agent {

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

/// The names in an open directory but "." and "..", in its order.
///
/// @return true on success, otherwise false with errno set.
bool ListNames(int directory, std::vector<std::string>& names);

/// A directory that belongs to the agent, for as long as it is at its path.
class TCOwnDirectory
{
public:
    enum class EMode { Given, Kept };

    /// @param mode     of a directory that is made, and with EMode::Given also of one that exists.
    TCOwnDirectory(std::string path, mode_t mode, EMode existing);

    /// Opens the directory, unless it is open: makes a missing one, and takes one that belongs to
    /// somebody else over, if the agent may. A link in its place is not followed.
    ///
    /// @param reason  replaced by one line on failure; untouched otherwise.
    bool Open(std::string& reason);

    /// Has it, until Unlock() or its end, for this process alone. It is open.
    ///
    /// @param reason  as above.
    bool Lock(std::string& reason);
    void Unlock();

    int Get() const { return m_descriptor.Get(); }
    const std::string& Path() const { return m_path; }

private:
    const std::string m_path;
    const mode_t m_mode;
    const EMode m_existing;
    TCDescriptor m_descriptor;
    bool m_locked;
};

} // namespace agent
} // namespace kel
