#pragma once

#include <sys/stat.h>
#include <sys/types.h>

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

} // namespace tools
} // namespace kel
