#pragma once

#include <boost/filesystem.hpp>

namespace kel {

/// Copies a file's bytes and mode, also to another file system, and onto the disk; with the codes
/// of Boost's copy_file(). That itself does not serve: 1.74 leaves an empty file and EXDEV between
/// file systems, later ones fail where a mode cannot be set, and all wait for a FIFO's other end.
boost::system::error_code CopyContents(const boost::filesystem::path& source,
                                       const boost::filesystem::path& destination, bool overwrite);

} // namespace kel
