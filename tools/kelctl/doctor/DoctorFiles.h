#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "common/Files.h"
#include "doctor/Doctor.h"

namespace kel {
namespace ctl {

// The parts of CheckFiles(), each in a source file of its own.

/// The directories in which requests are left.
void CheckDrops(TFindings& findings);

/// What is left in them, and what was taken from them.
void CheckRequests(TFindings& findings);

/// What makes them at boot.
void CheckTmpfiles(TFindings& findings);

/// The agent's directory, and the room there.
void CheckState(const TSDoctorOptions& options, TFindings& findings);

/// The reports in it.
void CheckReports(const TSDoctorOptions& options, TFindings& findings);

/// What a report's kernel log comes from.
void CheckKernelLog(TFindings& findings);
void CheckIdleClass(TFindings& findings);

/// The policy files of the device, and the agent's own policy.
void CheckPolicyFiles(const TSDoctorOptions& options, TFindings& findings);

/// How often something was found, and the first of them.
struct TSTally
{
    size_t m_count = 0;
    std::string m_example;

    void Add(const std::string& example);
};

/// Tells what one check has found.
class TCCheck
{
public:
    TCCheck(std::string name, TFindings& findings) : m_name(std::move(name)), m_findings(findings)
    {}

    void Good(const std::string& what) const;
    void Warn(const std::string& what, const std::string& advice) const;
    void Fail(const std::string& what, const std::string& advice) const;

    /// A warning of what was found, or good when it was not.
    ///
    /// @param one, several  the words behind the number: "thing is junk", "things are junk"
    /// @param meaning       behind the example.
    void Judge(const TSTally& found, const std::string& good, const std::string& one,
               const std::string& several, const std::string& meaning,
               const std::string& advice) const;

    /// Of what this user may not see.
    void OnlyRoot(const std::string& what) const;

private:
    const std::string m_name;
    TFindings& m_findings;
};

/// "no request", "1 request", "2 requests"
std::string CountText(size_t count, const std::string& one, const std::string& several);

/// Whether a time that was written down has not come yet, by so much that no other clock explains
/// it. In seconds since 1970, like the other.
bool IsOfTheFuture(int64_t time, int64_t now);

/// A time that has passed, roughly: "12 s", "3 h".
std::string AgeText(int64_t seconds);

/// A number of bytes, roughly: "12 KiB".
std::string SizeText(uint64_t bytes);

/// The directory of temporary files; without the right to list it.
tools::TCDescriptor OpenTemporary();

} // namespace ctl
} // namespace kel
