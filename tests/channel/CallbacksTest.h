#pragma once

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>

#include <boost/pointer_cast.hpp>

#include <kel/KELCallbacksProxy.h>
#include <kel/KELControlProxy.h>

#include "channel/ChannelTest.h"

namespace kel::test {

/// Ends the process when its scope takes longer than any machine needs: a deadlock.
class Watchdog
{
public:
    Watchdog()
        : m_thread([this] {
              std::unique_lock<std::mutex> lock(m_mutex);
              if (!m_over.wait_for(lock, kPatience, [this] { return m_done; })) {
                  std::fputs("the watchdog bites: nothing moves any more\n", stderr);
                  std::abort();
              }
          })
    {}
    ~Watchdog()
    {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_done = true;
        }
        m_over.notify_all();
        m_thread.join();
    }
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

private:
    static constexpr std::chrono::seconds kPatience{20};

    std::mutex m_mutex;
    std::condition_variable m_over;
    bool m_done = false; // guarded by m_mutex
    std::thread m_thread;
};

/// An application with its callbacks object, and a raw peer that sends it the agent's events and
/// may become its agent.
class CallbacksTest : public ChannelTest
{
protected:
    CallbacksTest() { Renew(); }
    ~CallbacksTest() override
    {
        m_proxy.reset();
        m_client.reset();
        End();
    }

    /// The objects of a process that has just begun.
    void Renew()
    {
        m_proxy.reset();
        m_client.reset();
        End();
        m_proxy = TCCallbacksProxy::Instance();
        m_client = boost::dynamic_pointer_cast<TCDbusClient>(TCDbusClientProvider::Get(false));
        m_agent.SetTarget(m_client->GetUniqueName());
    }

    /// The raw peer takes the agent's name, and the client has seen it.
    void StartAgent()
    {
        ASSERT_TRUE(m_agent.OwnName());
        ASSERT_TRUE(WaitUntil([this] { return m_client->IsReady(); })) << m_log.Text();
    }

    RawPeer m_agent{m_bus};
    boost::shared_ptr<ICallbacks> m_proxy;
    boost::shared_ptr<TCDbusClient> m_client;

private:
    /// Undoes what a process can do only once.
    static void End()
    {
        TCCallbacksProxy::Destroy();
        TCControlProxy::Destroy();
        TCCallbacksProxy::m_destroyed = false;
        TCControlProxy::m_destroyed = false;
    }
};

} // namespace kel::test
