#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kel/KELDbusClient.h>
#include <kel/KELDbusServer.h>

#include "support/HostLoop.h"
#include "support/LogRecorder.h"
#include "support/PrivateBus.h"
#include "support/RawPeer.h"

namespace kel::test {

constexpr int kDebug = 3;
constexpr int kError = 6;

typedef std::pair<size_t, size_t> TCounts;

/// The line of a failed check of a source file.
inline std::string FailedCheck(const std::string& source, int line)
{
    return "Error for RV-HIVE-api/impl/src/" + source + " file in line " + std::to_string(line)
           + ".";
}

/// Whether a mutex that is held shared lets no more readers in.
inline bool IsWriterWaiting(TCSharedMutex& mutex)
{
    const bool isFree = mutex.try_lock_shared();
    if (isFree) {
        mutex.unlock_shared();
    }
    return !isFree;
}

/// A bus, and a host that runs its main loop. A test makes its channel end itself.
class ChannelTest : public testing::Test
{
protected:
    ChannelTest() = default;
    explicit ChannelTest(const PrivateBus::TSOptions& options) : m_bus(options) {}
    ~ChannelTest() override
    {
        EXPECT_TRUE(PrivateBus::WaitForDisconnection()) << "somebody keeps the connection";
    }

    PrivateBus m_bus;
    LogRecorder m_log;
    HostLoop m_loop;
};

/// A ready agent.
class ServerTest : public ChannelTest
{
protected:
    ServerTest() = default;
    explicit ServerTest(const PrivateBus::TSOptions& options) : ChannelTest(options) {}

    void SetUp() override
    {
        ASSERT_TRUE(WaitUntil([this] { return m_server.IsReady(); })) << m_log.Text();
    }

    /// Introduces a peer, and returns when the server knows it.
    static void Subscribe(RawPeer& peer, const std::vector<int>& types)
    {
        ASSERT_TRUE(peer.Hello(types).IsOk());
        peer.Settle();
    }

    TCDbusServer m_server{false};
};

/// An application, and a raw peer that may become its agent.
class ClientTest : public ChannelTest
{
protected:
    ClientTest() { m_agent.SetTarget(m_client->GetUniqueName()); }

    void SetUp() override
    {
        // The first name event says that nobody is there yet.
        ASSERT_TRUE(m_log.WaitFor(std::string("Name vanished - name ") + kBusName));
        m_log.Clear();
    }

    /// The raw peer takes the agent's name, and the client has seen it.
    void StartAgent()
    {
        ASSERT_TRUE(m_agent.OwnName());
        ASSERT_TRUE(WaitUntil([this] { return m_client->IsReady(); })) << m_log.Text();
        ASSERT_TRUE(m_agent.WaitForCalls("Hello", 1));
        m_agent.ForgetCalls();
    }

    RawPeer m_agent{m_bus};
    boost::shared_ptr<TCDbusClient> m_client{new TCDbusClient(false)};
};

} // namespace kel::test
