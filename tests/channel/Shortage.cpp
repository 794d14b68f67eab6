// Ends and proxies where there is no memory, and proxies where there is no client.

#include <dlfcn.h>

#include <memory>
#include <new>

#include <boost/make_shared.hpp>

#include <kel/KELCallbacksProxy.h>
#include <kel/KELControlProxy.h>

#include "channel/ChannelTest.h"
#include "support/MemoryShortage.h"

namespace {

bool noClient = false;

} // namespace

namespace kel {

// In place of the library's.
boost::shared_ptr<IDbusClient> TCDbusClientProvider::Get(bool test)
{
    static const auto next = reinterpret_cast<boost::shared_ptr<IDbusClient> (*)(bool)>(
        dlsym(RTLD_NEXT, "_ZN3kel20TCDbusClientProvider3GetEb"));
    return noClient ? boost::shared_ptr<IDbusClient>() : next(test);
}

namespace test {

namespace {

// Makes something while ever later allocations fail, until none does. Returns it, and how often it
// could not be made.
template <typename Make> auto MakeInShortage(Make make)
{
    for (size_t failures = 0;; ++failures) {
        FailAllocation(failures + 1);
        try {
            auto made = make();
            if (IsFailureToCome()) {
                FailAllocation(0);
                return std::make_pair(std::move(made), failures);
            }
        } catch (const std::bad_alloc&) {
        }
    }
}

/// What a program may make of an end.
template <typename End> class Derived : public End
{
public:
    explicit Derived(bool test) : End(test) {}
};

template <typename End> class Shortage : public ChannelTest
{
};

struct EndNames
{
    template <typename End> static std::string GetName(int number)
    {
        const std::string name = std::is_base_of_v<TCDbusServer, End> ? "Server" : "Client";
        return number % 2 == 0 ? name : "Derived" + name;
    }
};

typedef testing::Types<TCDbusServer, Derived<TCDbusServer>, TCDbusClient, Derived<TCDbusClient>>
    TEnds;
TYPED_TEST_SUITE(Shortage, TEnds, EndNames);

// The bus connection goes, too: see ~ChannelTest().
TYPED_TEST(Shortage, AnEndThatCannotBeMadeLeavesNothingBehind)
{
    auto [end, failures] = MakeInShortage([] { return std::make_unique<TypeParam>(false); });

    EXPECT_GT(failures, 2u);
    EXPECT_FALSE(this->m_log.Mentions("error")) << this->m_log.Text();
    end->SetCallback(1, [](const TBytes&, TBytes&) { return true; });
    RawPeer peer(this->m_bus);
    peer.SetTarget(end->GetUniqueName());
    EXPECT_EQ(peer.Send(SendBytes(1, 0)).m_bytes, TBytes{1});
}

class ProxyShortage : public ChannelTest
{
protected:
    ~ProxyShortage() override
    {
        noClient = false;
        TCControlProxy::Destroy();
        TCCallbacksProxy::Destroy();
    }
};

TEST_F(ProxyShortage, AClientThatCannotBeMadeIsMadeTheNextTime)
{
    const auto [client, failures] = MakeInShortage([] { return TCDbusClientProvider::Get(false); });

    EXPECT_GT(failures, 2u);
    EXPECT_FALSE(client->IsReady());
    EXPECT_EQ(client, TCDbusClientProvider::Get(false));
}

TEST_F(ProxyShortage, ASingletonThatCannotBeMadeIsMadeTheNextTime)
{
    const auto [control, controlFailures] = MakeInShortage(&TCControlProxy::Instance);
    const auto [callbacks, callbacksFailures] = MakeInShortage(&TCCallbacksProxy::Instance);

    EXPECT_GT(controlFailures, 2u);
    EXPECT_GE(callbacksFailures, 2u);
    EXPECT_NE(control, nullptr);
    EXPECT_EQ(control, TCControlProxy::Instance());
    EXPECT_NE(callbacks, nullptr);
    EXPECT_EQ(callbacks, TCCallbacksProxy::Instance());
}

TEST_F(ProxyShortage, AFunctionThatCannotBeRegisteredIsNotKept)
{
    const auto proxy = boost::dynamic_pointer_cast<TCCallbacksProxy>(TCCallbacksProxy::Instance());
    const auto attempt = [&](auto set, auto reset, auto kept) {
        size_t failures = 0;
        bool more = true;
        while (more) {
            FailAllocation(failures + 1);
            try {
                EXPECT_TRUE(set());
                more = !IsFailureToCome();
                FailAllocation(0);
                EXPECT_TRUE(kept());
            } catch (const std::bad_alloc&) {
                ++failures;
                EXPECT_FALSE(kept()) << failures;
            }
            reset();
        }
        return failures;
    };

    EXPECT_GT(attempt([&] { return proxy->SetPolicyUpdateCb([] {}); },
                      [&] { proxy->ResetPolicyUpdateCb(); },
                      [&] { return !proxy->m_policyUpdateCb.empty(); }),
              2u);
    EXPECT_GT(attempt([&] { return proxy->SetRequestProcessInfoCb([] { return true; }); },
                      [&] { proxy->ResetRequestProcessInfoCb(); },
                      [&] { return !proxy->m_requestProcessInfoCb.empty(); }),
              2u);
}

TEST_F(ProxyShortage, AProxyWithoutAClientSaysSo)
{
    noClient = true;

    TCControlProxy::Instance();
    EXPECT_EQ(m_log.Text(), "6 KELDebug: " + FailedCheck("KELControlProxy", 34) + "\n");
    m_log.Clear();
    TCCallbacksProxy::Instance();
    EXPECT_EQ(m_log.Text(), "6 KELDebug: " + FailedCheck("KELCallbacksProxy", 34) + "\n");
}

} // namespace

} // namespace test

} // namespace kel
