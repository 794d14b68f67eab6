// Every object that the library makes when it is loaded, in one file, because one file alone
// fixes an order: made from top to bottom, destroyed at exit from bottom to top. So the
// deactivator finds, when it ends the singletons, the policy and the log above it still in place;
// the holders below it are never freed and serve at any time.

#include <kel/KELCachingUtils.h>
#include <kel/KELCallbacksProxy.h>
#include <kel/KELControlProxy.h>
#include <kel/KELDbusClient.h>
#include <kel/KELDeactivator.h>
#include <kel/KELDebug.h>
#include <kel/KELDirsManager.h>
#include <kel/KELKernelLog.h>

#include "KELHandlerGate.h"

namespace kel {

TCSharedMutex TCDirsManager::m_mutex;
std::string TCDirsManager::m_policyXmlPath = "/opt/usr/share/dlog/default_kel_policy.xml";

TCDebug TCDebug::m_instance;

TCDeactivator TCDeactivator::m_instance;

TSHandlerGate* const handlerGate = MakeHandlerGate();

TCMutex* TCDbusClientProvider::m_pMutex = new TCMutex;
boost::weak_ptr<IDbusClient>* TCDbusClientProvider::m_pDbusClient
    = new boost::weak_ptr<IDbusClient>;

boost::shared_ptr<IControl>* TCControlProxy::m_pInstance = new boost::shared_ptr<IControl>;
boost::shared_ptr<ICallbacks>* TCCallbacksProxy::m_pInstance = new boost::shared_ptr<ICallbacks>;

TCSharedMutex TCHtCachingUtils::m_CacheMapMutex;
std::map<std::string, std::string> TCHtCachingUtils::m_vconfStringCache;
std::map<system_info_key_e, int> TCHtCachingUtils::m_systemInfoKeysInt;
std::map<system_info_key_e, std::string> TCHtCachingUtils::m_systemInfoStrCache;

} // namespace kel

std::string lastShared = " ";
