#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include <gtest/gtest.h>

#include <kel/KELBufferProperties.h>
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
// order, says where each one is on any machine; the compiler compares, so that a build for another
// machine checks it as well. A model derives where the class does: 32-bit ARM puts a derived
// class's members into what its base leaves free at its end.

namespace {

using kel::ICallbacks;
using kel::IControl;
using kel::IDbus;
using kel::IDbusClient;
using kel::IDbusServer;
using kel::TCCallbacksProxy;
using kel::TCControlProxy;
using kel::TCDbus;
using kel::TCDbusClient;
using kel::TCDbusServer;
using kel::TCDeactivator;
using kel::TCDebug;
using kel::TIDestroyCallback;
using kel::TSBufferProperties;

#pragma GCC diagnostic ignored "-Winvalid-offsetof"

#define KEL_SAME_PLACE(Class, Model, member)                                                       \
    static_assert(offsetof(Class, member) == offsetof(Model, member), #member)
#define KEL_SAME_SIZE(Class, Model) static_assert(sizeof(Class) == sizeof(Model), #Class)

struct TSDebugMembers
{
    bool m_perfLogEnabled;
    bool m_stdoutLogEnabled;
    bool m_fileLogEnabled;
    FILE* m_logFile;
};
KEL_SAME_PLACE(TCDebug, TSDebugMembers, m_perfLogEnabled);
KEL_SAME_PLACE(TCDebug, TSDebugMembers, m_stdoutLogEnabled);
KEL_SAME_PLACE(TCDebug, TSDebugMembers, m_fileLogEnabled);
KEL_SAME_PLACE(TCDebug, TSDebugMembers, m_logFile);
KEL_SAME_SIZE(TCDebug, TSDebugMembers);
static_assert(!std::is_polymorphic_v<TCDebug>);
static_assert(std::is_trivially_destructible_v<TCDebug>, "the file is never closed");

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
KEL_SAME_PLACE(TCDbus, TSDbusMembers, m_test);
KEL_SAME_PLACE(TCDbus, TSDbusMembers, m_pConnection);
KEL_SAME_PLACE(TCDbus, TSDbusMembers, m_busName);
KEL_SAME_PLACE(TCDbus, TSDbusMembers, m_objectPath);
KEL_SAME_PLACE(TCDbus, TSDbusMembers, m_uniqueName);
KEL_SAME_PLACE(TCDbus, TSDbusMembers, m_ready);
KEL_SAME_PLACE(TCDbus, TSDbusMembers, m_callbacksMutex);
KEL_SAME_PLACE(TCDbus, TSDbusMembers, m_callbacks);
KEL_SAME_PLACE(TCDbus, TSDbusMembers, m_stateMutex);
KEL_SAME_PLACE(TCDbus, TSDbusMembers, m_startStopMutex);
KEL_SAME_PLACE(TCDbus, TSDbusMembers, m_currentSender);
KEL_SAME_PLACE(TCDbus, TSDbusMembers, m_currentAsync);
KEL_SAME_PLACE(TCDbus, TSDbusMembers, m_pNodeInfo);
KEL_SAME_PLACE(TCDbus, TSDbusMembers, m_registrationId);
KEL_SAME_PLACE(TCDbus, TSDbusMembers, m_methodHandlers);
KEL_SAME_SIZE(TCDbus, TSDbusMembers);

struct TSClientMembers
{
    std::set<int> m_types;
    GDBusProxy* m_pProxy;
    unsigned int m_watchId;
};
KEL_SAME_PLACE(TCDbusServer::TSClient, TSClientMembers, m_types);
KEL_SAME_PLACE(TCDbusServer::TSClient, TSClientMembers, m_pProxy);
KEL_SAME_PLACE(TCDbusServer::TSClient, TSClientMembers, m_watchId);
KEL_SAME_SIZE(TCDbusServer::TSClient, TSClientMembers);

struct TSServerMembers : TSDbusMembers
{
    void* m_pServerTable;
    unsigned int m_ownerId;
    std::map<std::string, TSClientMembers> m_clients;
    boost::thread m_loopThread;
    GMainContext* m_pContext;
    GMainLoop* m_pLoop;
};
KEL_SAME_PLACE(TCDbusServer, TSServerMembers, m_methodHandlers);
KEL_SAME_PLACE(TCDbusServer, TSServerMembers, m_ownerId);
KEL_SAME_PLACE(TCDbusServer, TSServerMembers, m_clients);
KEL_SAME_PLACE(TCDbusServer, TSServerMembers, m_loopThread);
KEL_SAME_PLACE(TCDbusServer, TSServerMembers, m_pContext);
KEL_SAME_PLACE(TCDbusServer, TSServerMembers, m_pLoop);
KEL_SAME_SIZE(TCDbusServer, TSServerMembers);

struct TSDbusClientMembers : TSDbusMembers
{
    void* m_pClientTable;
    unsigned int m_watcherId;
    GDBusProxy* m_pProxy;
};
KEL_SAME_PLACE(TCDbusClient, TSDbusClientMembers, m_methodHandlers);
KEL_SAME_PLACE(TCDbusClient, TSDbusClientMembers, m_watcherId);
KEL_SAME_PLACE(TCDbusClient, TSDbusClientMembers, m_pProxy);
KEL_SAME_SIZE(TCDbusClient, TSDbusClientMembers);

static_assert(std::is_convertible_v<TCDbusClient*, IDbus*>, "an end holds one IDbus");
static_assert(std::is_convertible_v<TCDbusServer*, IDbus*>, "an end holds one IDbus");

struct TSDeactivatorMembers
{
    TIDestroyCallback* m_pUser;
    std::set<void (*)()> m_functions;
};
KEL_SAME_PLACE(TCDeactivator, TSDeactivatorMembers, m_pUser);
KEL_SAME_PLACE(TCDeactivator, TSDeactivatorMembers, m_functions);
KEL_SAME_SIZE(TCDeactivator, TSDeactivatorMembers);

struct TSControlProxyMembers
{
    void* m_pTable;
    boost::shared_ptr<IDbusClient> m_pClient;
};
KEL_SAME_PLACE(TCControlProxy, TSControlProxyMembers, m_pClient);
KEL_SAME_SIZE(TCControlProxy, TSControlProxyMembers);

struct TSCallbacksProxyMembers
{
    void* m_pTable;
    boost::function<void()> m_policyUpdateCb;
    boost::function<bool()> m_requestProcessInfoCb;
    boost::shared_ptr<IDbusClient> m_pClient;
};
KEL_SAME_PLACE(TCCallbacksProxy, TSCallbacksProxyMembers, m_policyUpdateCb);
KEL_SAME_PLACE(TCCallbacksProxy, TSCallbacksProxyMembers, m_requestProcessInfoCb);
KEL_SAME_PLACE(TCCallbacksProxy, TSCallbacksProxyMembers, m_pClient);
KEL_SAME_SIZE(TCCallbacksProxy, TSCallbacksProxyMembers);

// In words, which are all that these are made of; 32-bit and 64-bit machines differ in nothing
// else.
constexpr size_t kWord = sizeof(void*);
static_assert(kWord == 4 || kWord == 8);
static_assert(sizeof(TCDebug) == 2 * kWord);
static_assert(sizeof(TCDbusServer::TSClient) == 8 * kWord);
static_assert(sizeof(TCDeactivator) == 7 * kWord);
static_assert(sizeof(TCControlProxy) == 3 * kWord);
static_assert(sizeof(TCCallbacksProxy) == 11 * kWord);

static_assert(sizeof(ICallbacks::ECallbackType) == sizeof(int));

static_assert(offsetof(TSBufferProperties, m_destroyed) == 0);
static_assert(offsetof(TSBufferProperties, m_persistent) == 1);
static_assert(offsetof(TSBufferProperties, m_bufferId) == 4);
static_assert(offsetof(TSBufferProperties, m_secondaryId) == 8);
static_assert(sizeof(TSBufferProperties) == 12);
static_assert(std::is_trivial_v<TSBufferProperties>);
static_assert(std::is_standard_layout_v<TSBufferProperties>);

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

TEST(Layout, ARegisteredClientBeginsWithoutProxyAndWatch)
{
    const TCDbusServer::TSClient client;

    EXPECT_EQ(client.m_pProxy, nullptr);
    EXPECT_EQ(client.m_watchId, 0u);
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
