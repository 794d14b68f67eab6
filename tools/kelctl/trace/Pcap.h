#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "common/Outcome.h"

namespace kel {
namespace ctl {

/// A time of day in microseconds, as files of this form have it: from 1970 to 2106.
typedef std::int64_t TMicroseconds;

/// The time of now.
TMicroseconds NowInMicroseconds();

/// As ISO 8601 has it.
std::string IsoTime(TMicroseconds time);

/// A message of the bus in a file.
struct TSPcapRecord
{
    TMicroseconds m_time = 0;
    std::vector<unsigned char> m_bytes;
    bool m_whole = true; // otherwise who has written the file has cut it
};

/// Reads a file of messages of the bus: a pcap whose link type is D-Bus. Its writer may be a
/// stranger and of the other byte order: no more memory is taken than there are bytes.
class TCPcapReader
{
public:
    /// @param path  "-" for standard input.
    tools::TCOutcome Open(const std::string& path);

    /// Reads the next message.
    ///
    /// @return false at the end, and with a reason where the file cannot be read any further.
    bool Next(TSPcapRecord& record, tools::TCOutcome& outcome);

private:
    struct TSClose
    {
        void operator()(std::FILE* file) const
        {
            if (file != stdin) {
                std::fclose(file);
            }
        }
    };

    tools::TCOutcome m_ReadHead();
    size_t m_Read(void* bytes, size_t size);
    std::uint32_t m_Number(const unsigned char* bytes) const;
    tools::TCOutcome m_Broken(const std::string& reason) const;

    std::unique_ptr<std::FILE, TSClose> m_file;
    std::string m_path;
    bool m_bigEndian = false;
    bool m_nanoseconds = false;
    unsigned long long m_records = 0;
};

/// What such a file begins with, in this machine's byte order.
std::string PcapHead();

/// A message of it.
std::string PcapRecord(TMicroseconds time, const unsigned char* bytes, size_t size);

} // namespace ctl
} // namespace kel
