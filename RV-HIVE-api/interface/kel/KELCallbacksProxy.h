#pragma once

#include <vector>

#include <boost/function.hpp>
#include <boost/shared_ptr.hpp>

#include <kel/ICallbacks.h>
#include <kel/IDbusClient.h>
#include <kel/KELExport.h>
#include <kel/KELLocks.h>

namespace kel {

/// The process's callbacks object: registers the application's functions with the channel client,
/// which tells the agent, and calls them when the agent's messages arrive.
///
/// The object does not take its handlers back when it is destroyed: reset the functions before the
/// last pointer goes if the client lives on.
///
/// @snippet class-examples.cpp ICallbacks
class KEL_EXPORT TCCallbacksProxy : public ICallbacks
{
public:
    ~TCCallbacksProxy() override;

    bool SetPolicyUpdateCb(const boost::function<void()>& cb) override;
    bool ResetPolicyUpdateCb() override;
    bool SetRequestProcessInfoCb(const boost::function<bool()>& cb) override;
    bool ResetRequestProcessInfoCb() override;

    /// The singleton, created on first use; empty after Destroy(). Thread-safe.
    ///
    /// The first use connects to the system bus on the calling thread, if the process has no
    /// client yet; events are delivered in that thread's default main context.
    static boost::shared_ptr<ICallbacks> Instance();

    /// Ends the singleton for good. Who holds it keeps a working object. Nothing in the library
    /// calls this: register it with TCDeactivator::RegisterDBUS() to have it called at exit. A
    /// program that loads the library itself (dlopen) resets its functions, and ends the singleton,
    /// before it closes the library: that stays loaded, and events go on to reach the functions.
    static void Destroy();

private:
    template <typename Proxy> friend struct TSSingletonLife;

    TCCallbacksProxy();

    // Not exported: whether there is anything to export depends on the compiler.
    template <typename Function>
    KEL_HIDDEN bool m_Set(int type, Function TCCallbacksProxy::*pMember, const Function& cb);
    KEL_HIDDEN bool m_SetHandler(int type);
    template <typename Function>
    KEL_HIDDEN bool m_Reset(int type, Function TCCallbacksProxy::*pMember);
    template <typename Function>
    KEL_HIDDEN void m_Clear(Function TCCallbacksProxy::*pMember, Function& cleared)
        KEL_EXCLUDES(m_rwlock);

    bool m_Callback(int type, const std::vector<unsigned char>& request,
                    std::vector<unsigned char>& response);
    bool m_OnCallback(int type, const std::vector<unsigned char>& request,
                      std::vector<unsigned char>& response) KEL_REQUIRES_SHARED(m_rwlock);

    boost::function<void()> m_policyUpdateCb KEL_GUARDED_BY(m_rwlock);
    boost::function<bool()> m_requestProcessInfoCb KEL_GUARDED_BY(m_rwlock);
    boost::shared_ptr<IDbusClient> m_pClient; // set by the constructor, and constant from then on

    // The holder is never freed, like that of the control object.
    static boost::shared_ptr<ICallbacks>* m_pInstance KEL_GUARDED_BY(m_rwlock);
    static bool m_destroyed KEL_GUARDED_BY(m_rwlock); // never cleared
    static TCStaticRwLock m_rwlock;
};

} // namespace kel
