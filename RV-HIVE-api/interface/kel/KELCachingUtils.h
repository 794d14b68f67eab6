#pragma once

#include <map>
#include <string>

#include <system_info.h>

#include <kel/KELExport.h>
#include <kel/KELLocks.h>

namespace kel {

/// Cached reads of the platform's configuration and system information. The first value that is
/// read of a key is kept for the life of the process; a failure is not, and is tried again.
///
/// Thread-safe. One lock serialises all look-ups, and the platform is asked while it is held, so
/// that no two threads ask for the same missing key.
///
/// @snippet class-examples.cpp TCHtCachingUtils
class KEL_EXPORT TCHtCachingUtils
{
public:
    /// Reads a string of the key-value store.
    ///
    /// @return true with the value; false when the key has none, with the value untouched.
    static bool GetVconfCachedString(const std::string& key, std::string& value);

    /// Reads a number of the system information.
    ///
    /// @return true with the value; false (and an error line) when it could not be had: the
    ///         platform may have changed the value all the same.
    static bool GetSystemInfoKeyCached(system_info_key_e key, int& value);

    /// Reads a text of the system information.
    ///
    /// @return true with the value; false (and an error line) when it could not be had, with the
    ///         value untouched.
    static bool GetSystemInfoKeyCached(system_info_key_e key, std::string& value);

private:
    static std::map<std::string, std::string> m_vconfStringCache KEL_GUARDED_BY(m_CacheMapMutex);
    static std::map<system_info_key_e, int> m_systemInfoKeysInt KEL_GUARDED_BY(m_CacheMapMutex);
    static std::map<system_info_key_e, std::string>
        m_systemInfoStrCache KEL_GUARDED_BY(m_CacheMapMutex);
    static TCSharedMutex m_CacheMapMutex;
};

} // namespace kel
