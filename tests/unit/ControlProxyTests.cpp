#include <cstdint>
#include <future>
#include <limits>

#include <boost/make_shared.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kel/KELControlProxy.h>
#include <kel/KELDbusClient.h>

#include "Allocations.h"
#include "Messages.h"
#include "support/Archives.h"
#include "support/Threads.h"

using kel::TCControlProxy;
using kel::TCDbusClientProvider;
using kel::test::ArchiveOf;
using kel::test::ValueOf;
using kel::test::WithLength;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

namespace {

typedef std::vector<unsigned char> TBytes;

// The agent behind the channel.
class TCFakeClient : public kel::IDbusClient
{
public:
    bool SetCallback(int, const boost::function<bool(const TBytes&, TBytes&)>&) override
    {
        return false;
    }
    bool UnSetCallback(int) override { return false; }
    bool IsReady() override { return true; }
    bool SendMessage(int type, const TBytes& data, TBytes& response, bool async) override
    {
        m_types.push_back(type);
        m_async = m_async || async;
        m_request = data;
        if (m_answer) {
            response = m_response;
        }
        return m_answer;
    }

    bool m_answer = true;
    TBytes m_response;

    std::vector<int> m_types;
    bool m_async = false;
    TBytes m_request;
};

class ControlProxy : public testing::Test
{
protected:
    ControlProxy() : m_agent(boost::make_shared<TCFakeClient>())
    {
        *TCDbusClientProvider::m_pDbusClient = m_agent;
        m_proxy.reset(new TCControlProxy);
    }

    ~ControlProxy() override { TCDbusClientProvider::m_pDbusClient->reset(); }

    kel::test::LogRecorder m_log;
    boost::shared_ptr<TCFakeClient> m_agent;
    std::unique_ptr<TCControlProxy> m_proxy;
};

TEST_F(ControlProxy, PolicyIsSentAsAnArchiveAndWaitedFor)
{
    m_agent->m_response = ArchiveOf(0);

    EXPECT_EQ(m_proxy->SetPolicy("<policy/>"), 0);

    EXPECT_THAT(m_agent->m_types, ElementsAre(4));
    EXPECT_FALSE(m_agent->m_async);
    EXPECT_EQ(m_agent->m_request, ArchiveOf(std::string("<policy/>")));
    EXPECT_THAT(m_log.Lines(), IsEmpty());
}

TEST_F(ControlProxy, AnyTextArrivesAsItIs)
{
    m_agent->m_response = ArchiveOf(0);
    std::string large(4 * 1024 * 1024, '\0');
    for (size_t i = 0; i < large.size(); ++i) {
        large[i] = static_cast<char>(i * 7 + i / 256);
    }
    for (const std::string& policy : {std::string(), std::string("a\0b\0", 4), large}) {
        SCOPED_TRACE(policy.size());

        EXPECT_EQ(m_proxy->SetPolicy(policy), 0);

        EXPECT_TRUE(m_agent->m_request == ArchiveOf(policy));
        EXPECT_TRUE(ValueOf<std::string>(m_agent->m_request) == policy);
    }
}

TEST_F(ControlProxy, TheAgentsResultIsReturnedUnchanged)
{
    for (const int result :
         {0, 7, -1, 1, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()}) {
        m_agent->m_response = ArchiveOf(result);

        EXPECT_EQ(m_proxy->SetPolicy("x"), result);
    }
}

TEST_F(ControlProxy, NoAnswerIsMinusOne)
{
    m_agent->m_answer = false;

    EXPECT_EQ(m_proxy->SetPolicy("x"), -1);

    EXPECT_THAT(m_agent->m_types, SizeIs(1));
}

TEST_F(ControlProxy, BytesBehindTheResultAreIgnored)
{
    m_agent->m_response = ArchiveOf(7);
    m_agent->m_response.push_back(1);

    EXPECT_EQ(m_proxy->SetPolicy("x"), 7);
}

TEST_F(ControlProxy, AReplyThatIsNoArchiveThrows)
{
    m_agent->m_response = TBytes(100, 'x');
    EXPECT_THROW(m_proxy->SetPolicy("x"), boost::archive::archive_exception);

    m_agent->m_response = ArchiveOf(7);
    m_agent->m_response[sizeof(size_t)] ^= 1; // in the signature
    EXPECT_THROW(m_proxy->SetPolicy("x"), boost::archive::archive_exception);
}

TEST_F(ControlProxy, AReplyThatEndsTooEarlyThrowsWhereverItEnds)
{
    const TBytes whole = ArchiveOf(7);
    for (size_t size = 1; size < whole.size(); ++size) {
        SCOPED_TRACE(size);
        m_agent->m_response.assign(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size));

        EXPECT_THROW(m_proxy->SetPolicy("x"), boost::archive::archive_exception);
    }
}

