#pragma once

#include <string>

#include <boost/shared_ptr.hpp>

#include <kel/IControl.h>
#include <kel/IDbusClient.h>
#include <kel/KELExport.h>
#include <kel/KELLocks.h>

namespace kel {

/// The process's control object: carries IControl's operations to the agent over the channel.
/// Every operation is thread-safe. Programs come by it through kel::api::GetControl(), which also
/// has it ended when the process exits.
///
/// @snippet class-examples.cpp IControl
class KEL_EXPORT TCControlProxy : public IControl
{
public:
    ~TCControlProxy() override;

    int SetPolicy(const std::string& policy) override;

    /// The singleton, created on first use; empty after Destroy(). Thread-safe. The first use
    /// connects to the system bus on the calling thread, if the process has no client yet.
    static boost::shared_ptr<IControl> Instance();

    /// Ends the singleton for good. Who holds it keeps a working object. Thread-safe.
    static void Destroy();

private:
    template <typename Proxy> friend struct TSSingletonLife;

    TCControlProxy();

    boost::shared_ptr<IDbusClient> m_pClient; // set by the constructor, and constant from then on

    // The holder is never freed: Destroy() runs at process exit and must find it.
    static boost::shared_ptr<IControl>* m_pInstance KEL_GUARDED_BY(m_rwlock);
    static bool m_destroyed KEL_GUARDED_BY(m_rwlock); // never cleared
    static TCStaticRwLock m_rwlock;
};

} // namespace kel
