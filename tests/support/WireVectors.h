#pragma once

#include <algorithm>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <boost/archive/basic_archive.hpp>
#include <nlohmann/json.hpp>

namespace kel::test {

/// One group of docs/wire-vectors.json.
inline std::vector<nlohmann::json> WireVectors(const char* group)
{
    std::ifstream file(KEL_WIRE_VECTORS);
    const nlohmann::json all = nlohmann::json::parse(file);
    if (all.at("format") != 1 || all.at(group).empty()) {
        throw std::runtime_error(std::string("no vectors: ") + group);
    }
    return all.at(group);
}

/// Bytes in hexadecimal digits, with spaces between the fields.
inline std::vector<unsigned char> HexBytes(const nlohmann::json& vector, const char* member)
{
    std::string digits = vector.at(member);
    digits.erase(std::remove(digits.begin(), digits.end(), ' '), digits.end());
    std::vector<unsigned char> bytes;
    for (size_t at = 0; at < digits.size(); at += 2) {
        const unsigned long byte = std::stoul(digits.substr(at, 2), nullptr, 16);
        bytes.push_back(static_cast<unsigned char>(byte));
    }
    return bytes;
}

/// Whether our own ends write it so, and do not only meet it.
inline bool IsWritten(const nlohmann::json& vector) { return vector.value("written", true); }

/// Whether a reader has to refuse it, on whatever machine.
inline bool IsRefused(const nlohmann::json& vector) { return vector.contains("refuse"); }

inline int OwnArchiveVersion() { return static_cast<int>(boost::archive::BOOST_ARCHIVE_VERSION()); }

/// Whether the archive in it is what this machine and this Boost write, or there is none.
inline bool IsOwn(const nlohmann::json& vector)
{
    return !vector.contains("version")
           || (vector.at("word") == 8 * sizeof(size_t)
               && vector.at("version") == OwnArchiveVersion());
}

/// Whether this machine and this Boost can read the archive: Boost reads older ones, too.
inline bool IsReadable(const nlohmann::json& vector)
{
    return !IsRefused(vector) && vector.at("word") == 8 * sizeof(size_t)
           && vector.at("version") <= OwnArchiveVersion();
}

} // namespace kel::test
