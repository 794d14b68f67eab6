#pragma once

#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include <boost/archive/binary_iarchive.hpp>
#include <boost/archive/binary_oarchive.hpp>

namespace kel::test {

// Where the parts of an archive of one string are, on this machine.
constexpr size_t kSignatureAt = sizeof(size_t);
constexpr size_t kVersionAt = kSignatureAt + sizeof("serialization::archive") - 1;
constexpr size_t kNativeAt = kVersionAt + 2;
constexpr size_t kStringLengthAt = kNativeAt + 8;

/// What the archive library makes of a value.
template <typename Value> std::vector<unsigned char> ArchiveOf(const Value& value)
{
    std::stringstream stream;
    boost::archive::binary_oarchive(stream) << value;
    const std::string bytes = stream.str();
    return {bytes.begin(), bytes.end()};
}

/// What the archive library reads: for archives that are known to be whole.
template <typename Value> Value ValueOf(const std::vector<unsigned char>& archive)
{
    std::stringstream stream(std::string(archive.begin(), archive.end()));
    Value value{};
    boost::archive::binary_iarchive(stream) >> value;
    return value;
}

/// Overwrites one of the archive's lengths.
inline std::vector<unsigned char> WithLength(std::vector<unsigned char> archive, size_t at,
                                             size_t length)
{
    std::memcpy(archive.data() + at, &length, sizeof(length));
    return archive;
}

} // namespace kel::test
