#include "trace/Pcap.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <limits>

#include "common/Text.h"

namespace kel {
namespace ctl {

namespace {

constexpr TMicroseconds kSecond = 1'000'000;
constexpr std::uint32_t kMagic = 0xa1b2c3d4;
constexpr std::uint32_t kMagicOfNanoseconds = 0xa1b23c4d;
constexpr std::uint32_t kMagicOfPcapng = 0x0a0d0d0a; // the same in either byte order
constexpr std::uint16_t kMajorVersion = 2;
constexpr std::uint16_t kMinorVersion = 4;
constexpr std::uint32_t kDBus = 231;           // the link type
constexpr std::uint32_t kLongest = 128U << 20; // message that D-Bus knows
constexpr size_t kStep = 65536;                // of bytes, read before more memory is taken
constexpr size_t kHeadSize = 24;
constexpr size_t kRecordHeadSize = 16;

std::uint32_t NumberOf(const unsigned char* bytes, bool bigEndian)
{
    std::uint32_t number = 0;
    for (size_t at = 0; at < sizeof(number); ++at) {
        number = number << 8 | bytes[bigEndian ? at : sizeof(number) - 1 - at];
    }
    return number;
}

template <typename Number> void Append(std::string& text, Number number)
{
    text.append(reinterpret_cast<const char*>(&number), sizeof(number));
}

} // namespace

TMicroseconds NowInMicroseconds()
{
    const timespec now = tools::Now();
    return TMicroseconds(now.tv_sec) * kSecond + now.tv_nsec / 1000;
}

std::string IsoTime(TMicroseconds time)
{
    const TMicroseconds seconds
        = std::min<TMicroseconds>(time / kSecond, std::numeric_limits<time_t>::max());
    return tools::IsoTime({static_cast<time_t>(seconds), static_cast<long>(time % kSecond) * 1000});
}

tools::TCOutcome TCPcapReader::Open(const std::string& path)
{
    m_path = path == "-" ? "standard input" : tools::Printable(path);
    m_file.reset(path == "-" ? stdin : std::fopen(path.c_str(), "rbe"));
    if (!m_file) {
        return tools::TCOutcome::Failed(m_path + ": " + std::strerror(errno));
    }
    return m_ReadHead();
}

bool TCPcapReader::Next(TSPcapRecord& record, tools::TCOutcome& outcome)
{
    unsigned char head[kRecordHeadSize];
    const size_t size = m_Read(head, sizeof(head));
    if (size < sizeof(head)) {
        if (std::ferror(m_file.get()) != 0) {
            outcome = m_Broken(std::strerror(errno));
        } else if (size > 0) {
            outcome = m_Broken("it ends within the head of a message");
        }
        return false;
    }
    const std::uint32_t part = m_Number(head + 8);
    if (part > kLongest) {
        outcome = m_Broken("a message of " + std::to_string(part) + " bytes, which D-Bus has not");
        return false;
    }
    record.m_time
        = m_Number(head) * kSecond
          + std::min<TMicroseconds>(m_Number(head + 4) / (m_nanoseconds ? 1000U : 1U), kSecond - 1);
    record.m_whole = part == m_Number(head + 12);
    record.m_bytes.clear();
    for (size_t read = 0; read < part;) {
        const size_t step = std::min<size_t>(kStep, part - read);
        record.m_bytes.resize(read + step);
        if (m_Read(record.m_bytes.data() + read, step) < step) {
            outcome = m_Broken("it ends within a message of " + std::to_string(part) + " bytes");
            return false;
        }
        read += step;
    }
    ++m_records;
    return true;
}

tools::TCOutcome TCPcapReader::m_ReadHead()
{
    unsigned char head[kHeadSize];
    errno = 0;
    const size_t size = m_Read(head, sizeof(head));
    if (std::ferror(m_file.get()) != 0) {
        return tools::TCOutcome::Failed(m_path + ": " + std::strerror(errno));
    }
    for (const bool bigEndian : {false, true}) {
        const std::uint32_t magic = size < 4 ? 0 : NumberOf(head, bigEndian);
        if (magic == kMagicOfPcapng) {
            return tools::TCOutcome::Failed(m_path
                                            + ": a pcapng; save it as pcap, and it can be read");
        }
        if (magic != kMagic && magic != kMagicOfNanoseconds) {
            continue;
        }
        if (size < sizeof(head)) {
            return tools::TCOutcome::Failed(m_path + ": it ends within its head");
        }
        m_bigEndian = bigEndian;
        m_nanoseconds = magic == kMagicOfNanoseconds;
        const std::uint32_t link = m_Number(head + 20) & 0x0fffffffU; // above are notes on frames
        if (link != kDBus) {
            return tools::TCOutcome::Failed(m_path + ": a pcap of link type " + std::to_string(link)
                                            + ", not of D-Bus, which is 231");
        }
        return {};
    }
    return tools::TCOutcome::Failed(m_path + ": it is no pcap");
}

size_t TCPcapReader::m_Read(void* bytes, size_t size)
{
    return std::fread(bytes, 1, size, m_file.get());
}

std::uint32_t TCPcapReader::m_Number(const unsigned char* bytes) const
{
    return NumberOf(bytes, m_bigEndian);
}

tools::TCOutcome TCPcapReader::m_Broken(const std::string& reason) const
{
    return tools::TCOutcome::Failed(m_path + ": behind " + std::to_string(m_records)
                                    + " messages: " + reason);
}

std::string PcapHead()
{
    std::string head;
    Append(head, kMagic);
    Append(head, kMajorVersion);
    Append(head, kMinorVersion);
    Append(head, std::uint64_t(0)); // time zone and accuracy, which nobody uses
    Append(head, kLongest);
    Append(head, kDBus);
    return head;
}

std::string PcapRecord(TMicroseconds time, const unsigned char* bytes, size_t size)
{
    std::string record;
    record.reserve(kRecordHeadSize + size);
    Append(record, static_cast<std::uint32_t>(time / kSecond));
    Append(record, static_cast<std::uint32_t>(time % kSecond));
    Append(record, static_cast<std::uint32_t>(size));
    Append(record, static_cast<std::uint32_t>(size));
    record.append(reinterpret_cast<const char*>(bytes), size);
    return record;
}

} // namespace ctl
} // namespace kel
