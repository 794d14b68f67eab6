#include "policy/PolicyArchive.h"

#include <cstring>
#include <sstream>
#include <streambuf>

#include <boost/archive/archive_exception.hpp>
#include <boost/archive/binary_iarchive.hpp>
#include <boost/archive/binary_oarchive.hpp>

#include <kel/KELIpcSerializationUtil.h>

namespace kel {
namespace agent {

namespace {

constexpr char kSignature[] = "serialization::archive";
constexpr size_t kSignatureLength = sizeof(kSignature) - 1;
constexpr size_t kVersionLength = 2;
constexpr int kFirstVersion = 8;        // the first whose version takes two bytes, always
constexpr size_t kNativeLength = 4 + 4; // the sizes of int, long, float and double; an int of 1

// Takes an archive's parts off its front.
class TCReader
{
public:
    explicit TCReader(const TSPolicyArchive::TBytes& bytes)
        : m_pNext(bytes.data()), m_left(bytes.size())
    {}

    // The next bytes; null when there are fewer.
    const unsigned char* Take(size_t length)
    {
        if (length > m_left) {
            return nullptr;
        }
        const unsigned char* const taken = m_pNext;
        m_pNext += length;
        m_left -= length;
        return taken;
    }

    bool TakeLength(size_t& length)
    {
        const unsigned char* const taken = Take(sizeof(length));
        if (taken != nullptr) {
            std::memcpy(&length, taken, sizeof(length));
        }
        return taken != nullptr;
    }

    size_t Left() const { return m_left; }

private:
    const unsigned char* m_pNext;
    size_t m_left;
};

// Lets the archive library read the bytes where they are.
class TCBytesBuffer : public std::streambuf
{
public:
    explicit TCBytesBuffer(const TSPolicyArchive::TBytes& bytes)
    {
        // The interface wants writable characters; a read buffer leaves them alone.
        char* const begin = reinterpret_cast<char*>(const_cast<unsigned char*>(bytes.data()));
        setg(begin, begin, begin + bytes.size());
    }
};

// The length of the string, when it and all before it are what they should be.
bool HasTrueLengths(const TSPolicyArchive::TBytes& archive, size_t& length)
{
    TCReader reader(archive);
    if (!reader.TakeLength(length) || length != kSignatureLength) {
        return false;
    }
    const unsigned char* const signature = reader.Take(kSignatureLength);
    if (signature == nullptr || std::memcmp(signature, kSignature, kSignatureLength) != 0) {
        return false;
    }
    const unsigned char* const version = reader.Take(kVersionLength);
    if (version == nullptr || version[0] < kFirstVersion) {
        return false;
    }
    return reader.Take(kNativeLength) != nullptr && reader.TakeLength(length)
           && length == reader.Left();
}

// The length before the signature has 4 bytes there and 8 here, or the reverse.
bool IsOfOtherWordSize(const TSPolicyArchive::TBytes& archive)
{
    constexpr size_t signatureAt = sizeof(size_t) == 8 ? 4 : 8;
    return archive.size() > signatureAt + kSignatureLength
           && std::memcmp(archive.data() + signatureAt, kSignature, kSignatureLength) == 0;
}

} // namespace

EPolicyArchive TSPolicyArchive::Read(const TBytes& archive, size_t mostBytes, std::string& policy)
{
    size_t length = 0;
    if (!HasTrueLengths(archive, length)) {
        return IsOfOtherWordSize(archive) ? EPolicyArchive::Foreign : EPolicyArchive::NoPolicy;
    }
    if (length > mostBytes) {
        return EPolicyArchive::TooLarge;
    }
    try {
        TCBytesBuffer buffer(archive);
        boost::archive::binary_iarchive input(buffer);
        std::string text;
        input >> text;
        policy.swap(text);
        return EPolicyArchive::Policy;
    } catch (const boost::archive::archive_exception&) {
        return EPolicyArchive::Foreign;
    }
}

void TSPolicyArchive::Write(int answer, TBytes& archive)
{
    std::stringstream stream;
    boost::archive::binary_oarchive(stream) << answer;
    TCIpcSerializationUtil::ConvertData(stream, archive);
}

} // namespace agent
} // namespace kel
