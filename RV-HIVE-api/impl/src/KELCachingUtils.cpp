#include <kel/KELCachingUtils.h>

#include <cstdlib>
#include <memory>

#include <vconf.h>

#include "KELLog.h"

KEL_LOG_SOURCE("KELCachingUtils", "kel::TCHtCachingUtils")

namespace kel {

namespace {

// Looks a key up and, when it is missing, asks the platform: with the lock in upgrade mode for the
// first, so that look-ups pass one at a time, and exclusively for the second.
template <typename Key, typename Value, typename Query>
bool Lookup(boost::shared_mutex& mutex, std::map<Key, Value>& cache, const Key& key, Value& value,
            Query query)
{
    boost::upgrade_lock<boost::shared_mutex> lookup(mutex);
    const auto found = cache.find(key);
    if (found != cache.end()) {
        value = found->second;
        return true;
    }
    const boost::upgrade_to_unique_lock<boost::shared_mutex> change(lookup);
    const Key wanted = key; // the caller's may be the string that receives the value
    if (!query(wanted, value)) {
        return false;
    }
    cache.emplace(wanted, value);
    return true;
}

struct TSFree
{
    void operator()(char* text) const { std::free(text); }
};

bool ReadVconf(const std::string& key, std::string& value)
{
    // The text is not freed, on purpose: one per key and process is all there can be, and not
    // every platform's texts come from malloc().
    const char* const text = vconf_get_str(key.c_str());
    if (text == nullptr) {
        return false;
    }
    value = text;
    return true;
}

} // namespace

bool TCHtCachingUtils::GetVconfCachedString(const std::string& key, std::string& value)
{
    return Lookup(m_CacheMapMutex, m_vconfStringCache, key, value, ReadVconf);
}

bool TCHtCachingUtils::GetSystemInfoKeyCached(system_info_key_e key, int& value)
{
    const bool known = Lookup(m_CacheMapMutex, m_systemInfoKeysInt, key, value,
                              [](system_info_key_e wanted, int& number) {
                                  return system_info_get_value_int(wanted, &number) == 0;
                              });
    if (!known) {
        KEL_ERROR("Fail getting systeminfo value");
    }
    return known;
}

bool TCHtCachingUtils::GetSystemInfoKeyCached(system_info_key_e key, std::string& value)
{
    const bool known
        = Lookup(m_CacheMapMutex, m_systemInfoStrCache, key, value,
                 [](system_info_key_e wanted, std::string& text) {
                     char* pText = nullptr;
                     if (system_info_get_value_string(wanted, &pText) != 0 || pText == nullptr) {
                         return false; // what a failed call leaves is not ours
                     }
                     const std::unique_ptr<char, TSFree> owned(pText);
                     text = pText;
                     return true;
                 });
    if (!known) {
        KEL_ERROR("Fail getting systeminfo value");
    }
    return known;
}

} // namespace kel
