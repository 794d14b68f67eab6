#include <cstdint>
#include <cstring>
#include <type_traits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kel/KELCallbacksProxy.h>
#include <kel/KELControlProxy.h>
#include <kel/KELDbusClient.h>
#include <kel/KELDbusServer.h>
#include <kel/KELDeactivator.h>
#include <kel/KELDebug.h>
#include <kel/TIDestroyCallback.h>

#include "KELGlib.h"

// Programs allocate the classes themselves and call through the interfaces' tables: neither the
// members nor the slots may move. A plain structure of the members that are promised, in their
// order, says where each one is on any machine.

namespace {

using kel::ICallbacks;
using kel::IControl;
using kel::IDbus;
using kel::IDbusClient;
using kel::IDbusServer;
using kel::TCDbus;
using kel::TCDbusClient;
using kel::TCDbusServer;
using kel::TCDeactivator;
using kel::TCDebug;
using kel::TIDestroyCallback;

struct TSDebugMembers
{
    bool m_perf;
    bool m_stdout;
    bool m_file;
    FILE* m_pFile;
};

struct TSDbusMembers
{
    void* m_pTable;
    bool m_test;
    GDBusConnection* m_pConnection;
    const char* m_busName;
    const char* m_objectPath;
    std::string m_uniqueName;
    bool m_ready;
    boost::shared_mutex m_callbacksMutex;
    std::map<int, TCDbus::TMessageCallback> m_callbacks;
    boost::shared_mutex m_stateMutex;
    boost::shared_mutex m_startStopMutex;
    std::string m_currentSender;
    bool m_currentAsync;
    GDBusNodeInfo* m_pNodeInfo;
    unsigned int m_registrationId;
    std::map<std::string, TCDbus::TMethodHandler> m_methodHandlers;
};

struct TSClientMembers
{
    std::set<int> m_types;
    GDBusProxy* m_pProxy;
    unsigned int m_watchId;
};

struct TSServerMembers
{
    TSDbusMembers m_base;
    void* m_pTable;
    unsigned int m_ownerId;
    std::map<std::string, TSClientMembers> m_clients;
    boost::thread m_loopThread;
    GMainContext* m_pContext;
    GMainLoop* m_pLoop;
};

struct TSDbusClientMembers
{
    TSDbusMembers m_base;
    void* m_pTable;
    unsigned int m_watcherId;
    GDBusProxy* m_pProxy;
};

struct TSDeactivatorMembers
{
    TIDestroyCallback* m_pUser;
    std::set<void (*)()> m_functions;
};

struct TSControlProxyMembers
{
    void* m_pTable;
    boost::shared_ptr<IDbusClient> m_pClient;
};

struct TSCallbacksProxyMembers
{
    void* m_pTable;
    boost::function<void()> m_policyUpdateCb;
    boost::function<bool()> m_requestProcessInfoCb;
    boost::shared_ptr<IDbusClient> m_pClient;
};

class TCEnd : public TCDbus
{
public:
    TCEnd() : TCDbus(false) {}
    bool SetCallback(int, const TMessageCallback&) override { return false; }
    bool UnSetCallback(int) override { return false; }
};

template <typename Object, typename Member> size_t OffsetIn(const Object& object, Member& member)
{
    return static_cast<size_t>(reinterpret_cast<const char*>(std::addressof(member))
                               - reinterpret_cast<const char*>(std::addressof(object)));
}

// The slot that a call through this member pointer takes.
template <typename Operation> size_t SlotOf(Operation operation)
{
    static_assert(sizeof(operation) == 2 * sizeof(std::intptr_t), "not a member pointer");
    std::intptr_t words[2];
    std::memcpy(words, &operation, sizeof(words));
#if defined(__arm__) || defined(__aarch64__)
    EXPECT_EQ(words[1] & 1, 1) << "not virtual";
    return static_cast<size_t>(words[0]) / sizeof(void*);
#else
    EXPECT_EQ(words[0] & 1, 1) << "not virtual";
    return static_cast<size_t>(words[0] - 1) / sizeof(void*);
#endif
}

#define EXPECT_AT(object, Members, member)                                                         \
    EXPECT_EQ(OffsetIn(object, object.member), offsetof(Members, member)) << #member

#pragma GCC diagnostic ignored "-Winvalid-offsetof"

void ExpectDbusMembers(const TCDbus& end)
{
    EXPECT_AT(end, TSDbusMembers, m_test);
    EXPECT_AT(end, TSDbusMembers, m_pConnection);
    EXPECT_AT(end, TSDbusMembers, m_busName);
    EXPECT_AT(end, TSDbusMembers, m_objectPath);
    EXPECT_AT(end, TSDbusMembers, m_uniqueName);
    EXPECT_AT(end, TSDbusMembers, m_ready);
    EXPECT_AT(end, TSDbusMembers, m_callbacksMutex);
    EXPECT_AT(end, TSDbusMembers, m_callbacks);
    EXPECT_AT(end, TSDbusMembers, m_stateMutex);
    EXPECT_AT(end, TSDbusMembers, m_startStopMutex);
    EXPECT_AT(end, TSDbusMembers, m_currentSender);
    EXPECT_AT(end, TSDbusMembers, m_currentAsync);
    EXPECT_AT(end, TSDbusMembers, m_pNodeInfo);
    EXPECT_AT(end, TSDbusMembers, m_registrationId);
    EXPECT_AT(end, TSDbusMembers, m_methodHandlers);
}

TEST(Layout, DebugHoldsThreeSwitchesAndTheFile)
{
    const TCDebug& debug = TCDebug::m_instance;

    EXPECT_EQ(OffsetIn(debug, debug.m_perfLogEnabled), offsetof(TSDebugMembers, m_perf));
    EXPECT_EQ(OffsetIn(debug, debug.m_stdoutLogEnabled), offsetof(TSDebugMembers, m_stdout));
    EXPECT_EQ(OffsetIn(debug, debug.m_fileLogEnabled), offsetof(TSDebugMembers, m_file));
    EXPECT_EQ(OffsetIn(debug, debug.m_logFile), offsetof(TSDebugMembers, m_pFile));
    EXPECT_EQ(sizeof(TCDebug), sizeof(TSDebugMembers));
    EXPECT_FALSE(std::is_polymorphic<TCDebug>::value);
}

TEST(Layout, ChannelBaseHoldsItsMembersInOrder)
{
    const TCEnd end;

    ExpectDbusMembers(end);
    EXPECT_EQ(sizeof(TCDbus), sizeof(TSDbusMembers));
}

TEST(Layout, ServerAddsItsMembersInOrder)
{
    const TCDbusServer server(true);

    ExpectDbusMembers(server);
    EXPECT_AT(server, TSServerMembers, m_ownerId);
    EXPECT_AT(server, TSServerMembers, m_clients);
    EXPECT_AT(server, TSServerMembers, m_loopThread);
    EXPECT_AT(server, TSServerMembers, m_pContext);
    EXPECT_AT(server, TSServerMembers, m_pLoop);
    EXPECT_EQ(sizeof(TCDbusServer), sizeof(TSServerMembers));
}

TEST(Layout, RegisteredClientHoldsTypesProxyAndWatch)
{
    const TCDbusServer::TSClient client;

    EXPECT_AT(client, TSClientMembers, m_types);
    EXPECT_AT(client, TSClientMembers, m_pProxy);
    EXPECT_AT(client, TSClientMembers, m_watchId);
    EXPECT_EQ(sizeof(TCDbusServer::TSClient), sizeof(TSClientMembers));
    EXPECT_TRUE(client.m_types.empty());
    EXPECT_EQ(client.m_pProxy, nullptr);
    EXPECT_EQ(client.m_watchId, 0u);
}

TEST(Layout, ClientAddsItsMembersInOrder)
{
    const TCDbusClient client(true);

    ExpectDbusMembers(client);
    EXPECT_AT(client, TSDbusClientMembers, m_watcherId);
    EXPECT_AT(client, TSDbusClientMembers, m_pProxy);
    EXPECT_EQ(sizeof(TCDbusClient), sizeof(TSDbusClientMembers));
}

TEST(Layout, DeactivatorHoldsTheUserAndTheFunctions)
{
    const TCDeactivator& deactivator = TCDeactivator::m_instance;

    EXPECT_AT(deactivator, TSDeactivatorMembers, m_pUser);
    EXPECT_AT(deactivator, TSDeactivatorMembers, m_functions);
    EXPECT_EQ(sizeof(TCDeactivator), sizeof(TSDeactivatorMembers));
}

TEST(Layout, ControlProxyHoldsTheClient)
{
    const kel::TCControlProxy proxy;

    EXPECT_AT(proxy, TSControlProxyMembers, m_pClient);
    EXPECT_EQ(sizeof(kel::TCControlProxy), sizeof(TSControlProxyMembers));
}

TEST(Layout, CallbacksProxyHoldsTheFunctionsAndTheClient)
{
    const kel::TCCallbacksProxy proxy;

    EXPECT_AT(proxy, TSCallbacksProxyMembers, m_policyUpdateCb);
    EXPECT_AT(proxy, TSCallbacksProxyMembers, m_requestProcessInfoCb);
    EXPECT_AT(proxy, TSCallbacksProxyMembers, m_pClient);
    EXPECT_EQ(sizeof(kel::TCCallbacksProxy), sizeof(TSCallbacksProxyMembers));
    EXPECT_TRUE(proxy.m_policyUpdateCb.empty());
    EXPECT_TRUE(proxy.m_requestProcessInfoCb.empty());
}

TEST(Layout, AnEndHoldsOneIDbus)
{
    TCDbusClient client(true);
    TCDbusServer server(true);

    EXPECT_EQ(static_cast<IDbus*>(static_cast<IDbusClient*>(&client)),
              static_cast<IDbus*>(static_cast<TCDbus*>(&client)));
    EXPECT_EQ(static_cast<IDbus*>(static_cast<IDbusServer*>(&server)),
              static_cast<IDbus*>(static_cast<TCDbus*>(&server)));
}

// Two destructors come first in each table.
TEST(Slots, OfTheChannelsInterfaces)
{
    EXPECT_EQ(SlotOf(&IDbus::SetCallback), 2u);
    EXPECT_EQ(SlotOf(&IDbus::UnSetCallback), 3u);
    EXPECT_EQ(SlotOf(&IDbus::IsReady), 4u);
    EXPECT_EQ(SlotOf(&IDbusServer::SendMessage), 5u);
    EXPECT_EQ(SlotOf(&IDbusServer::NumberOfClients), 6u);
    EXPECT_EQ(SlotOf(&IDbusClient::SendMessage), 5u);
}

TEST(Slots, OfTheChannelsEnds)
{
    EXPECT_EQ(SlotOf(&TCDbus::SetCallback), 2u);
    EXPECT_EQ(SlotOf(&TCDbus::UnSetCallback), 3u);
    EXPECT_EQ(SlotOf(&TCDbus::IsReady), 4u);
    EXPECT_EQ(SlotOf(&TCDbusServer::SetCallback), 2u);
    EXPECT_EQ(SlotOf(&TCDbusServer::UnSetCallback), 3u);
    EXPECT_EQ(SlotOf(&TCDbusServer::NumberOfClients), 5u);
    EXPECT_EQ(SlotOf(&TCDbusServer::SendMessage), 6u);
    EXPECT_EQ(SlotOf(&TCDbusClient::SetCallback), 2u);
    EXPECT_EQ(SlotOf(&TCDbusClient::UnSetCallback), 3u);
    EXPECT_EQ(SlotOf(&TCDbusClient::SendMessage), 5u);
}

TEST(Slots, OfTheApplicationsInterfaces)
{
    EXPECT_EQ(SlotOf(&IControl::SetPolicy), 2u);
    EXPECT_EQ(SlotOf(&ICallbacks::SetPolicyUpdateCb), 2u);
    EXPECT_EQ(SlotOf(&ICallbacks::ResetPolicyUpdateCb), 3u);
    EXPECT_EQ(SlotOf(&ICallbacks::SetRequestProcessInfoCb), 4u);
    EXPECT_EQ(SlotOf(&ICallbacks::ResetRequestProcessInfoCb), 5u);
    EXPECT_EQ(SlotOf(&TIDestroyCallback::OnDestroy), 2u);
}

} // namespace
