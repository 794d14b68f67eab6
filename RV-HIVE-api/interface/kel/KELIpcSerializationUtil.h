#pragma once

#include <iosfwd>
#include <vector>

#include <kel/KELExport.h>

namespace kel {

/// Carries bytes between the string streams that archives are written to and the channel's byte
/// vectors. Stateless: any thread.
///
/// @snippet class-examples.cpp TCIpcSerializationUtil
class KEL_EXPORT TCIpcSerializationUtil
{
public:
    /// Writes all bytes to the stream, unchanged. An empty vector is reported as a failed check
    /// and writes nothing.
    static void ConvertData(const std::vector<unsigned char>& in, std::stringstream& out);

    /// Replaces the vector by the whole contents of the stream, whatever was read from it so far.
    /// An empty stream is reported as a failed check and leaves the vector unchanged.
    static void ConvertData(std::stringstream& in, std::vector<unsigned char>& out);
};

} // namespace kel
