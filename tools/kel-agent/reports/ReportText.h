#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <utility>

#include "requests/Request.h"

namespace kel {
namespace agent {

/// How many applications have handled a question, and how many have not.
typedef std::pair<size_t, size_t> TAnswers;

/// What a report tells of its kernel log.
struct TSKernelLog
{
    enum class EState { Complete, Late, Unavailable };

    EState m_state;
    std::string m_reason; // unless it is complete
    bool m_gap;           // lines may be missing since the report before
    size_t m_lines;
};

/// What a report tells, but for its files.
struct TSReport
{
    uint64_t m_id;
    timespec m_time;
    TSRequest m_request;

    std::optional<uint64_t> m_artefactSize; // when there is one
    std::string m_noArtefact;               // why there is none, when one was asked for

    std::optional<TAnswers> m_applications; // none when they are not known yet
    TSKernelLog m_kernelLog;
};

// The files of a report.
constexpr char kReportFile[] = "report.json";
constexpr char kArtefactFile[] = "artefact";
constexpr char kKernelLogFile[] = "kernel.log";

/// The report as JSON text (RFC 8259), along with the policy and the device as they are now.
/// Bytes of names that are not UTF-8 are replaced.
std::string Describe(const TSReport& report);

/// What such a text tells of its request.
struct TSOrigin
{
    std::string m_stamp;
    std::optional<uid_t> m_user;
};

/// Each is empty when the text does not tell it.
TSOrigin OriginIn(const std::string& text);

} // namespace agent
} // namespace kel
