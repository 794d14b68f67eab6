#pragma once

#include <boost/filesystem.hpp>

namespace kel {

/// Copies a file's bytes and mode, also to another file system; as Boost's copy_file() does it,
/// with the same codes, but for a FIFO on either end, which is not waited for.
boost::system::error_code CopyContents(const boost::filesystem::path& source,
                                       const boost::filesystem::path& destination, bool overwrite);

} // namespace kel
