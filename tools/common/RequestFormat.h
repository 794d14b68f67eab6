#pragma once

#include <cstddef>

namespace kel {
namespace tools {

// Where and in which form the library leaves requests for reports, for who reads them and for who
// tells what it did. See docs/request-format.md; <kel/KELIssueReport.h> has the functions.

constexpr char kTemporaryDirectory[] = "/tmp"; // of both drop directories
constexpr char kRequestDrop[] = "/tmp/kel_NDF";
constexpr char kRebootRequestDrop[] = "/tmp/kel_NDF_reboot";
constexpr char kRequestKey[] = "memory/kel/ndf_one";

// "PROCESS-THREAD-MODE.log", and "PROCESS|THREAD|REBOOT".
constexpr char kRequestNameSeparator = '-';
constexpr char kRequestValueSeparator = '|';
constexpr char kRequestSuffix[] = ".log";
constexpr const char* kRequestModes[] = {"OQC_ALWAYS", "ALWAYS", "ONCE_ONLY", "POLICY"};

// In place of an artefact's path.
constexpr char kNoArtefactPath[] = "NO_PATH";

// In bytes. The library cuts there, from the end, and tells nobody.
constexpr size_t kLongestRequestPath = 126; // with its directory
constexpr size_t kLongestRequestValue = 511;

} // namespace tools
} // namespace kel