TEST_F(ControlProxy, AnEmptyReplyIsReportedAndThrows)
{
    m_agent->m_response.clear();

    EXPECT_THROW(m_proxy->SetPolicy("x"), boost::archive::archive_exception);

    EXPECT_THAT(TakeMessages(m_log),
                ElementsAre("6 Error for RV-HIVE-api/impl/src/KELIpcSerializationUtil file in "
                            "line 31."));
}

TEST_F(ControlProxy, AForgedLengthThrowsAtOnceAndCostsNoMemory)
{
    const size_t lengths[]
        = {sizeof("serialization::archive"), 2000000000, std::numeric_limits<size_t>::max() / 2,
           std::numeric_limits<size_t>::max() - 8, std::numeric_limits<size_t>::max()};
    for (const size_t length : lengths) {
        SCOPED_TRACE(length);
        m_agent->m_response = WithLength(ArchiveOf(7), 0, length);
        size_t largest = 0;
        {
            const TCAllocations counted;
            EXPECT_THROW(m_proxy->SetPolicy("x"), boost::archive::archive_exception);
            largest = counted.Largest();
        }
        EXPECT_LT(largest, 64u * 1024);
    }
}

TEST_F(ControlProxy, HoldsTheClientForItsWholeLife)
{
    EXPECT_EQ(m_agent.use_count(), 2);
    m_proxy.reset();
    EXPECT_EQ(m_agent.use_count(), 1);
}

// In every build type: the library keeps its assertions whatever NDEBUG says.
TEST_F(ControlProxy, AMissingClientIsAFatalAssertion)
{
    testing::FLAGS_gtest_death_test_style = "fast";
    m_proxy->m_pClient.reset();

    EXPECT_DEATH(m_proxy->SetPolicy("x"), "px != 0");
}

class ControlSingleton : public ControlProxy
{
protected:
    ~ControlSingleton() override
    {
        TCControlProxy::Destroy();
        TCControlProxy::m_destroyed = false;
    }
};

TEST_F(ControlSingleton, IsOneObjectUntilItIsDestroyed)
{
    boost::shared_ptr<kel::IControl> held = TCControlProxy::Instance();
    ASSERT_NE(held, nullptr);
    EXPECT_EQ(TCControlProxy::Instance(), held);

    TCControlProxy::Destroy();

    EXPECT_EQ(TCControlProxy::Instance(), nullptr);
    EXPECT_EQ(TCControlProxy::Instance(), nullptr);
    EXPECT_EQ(held.use_count(), 1);
    m_agent->m_response = ArchiveOf(7);
    EXPECT_EQ(held->SetPolicy("x"), 7);
}

TEST_F(ControlSingleton, MayBeDestroyedBeforeItsFirstUse)
{
    TCControlProxy::Destroy();

    EXPECT_EQ(TCControlProxy::Instance(), nullptr);
}

// Both have seen that there is none when the first of them may make it.
TEST_F(ControlSingleton, ThreadsThatAskTogetherGetOneObject)
{
    std::future<boost::shared_ptr<kel::IControl>> first;
    std::future<boost::shared_ptr<kel::IControl>> second;
    {
        const kel::TCStaticReadLock lock(TCControlProxy::m_rwlock);
        first = kel::test::CallUntilItSleeps(&TCControlProxy::Instance);
        second = kel::test::CallUntilItSleeps(&TCControlProxy::Instance);
    }

    const boost::shared_ptr<kel::IControl> object = first.get();
    EXPECT_NE(object, nullptr);
    EXPECT_EQ(second.get(), object);
    EXPECT_EQ(object, TCControlProxy::Instance());
}

TEST_F(ControlSingleton, NoneIsMadeForWhoAskedBeforeTheEndAndWaitedThroughIt)
{
    for (int round = 0; round < 20; ++round) {
        TCControlProxy::m_destroyed = false;
        std::future<void> end;
        std::future<boost::shared_ptr<kel::IControl>> use;
        {
            const kel::TCStaticReadLock lock(TCControlProxy::m_rwlock);
            end = kel::test::CallUntilItSleeps(&TCControlProxy::Destroy);
            use = kel::test::CallUntilItSleeps(&TCControlProxy::Instance);
        }
        end.wait();

        // Whoever of the two was first: no object is left that the library still holds.
        const boost::shared_ptr<kel::IControl> object = use.get();
        EXPECT_LE(object.use_count(), 1);
        EXPECT_EQ(TCControlProxy::Instance(), nullptr);
    }
}

} // namespace
