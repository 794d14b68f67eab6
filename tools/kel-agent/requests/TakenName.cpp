#include "requests/TakenName.h"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "common/Text.h"

namespace kel {
namespace agent {

namespace {

constexpr char kDrop = 'n';
constexpr char kRebootDrop = 'r';
constexpr size_t kFiledSize = 16;
constexpr size_t kNumberSize = 12;
constexpr size_t kHeadSize = kFiledSize + kNumberSize + 1;
constexpr uint64_t kNumbers = uint64_t(1) << (4 * kNumberSize);
constexpr char kDigits[] = "0123456789abcdef";
constexpr uint64_t kNanoseconds = 1'000'000'000;

bool IsHex(const std::string& text) { return text.find_first_not_of(kDigits) == std::string::npos; }

uint64_t Number(const std::string& hex) { return std::strtoull(hex.c_str(), nullptr, 16); }

uint64_t Nanoseconds(const timespec& time)
{
    return time.tv_sec < 0 ? 0
                           : static_cast<uint64_t>(time.tv_sec) * kNanoseconds
                                 + static_cast<uint64_t>(time.tv_nsec);
}

} // namespace

std::string TSTakenName::Text() const
{
    char head[kHeadSize + 1];
    std::snprintf(head, sizeof(head), "%016" PRIx64 "%012" PRIx64 "%c", m_filed,
                  m_number % kNumbers, m_reboot ? kRebootDrop : kDrop);
    std::string text = head;
    for (const char c : m_name) {
        const auto byte = static_cast<unsigned char>(c);
        text += kDigits[byte / 16U];
        text += kDigits[byte % 16U];
    }
    return text;
}

bool TSTakenName::Read(const std::string& text, TSTakenName& name)
{
    if (text.size() <= kHeadSize || (text.size() - kHeadSize) % 2 != 0
        || !IsHex(text.substr(0, kHeadSize - 1)) || !IsHex(text.substr(kHeadSize))
        || (text[kHeadSize - 1] != kDrop && text[kHeadSize - 1] != kRebootDrop)) {
        return false;
    }
    name.m_filed = Number(text.substr(0, kFiledSize));
    name.m_number = Number(text.substr(kFiledSize, kNumberSize));
    name.m_reboot = text[kHeadSize - 1] == kRebootDrop;
    name.m_name.clear();
    for (size_t at = kHeadSize; at < text.size(); at += 2) {
        name.m_name += static_cast<char>(Number(text.substr(at, 2)));
    }
    return true;
}

// A new one every 4 microseconds, for 36 years: no agent takes requests faster.
uint64_t TSTakenName::FirstNumber() { return Nanoseconds(tools::Now()) / 4096 % kNumbers; }

uint64_t TSTakenName::Filed(const struct stat& status) { return Nanoseconds(status.st_ctim); }

} // namespace agent
} // namespace kel
