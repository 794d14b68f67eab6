#include <kel/KELControlProxy.h>

#include <cstring>
#include <sstream>
#include <vector>

#include <boost/archive/binary_iarchive.hpp>
#include <boost/archive/binary_oarchive.hpp>

#include <kel/KELDbusClient.h>
#include <kel/KELDeactivator.h>
#include <kel/KELIpcSerializationUtil.h>
#include <kel/api.h>

#include "KELFailureNote.h"
#include "KELLog.h"
#include "KELSingletonLife.h"

KEL_LOG_SOURCE("KELControlProxy", "kel::TCControlProxy")

namespace kel {

namespace {

constexpr unsigned int kNoClient = 34;
constexpr int kSetPolicy = 4;
constexpr int kNoAnswer = -1;

// An archive begins with the length of its signature, and the archive library believes it: a
// forged one would cost gigabytes before the read fails.
bool HasFalseLength(const std::vector<unsigned char>& archive)
{
    size_t length = 0;
    if (archive.size() < sizeof(length)) {
        return false; // too short to be believed
    }
    std::memcpy(&length, archive.data(), sizeof(length));
    return length > archive.size() - sizeof(length);
}

} // namespace

bool TCControlProxy::m_destroyed = false;
TCStaticRwLock TCControlProxy::m_rwlock;

TCControlProxy::TCControlProxy() : m_pClient(TCDbusClientProvider::Get(false))
{
    if (!m_pClient) {
        KEL_REPORT(kNoClient);
    }
}

TCControlProxy::~TCControlProxy() = default;

int TCControlProxy::SetPolicy(const std::string& policy)
{
    ClearFailure();
    std::stringstream requestStream;
    boost::archive::binary_oarchive(requestStream) << policy;
    std::vector<unsigned char> request;
    TCIpcSerializationUtil::ConvertData(requestStream, request);

    int result = kNoAnswer;
    std::vector<unsigned char> response;
    if (m_pClient->SendMessage(kSetPolicy, request, response, false)) {
        if (HasFalseLength(response)) {
            response.resize(1); // the read fails as it would have, at once
        }
        std::stringstream responseStream;
        NoteFailure(EFailure::Unreadable); // unless the read does not throw
        TCIpcSerializationUtil::ConvertData(response, responseStream);
        boost::archive::binary_iarchive(responseStream) >> result;
        ClearFailure();
    }
    return result;
}

boost::shared_ptr<IControl> TCControlProxy::Instance()
{
    return TSSingletonLife<TCControlProxy>::Instance();
}

void TCControlProxy::Destroy() { TSSingletonLife<TCControlProxy>::Destroy(); }

namespace api {

boost::shared_ptr<IControl> GetControl()
{
    TCDeactivator::RegisterDBUS(&TCControlProxy::Destroy);
    if (TCDeactivator::HasBegun()) {
        NoteFailure(EFailure::Ended);
        return nullptr; // an object made now would never be ended, and one still there is about to
    }
    return TCControlProxy::Instance();
}

} // namespace api

} // namespace kel
