#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "PolicyFiles.h"
#include "StoredPolicy.h"
#include "common/Text.h"
#include "doctor/DoctorFiles.h"

namespace kel {
namespace ctl {

namespace {

// Why applications cannot read a policy from there; empty when they can.
std::string FaultOf(const std::string& path)
{
    struct stat status;
    if (stat(path.c_str(), &status) != 0) {
        return std::string("cannot be looked at: ") + std::strerror(errno);
    }
    if (!S_ISREG(status.st_mode)) {
        return "is no file";
    }
    if (status.st_size == 0) {
        return "is empty";
    }
    return (status.st_mode & S_IROTH) == 0 ? "can be read by its owner alone" : "";
}

void CheckDevices(const TCCheck& check)
{
    const TSPolicyFiles files = TSPolicyFiles::Resolve();
    const TSPolicyFile& used = files.Used();
    const std::string image
        = files.m_debugImage ? "; on this debug image a USB device's comes before" : "";
    if (files.IsUsbTest()) {
        check.Warn(used.m_path + " applies: " + used.m_why,
                   "take the USB device away, or rm /etc/debug, when this is no test");
        return;
    }
    if (!used.m_exists) {
        check.Warn("the device has no policy file" + image + ", not even the last, " + used.m_path,
                   "install one; kelctl policy tells the order");
        return;
    }
    const std::string fault = FaultOf(used.m_path);
    if (fault.empty()) {
        check.Good(used.m_path + " applies: " + used.m_why + image);
    } else {
        check.Fail(used.m_path + " applies: " + used.m_why + image + "; but it " + fault,
                   "install it anew, or remove it, so that the next applies: kelctl policy");
    }
}

void CheckAgents(const TCCheck& check, const std::string& stateDirectory)
{
    const TSStoredPolicy stored(stateDirectory);
    switch (stored.m_state) {
    case TSStoredPolicy::EState::Stored:
        check.Good(stored.m_path + " was set at " + tools::IsoTime(stored.m_since));
        break;
    case TSStoredPolicy::EState::None:
        check.Good("no application has set a policy");
        break;
    default:
        if (stored.m_reason == std::strerror(EACCES)) {
            check.OnlyRoot(stored.m_path);
        } else {
            check.Fail(stored.m_path + " cannot be read: " + stored.m_reason,
                       "set it anew: kelctl set-policy FILE");
        }
    }
}

} // namespace

void CheckPolicyFiles(const TSDoctorOptions& options, TFindings& findings)
{
    CheckDevices(TCCheck("policy files", findings));
    CheckAgents(TCCheck("agent's policy", findings), options.m_stateDirectory);
}

} // namespace ctl
} // namespace kel
