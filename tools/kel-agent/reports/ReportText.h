#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <utility>

#include "requests/Request.h"

namespace kel {
namespace agent {

/// What a report tells, but for its files.
struct TSReport
{
    uint64_t m_id;
    timespec m_time;
    TSRequest m_request;

    std::optional<uint64_t> m_artefactSize; // when there is one
    std::string m_noArtefact;               // why there is none, when one was asked for

    std::pair<size_t, size_t> m_applications; // that have handled the question, and that have not
    size_t m_kernelLines;
};

// The files of a report.
constexpr char kReportFile[] = "report.json";
constexpr char kArtefactFile[] = "artefact";
constexpr char kKernelLogFile[] = "kernel.log";

/// The report as JSON text (RFC 8259), along with the policy and the device as they are now.
/// Bytes of names that are not UTF-8 are replaced.
std::string Describe(const TSReport& report);

/// The stamp of the request in such a text; empty when it has none.
std::string StampIn(const std::string& text);

} // namespace agent
} // namespace kel
