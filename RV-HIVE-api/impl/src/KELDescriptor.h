#pragma once

#include <cstddef>
#include <cstdio>

namespace kel {

/// Owns a file descriptor, or a negative number where opening one has failed.
class TCDescriptor
{
public:
    explicit TCDescriptor(int descriptor) : m_descriptor(descriptor) {}
    ~TCDescriptor();
    TCDescriptor(const TCDescriptor&) = delete;
    TCDescriptor& operator=(const TCDescriptor&) = delete;

    int Get() const { return m_descriptor; }

private:
    int m_descriptor;
};

/// Closes a stream, for std::unique_ptr.
struct TSClose
{
    void operator()(FILE* file) const { fclose(file); }
};

/// Opens a regular file to write to, or makes it, where anybody may have put something else under
/// its name: follows no link in the last place, waits for nobody (for another process's lease a
/// second at most), and refuses whatever has no bytes of its own or a second name.
///
/// @param flags  of open(), the access mode among them.
/// @return the descriptor, for the caller to close; -1 and errno.
int OpenOwnFile(const char* path, int flags);

/// Makes a stream of a descriptor, which is closed with it; at once, when there is no memory. A
/// negative one makes none. Null and errno on failure.
FILE* ToStream(int descriptor, const char* mode);

/// Writes all the bytes; false and errno when that fails.
bool WriteAll(int descriptor, const char* bytes, size_t size);

} // namespace kel
