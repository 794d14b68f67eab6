// The archive that the agent's answer to a policy comes in, as an application reads it.

#include <exception>

#include <boost/make_shared.hpp>

#include <kel/KELControlProxy.h>
#include <kel/KELDbusClient.h>

#include "Fuzz.h"

namespace {

using kel::fuzz::TBytes;

// An agent whose answer is any bytes.
class TCAnyAgent : public kel::IDbusClient
{
public:
    bool SetCallback(int, const boost::function<bool(const TBytes&, TBytes&)>&) override
    {
        return false;
    }
    bool UnSetCallback(int) override { return false; }
    bool IsReady() override { return true; }
    bool SendMessage(int, const TBytes&, TBytes& response, bool) override
    {
        response = m_answer;
        return true;
    }

    TBytes m_answer;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const auto agent = [] {
        const auto any = boost::make_shared<TCAnyAgent>();
        *kel::TCDbusClientProvider::m_pDbusClient = any;
        return any;
    }();
    static kel::TCControlProxy proxy;

    agent->m_answer = kel::fuzz::BytesFrom(data, size);
    try {
        proxy.SetPolicy("<policy/>");
    } catch (const std::exception&) {
        return 0; // an answer that is no archive is told so
    }
    return 0;
}
