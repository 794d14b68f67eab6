#include <kel/KELCallbacksProxy.h>

#include <kel/KELDbusClient.h>

#include "KELLog.h"
#include "KELSharedFunction.h"
#include "KELSingletonLife.h"

KEL_LOG_SOURCE("KELCallbacksProxy", "kel::TCCallbacksProxy")

namespace kel {

namespace {

constexpr unsigned int kNoClient = 34;

// Makes a set or a reset one step to the others. They cannot hold m_rwlock while the client changes
// its table: that waits for the client's callbacks mutex, which a running event holds while it
// waits for m_rwlock, and neither would ever go on. No event takes this one.
TCMutex operationMutex;

// Stands in for an empty function that the application has set: the type is taken, and nobody is
// called.
struct TSNobody
{
    bool operator()() const { return false; }
};

template <typename Function> bool IsCallable(const Function& function)
{
    return !function.empty() && function.template target<TSNobody>() == nullptr;
}

} // namespace

bool TCCallbacksProxy::m_destroyed = false;
TCStaticRwLock TCCallbacksProxy::m_rwlock;

TCCallbacksProxy::TCCallbacksProxy() : m_pClient(TCDbusClientProvider::Get(false))
{
    if (!m_pClient) {
        KEL_REPORT(kNoClient);
    }
}

TCCallbacksProxy::~TCCallbacksProxy() = default;

bool TCCallbacksProxy::SetPolicyUpdateCb(const boost::function<void()>& cb)
{
    return m_Set(POLICY_UPDATE, &TCCallbacksProxy::m_policyUpdateCb, cb);
}

bool TCCallbacksProxy::ResetPolicyUpdateCb()
{
    return m_Reset(POLICY_UPDATE, &TCCallbacksProxy::m_policyUpdateCb);
}

bool TCCallbacksProxy::SetRequestProcessInfoCb(const boost::function<bool()>& cb)
{
    return m_Set(REQUEST_PROCESS_INFO, &TCCallbacksProxy::m_requestProcessInfoCb, cb);
}

bool TCCallbacksProxy::ResetRequestProcessInfoCb()
{
    return m_Reset(REQUEST_PROCESS_INFO, &TCCallbacksProxy::m_requestProcessInfoCb);
}

boost::shared_ptr<ICallbacks> TCCallbacksProxy::Instance()
{
    return TSSingletonLife<TCCallbacksProxy>::Instance();
}

void TCCallbacksProxy::Destroy() { TSSingletonLife<TCCallbacksProxy>::Destroy(); }

template <typename Function>
bool TCCallbacksProxy::m_Set(int type, Function TCCallbacksProxy::*pMember, const Function& cb)
{
    // Copied and destroyed when no lock is held: what it holds is the application's.
    const Function shared = cb.empty() ? Function(TSNobody()) : ShareState(cb);
    Function refused;
    const TCLock operation(operationMutex);
    {
        // Before the client knows the type: its first event must find the function. A set that the
        // client is going to refuse comes no further than this.
        const TCStaticWriteLock lock(m_rwlock);
        if (!(this->*pMember).empty()) {
            return false;
        }
        this->*pMember = shared;
    }
    try {
        if (m_SetHandler(type)) {
            return true;
        }
    } catch (...) {
        m_Clear(pMember, refused);
        throw;
    }
    m_Clear(pMember, refused);
    return false;
}

bool TCCallbacksProxy::m_SetHandler(int type)
{
    return m_pClient->SetCallback(type, [this, type](const std::vector<unsigned char>& request,
                                                     std::vector<unsigned char>& response) {
        return m_Callback(type, request, response);
    });
}

template <typename Function>
bool TCCallbacksProxy::m_Reset(int type, Function TCCallbacksProxy::*pMember)
{
    Function cleared; // destroyed when no lock is held: what it holds is the application's
    const TCLock operation(operationMutex);
    const bool removed = m_pClient->UnSetCallback(type);
    m_Clear(pMember, cleared);
    return removed;
}

template <typename Function>
void TCCallbacksProxy::m_Clear(Function TCCallbacksProxy::*pMember, Function& cleared)
{
    const TCStaticWriteLock lock(m_rwlock);
    cleared.swap(this->*pMember);
}

bool TCCallbacksProxy::m_Callback(int type, const std::vector<unsigned char>& request,
                                  std::vector<unsigned char>& response)
{
    const TCStaticReadLock lock(m_rwlock);
    return m_OnCallback(type, request, response);
}

bool TCCallbacksProxy::m_OnCallback(int type, const std::vector<unsigned char>&,
                                    std::vector<unsigned char>&)
{
    KEL_DEBUG("Callback called with id %d", type);

    // Copies are called, which share the functions' state: a function may drop the last pointer to
    // this object, and itself with it.
    const boost::function<void()> policyUpdate = m_policyUpdateCb;
    const boost::function<bool()> requestProcessInfo = m_requestProcessInfoCb;
    switch (type) {
    case POLICY_UPDATE:
        if (!IsCallable(policyUpdate)) {
            return false;
        }
        policyUpdate();
        return true;
    case REQUEST_PROCESS_INFO:
        if (!IsCallable(requestProcessInfo)) {
            KEL_ERROR("m_requestProcessInfoCb is NULL");
            return false;
        }
        requestProcessInfo(); // the result stays here, on purpose: the agent has been served
        return true;
    default:
        KEL_ERROR("Not implemented message type %d", type);
        return false;
    }
}

} // namespace kel
