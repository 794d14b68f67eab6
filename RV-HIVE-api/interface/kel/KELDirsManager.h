#pragma once

#include <string>

#include <kel/KELExport.h>
#include <kel/KELLocks.h>

namespace kel {

/// Decides which policy file the agent is to load, and in which mode the device runs. Everything
/// rests on which files exist; no content is ever read. Thread-safe.
///
/// Policy files, by precedence: "/opt/usr/share/dlog/yol_kel_policy_high.xml",
/// "/opt/usr/share/vostek/vostek_kel_policy.xml", "/opt/usr/share/dlog/yol_kel_policy.xml",
/// "/opt/usr/share/dlog/default_kel_policy.xml". On a debug image ("/etc/debug" exists),
/// "vostek/vostek_kel_policy.xml" on the first USB storage device comes before them all.
///
/// @snippet class-examples.cpp TCDirsManager
class KEL_EXPORT TCDirsManager
{
public:
    /// Resolves everything: the policy files, then, on a debug image, the USB device. For the
    /// agent's start-up; may run again. When the USB devices cannot be listed, the device mode
    /// stays what it was.
    static void Initialize();

    /// Resolves the policy files alone.
    static void getPolicyPath();

    /// 0: the default policy is in use; 2: a vendor's or a variant's.
    static int GetPolicyMode();

    /// 0: normal; 3: USB test mode.
    static int GetKELMode();

    /// Resolves the policy files alone, once more, and returns the path. A USB path that
    /// Initialize() has found is given up by that, on purpose; the device mode stays.
    static std::string GetPolicyXmlPath();

private:
    static void m_StorePolicyMode(int mode);
    static void m_StoreKELMode(int mode);

    static int KELMode KEL_GUARDED_BY(m_mutex);
    static int PolicyMode KEL_GUARDED_BY(m_mutex);
    static std::string m_policyXmlPath KEL_GUARDED_BY(m_mutex);
    static TCSharedMutex m_mutex;
};

} // namespace kel
