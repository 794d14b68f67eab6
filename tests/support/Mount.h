#pragma once

#include <string>

namespace kel::test {

/// A mount of the test's own, in the sandbox, gone with this object.
class Mount
{
public:
    /// An empty file system on a directory, which is made when it is missing.
    ///
    /// @param options  of a tmpfs: "size=1m", "ro"
    explicit Mount(const std::string& directory, const std::string& options = "");

    /// Mounts a file or directory on another one of its kind.
    static Mount Bind(const std::string& source, const std::string& target);

    ~Mount();
    Mount(const Mount&) = delete;
    Mount& operator=(const Mount&) = delete;

    /// Gives it other flags, MS_RDONLY or none, as soon as the system permits it: no file may be
    /// open for writing.
    void Remount(unsigned long flags) const;

private:
    Mount(const std::string& source, const std::string& target, const char* type,
          unsigned long flags, const std::string& options);

    const std::string m_target;
};

} // namespace kel::test
