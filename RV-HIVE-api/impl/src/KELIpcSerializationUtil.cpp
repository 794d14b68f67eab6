#include <kel/KELIpcSerializationUtil.h>

#include <sstream>
#include <string>

#include "KELLog.h"

KEL_LOG_SOURCE("KELIpcSerializationUtil", "kel::TCIpcSerializationUtil")

namespace kel {

namespace {

constexpr unsigned int kEmptyStream = 24;
constexpr unsigned int kEmptyVector = 31;

} // namespace

void TCIpcSerializationUtil::ConvertData(const std::vector<unsigned char>& in,
                                         std::stringstream& out)
{
    if (in.empty()) {
        KEL_REPORT(kEmptyVector);
        return;
    }
    out.write(reinterpret_cast<const char*>(in.data()), static_cast<std::streamsize>(in.size()));
}

void TCIpcSerializationUtil::ConvertData(std::stringstream& in, std::vector<unsigned char>& out)
{
    const std::string contents = in.str();
    if (contents.empty()) {
        KEL_REPORT(kEmptyStream);
        return;
    }
    out.assign(contents.begin(), contents.end());
}

} // namespace kel
