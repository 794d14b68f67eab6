#pragma once

#include <string>
#include <vector>

namespace kel {
namespace ctl {

/// A policy file that the device may have.
struct TSPolicyFile
{
    std::string m_path; // in words, of one on a USB device
    bool m_exists;
    bool m_used;
    const char* m_why; // it is used, when it is
};

/// The device's policy files, as the library resolves them now.
struct TSPolicyFiles
{
    bool m_debugImage;
    int m_policyMode;
    int m_deviceMode;
    std::vector<TSPolicyFile> m_candidates; // by precedence

    static TSPolicyFiles Resolve();

    /// The one that applies; it need not exist.
    const TSPolicyFile& Used() const;

    /// Whether that is on a USB device.
    bool IsUsbTest() const;
};

} // namespace ctl
} // namespace kel
