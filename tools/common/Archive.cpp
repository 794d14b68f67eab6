#include "common/Archive.h"

#include <cstring>

namespace kel {
namespace tools {

namespace {

constexpr char kSignature[] = "serialization::archive";
constexpr size_t kSignatureLength = sizeof(kSignature) - 1;
constexpr size_t kVersionLength = 2;
constexpr unsigned int kFirstVersion = 8; // the first whose version takes two bytes, always
constexpr size_t kSizesLength = 4;        // of int, long, float and double
constexpr size_t kIntLength = 4;
constexpr size_t kNativeLength = kSizesLength + kIntLength; // the int is 1

size_t BodyAt(size_t word) { return word + kSignatureLength + kVersionLength + kNativeLength; }

} // namespace

TCArchiveView::TCArchiveView(const std::vector<unsigned char>& bytes) : m_bytes(bytes)
{
    for (const size_t word : {size_t(8), size_t(4)}) {
        for (const bool bigEndian : {false, true}) {
            if (m_HasHead(word, bigEndian)) {
                m_word = word;
                m_bigEndian = bigEndian;
                return;
            }
        }
    }
}

unsigned int TCArchiveView::Version() const
{
    return m_word == 0 ? 0
                       : static_cast<unsigned int>(
                           m_Number(m_word + kSignatureLength, kVersionLength, m_bigEndian));
}

std::optional<std::string_view> TCArchiveView::String() const
{
    if (m_word == 0 || m_bytes.size() - BodyAt(m_word) < m_word) {
        return std::nullopt;
    }
    const size_t textAt = BodyAt(m_word) + m_word;
    if (m_Number(BodyAt(m_word), m_word, m_bigEndian) != m_bytes.size() - textAt) {
        return std::nullopt;
    }
    return std::string_view(reinterpret_cast<const char*>(m_bytes.data()), m_bytes.size())
        .substr(textAt);
}

std::optional<int> TCArchiveView::Int() const
{
    if (m_word == 0 || m_bytes.size() - BodyAt(m_word) != kIntLength) {
        return std::nullopt;
    }
    return static_cast<int>(
        static_cast<unsigned int>(m_Number(BodyAt(m_word), kIntLength, m_bigEndian)));
}

bool TCArchiveView::m_HasHead(size_t word, bool bigEndian) const
{
    const size_t versionAt = word + kSignatureLength;
    return m_bytes.size() >= BodyAt(word) && m_Number(0, word, bigEndian) == kSignatureLength
           && std::memcmp(m_bytes.data() + word, kSignature, kSignatureLength) == 0
           && m_Number(versionAt, kVersionLength, bigEndian) >= kFirstVersion
           && m_bytes[versionAt + kVersionLength] == kIntLength
           && m_Number(versionAt + kVersionLength + kSizesLength, kIntLength, bigEndian) == 1;
}

unsigned long long TCArchiveView::m_Number(size_t at, size_t size, bool bigEndian) const
{
    unsigned long long number = 0;
    for (size_t byte = 0; byte < size; ++byte) {
        number = number << 8 | m_bytes[at + (bigEndian ? byte : size - 1 - byte)];
    }
    return number;
}

} // namespace tools
} // namespace kel
