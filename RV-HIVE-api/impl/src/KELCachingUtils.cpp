#include <kel/KELCachingUtils.h>

#include <cstdlib>
#include <memory>

#include <vconf.h>

#include "KELLog.h"

KEL_LOG_SOURCE("KELCachingUtils", "kel::TCHtCachingUtils")

namespace kel {

namespace {

template <typename Key, typename Value>
bool Find(const std::map<Key, Value>& cache, const Key& key, Value& value)
{
    const auto found = cache.find(key);
    if (found == cache.end()) {
        return false;
    }
    value = found->second;
    return true;
}

struct TSFree
{
    void operator()(char* text) const { std::free(text); }
};

} // namespace

bool TCHtCachingUtils::GetVconfCachedString(const std::string& key, std::string& value)
{
    TCUpgradeLock caches(m_CacheMapMutex);
    if (Find(m_vconfStringCache, key, value)) {
        return true;
    }
    caches.Promote();
    // The text is not freed, on purpose: one per key and process is all there can be, and not
    // every platform's texts come from malloc().
    const char* const text = vconf_get_str(key.c_str());
    if (text == nullptr) {
        return false;
    }
    m_vconfStringCache.emplace(key, text); // first: the key may be the string for the value
    value = text;
    return true;
}

bool TCHtCachingUtils::GetSystemInfoKeyCached(system_info_key_e key, int& value)
{
    {
        TCUpgradeLock caches(m_CacheMapMutex);
        if (Find(m_systemInfoKeysInt, key, value)) {
            return true;
        }
        caches.Promote();
        if (system_info_get_value_int(key, &value) == 0) {
            m_systemInfoKeysInt.emplace(key, value);
            return true;
        }
    }
    KEL_ERROR("Fail getting systeminfo value");
    return false;
}

bool TCHtCachingUtils::GetSystemInfoKeyCached(system_info_key_e key, std::string& value)
{
    {
        TCUpgradeLock caches(m_CacheMapMutex);
        if (Find(m_systemInfoStrCache, key, value)) {
            return true;
        }
        caches.Promote();
        char* pText = nullptr;
        if (system_info_get_value_string(key, &pText) == 0 && pText != nullptr) {
            const std::unique_ptr<char, TSFree> owned(pText);
            value = pText;
            m_systemInfoStrCache.emplace(key, value);
            return true;
        } // what a failed call leaves is not ours
    }
    KEL_ERROR("Fail getting systeminfo value");
    return false;
}

} // namespace kel
