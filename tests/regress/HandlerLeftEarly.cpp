// A call whose handler was left by an exception, or by the end of its thread, was never given back;
// and an end that its callback had dropped was used on the way out of a thread that ended.

#include <pthread.h>

#include <memory>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kel/KELDbus.h>

#include "KELGlib.h"
#include "unit/Messages.h"

namespace kel {

namespace {

class TCEnd : public TCDbus
{
public:
    TCEnd() : TCDbus(false) {}
    ~TCEnd() override { t_EndHandlers(); }
    bool SetCallback(int type, const TMessageCallback& callback) override
    {
        return m_callbacks.emplace(type, callback).second;
    }
    bool UnSetCallback(int type) override { return m_callbacks.erase(type) != 0; }
};

TEST(HandlerLeftEarly, ACallThatNoHandlerHasTakenIsDropped)
{
    TCEnd end;
    end.t_SetDbusCallback("Some", TCDbus::TMethodHandler());
    for (const char* const path : {"/com/norvale/kel/CommunicationChannel", "/"}) {
        GObject* const call = static_cast<GObject*>(g_object_new(G_TYPE_OBJECT, nullptr));
        bool dropped = false;
        g_object_weak_ref(
            call, [](gpointer flag, GObject*) { *static_cast<bool*>(flag) = true; }, &dropped);

        try { // with a connection and parameters that the dispatch itself must not touch
            TCDbus::m_HandleMethodCall(reinterpret_cast<GDBusConnection*>(0x10), ":1.7", path,
                                       "any.interface", "Some", reinterpret_cast<GVariant*>(0x20),
                                       reinterpret_cast<GDBusMethodInvocation*>(call), &end);
        } catch (const boost::bad_function_call&) {
        }

        EXPECT_TRUE(dropped) << path;
    }
}

TEST(HandlerLeftEarly, ACallbackMayEndItsThread)
{
    struct TSCalled
    {
        TCEnd m_end;
        TGlibPtr<GVariant> m_request;
        bool m_wentOn = false;
    } called;
    test::LogRecorder log;
    GVariant* request = nullptr;
    called.m_end.t_ConvertBytes(4, false, {}, request);
    called.m_request = SinkVariant(request);
    bool handled = false;
    called.m_end.SetCallback(4, [&](const auto&, auto&) -> bool {
        handled = called.m_end.m_currentSender.empty();
        pthread_exit(&handled);
    });

    pthread_t thread{};
    const auto run = [](void* data) -> void* {
        auto& its = *static_cast<TSCalled*>(data);
        // Without a bus a sender has no name.
        its.m_end.m_HandleMessage(nullptr, its.m_request.get(), nullptr);
        its.m_wentOn = true;
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, nullptr, run, &called), 0);
    void* result = nullptr;
    pthread_join(thread, &result);

    EXPECT_EQ(result, &handled) << "not held up on the way";
    EXPECT_TRUE(handled);
    EXPECT_FALSE(called.m_wentOn);
    EXPECT_THAT(TakeMessages(log), testing::IsEmpty()) << "which is no failure of the callback";
    ASSERT_TRUE(called.m_end.m_callbacksMutex.try_lock()) << "nothing stays locked";
    called.m_end.m_callbacksMutex.unlock();
}

// Under AddressSanitizer an end that is used after it has gone is seen.
TEST(HandlerLeftEarly, ACallbackMayDropItsEndAndEndItsThread)
{
    struct TSCalled
    {
        std::unique_ptr<TCEnd> m_pEnd = std::make_unique<TCEnd>();
        TGlibPtr<GVariant> m_request;
    } called;
    GVariant* request = nullptr;
    called.m_pEnd->t_ConvertBytes(4, false, {}, request);
    called.m_request = SinkVariant(request);
    called.m_pEnd->SetCallback(4, [&](const auto&, auto&) -> bool {
        called.m_pEnd.reset();
        pthread_exit(&called);
    });

    pthread_t thread{};
    const auto run = [](void* data) -> void* {
        auto& its = *static_cast<TSCalled*>(data);
        its.m_pEnd->m_HandleMessage(":1.7", its.m_request.get(), nullptr);
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, nullptr, run, &called), 0);
    void* result = nullptr;
    pthread_join(thread, &result);

    EXPECT_EQ(result, &called);
    EXPECT_EQ(called.m_pEnd, nullptr);
}

} // namespace

} // namespace kel
