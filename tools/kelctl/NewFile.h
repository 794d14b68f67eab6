#pragma once

#include <string>

#include "common/Files.h"
#include "common/Outcome.h"

namespace kel {
namespace ctl {

/// A file in the making: it takes its name, and the place of a file that has it, when it is whole.
/// Until then it is beside it under a name that nobody can guess, and gone with this object. Only
/// its owner can read it.
class TCNewFile
{
public:
    TCNewFile() = default;
    ~TCNewFile();
    TCNewFile(const TCNewFile&) = delete;
    TCNewFile& operator=(const TCNewFile&) = delete;

    /// @param path  of nothing, or of a regular file.
    tools::TCOutcome Open(const std::string& path);

    /// Adds to it.
    ///
    /// @return true on success; otherwise Finish() fails, too.
    bool Write(const std::string& text);

    /// Gives it its name. The other operations are over.
    tools::TCOutcome Finish();

private:
    bool m_Flush();
    tools::TCOutcome m_Failed(int error) const;

    std::string m_path;
    std::string m_name;
    std::string m_temporary; // empty when there is none
    std::string m_text;      // that waits for more
    tools::TCDescriptor m_directory;
    tools::TCDescriptor m_file;
    int m_error = 0; // the first of writing
};

} // namespace ctl
} // namespace kel
