#include <future>

#include <boost/weak_ptr.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kel/KELDbusClient.h>

#include "Messages.h"

using kel::IDbusClient;
using kel::TCDbusClient;
using kel::TCDbusClientProvider;
using testing::Each;
using testing::SizeIs;

namespace {

bool IsOnTestChannel(const boost::shared_ptr<IDbusClient>& client)
{
    const auto* const own = dynamic_cast<TCDbusClient*>(client.get());
    return own != nullptr && own->m_test;
}

class ClientProvider : public testing::Test
{
protected:
    // One line per client made: there is no bus.
    size_t NumberMade() const
    {
        size_t number = 0;
        for (const auto& line : m_log.Lines()) {
            number += line.m_message.rfind("Connecting to system bus error, errno ", 0) == 0;
        }
        return number;
    }

    kel::test::LogRecorder m_log;
};

TEST_F(ClientProvider, HandsOutOneClientWhileSomebodyHoldsIt)
{
    const boost::shared_ptr<IDbusClient> first = TCDbusClientProvider::Get(false);
    const boost::shared_ptr<IDbusClient> second = TCDbusClientProvider::Get(false);

    EXPECT_NE(first, nullptr);
    EXPECT_EQ(first, second);
    EXPECT_EQ(NumberMade(), 1u);
}

TEST_F(ClientProvider, TheFirstOnesChannelWins)
{
    boost::shared_ptr<IDbusClient> first = TCDbusClientProvider::Get(false);
    EXPECT_EQ(TCDbusClientProvider::Get(true), first);
    EXPECT_FALSE(IsOnTestChannel(first));
    first.reset();

    first = TCDbusClientProvider::Get(true);
    EXPECT_EQ(TCDbusClientProvider::Get(false), first);
    EXPECT_TRUE(IsOnTestChannel(first));
}

TEST_F(ClientProvider, KeepsNoClientOfItsOwn)
{
    boost::shared_ptr<IDbusClient> client = TCDbusClientProvider::Get(false);
    const boost::weak_ptr<IDbusClient> watched(client);
    EXPECT_EQ(client.use_count(), 1);

    client.reset();

    EXPECT_TRUE(watched.expired());
    client = TCDbusClientProvider::Get(false);
    EXPECT_NE(client, nullptr);
    EXPECT_EQ(NumberMade(), 2u);
}

TEST_F(ClientProvider, AClientThatCouldNotStartIsHandedOutAndNeverReady)
{
    const boost::shared_ptr<IDbusClient> client = TCDbusClientProvider::Get(false);
    std::vector<unsigned char> response{1};

    EXPECT_FALSE(client->IsReady());
    EXPECT_TRUE(client->SendMessage(4, {}, response, true));
    EXPECT_FALSE(client->SendMessage(4, {}, response, false));
    EXPECT_TRUE(m_log.Has(6, "pResult is NULL"));
    EXPECT_EQ(response, std::vector<unsigned char>{1});
}

TEST_F(ClientProvider, RacingFirstCallsMakeOneClient)
{
    for (int round = 0; round < 50; ++round) {
        m_log.Clear();
        std::promise<void> start;
        const std::shared_future<void> started = start.get_future().share();
        std::vector<std::future<boost::shared_ptr<IDbusClient>>> calls;
        for (int i = 0; i < 4; ++i) {
            calls.push_back(std::async(std::launch::async, [started] {
                started.wait();
                return TCDbusClientProvider::Get(false);
            }));
        }
        start.set_value();

        std::vector<boost::shared_ptr<IDbusClient>> clients;
        for (auto& call : calls) {
            clients.push_back(call.get());
        }
        EXPECT_NE(clients.front(), nullptr);
        EXPECT_THAT(clients, Each(clients.front()));
        EXPECT_EQ(NumberMade(), 1u);
    }
}

} // namespace
