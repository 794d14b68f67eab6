#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "OwnDirectory.h"

namespace kel {
namespace agent {

/// The directory of reports: one directory a report, whose name is its number in ten digits. Where
/// there is one, it is whole: it is made under another name, and takes its own when it has reached
/// the disk.
///
/// Threads: one at a time.
class TCReportStore
{
public:
    struct TSLimits
    {
        size_t m_reports;
        uint64_t m_bytes;
    };

    TCReportStore(const std::string& stateDirectory, const TSLimits& limits);

    /// Looks at the directory as it is now: makes a missing one, removes what a killed agent has
    /// left unfinished, and drops the oldest reports beyond the limits. Only one agent at a time
    /// has it, until Close().
    ///
    /// @param reason  replaced by one line on failure; untouched otherwise.
    bool Open(std::string& reason);

    /// Lets other agents have it.
    void Close() { m_directory.Unlock(); }

    const TSLimits& Limits() const { return m_limits; }

    /// The directory of the newest report; empty when there is none.
    std::string Newest() const;

private:
    friend class TCReportDraft;

    std::string m_PathOf(uint64_t id) const;
    void m_MakeRoom(size_t reports, uint64_t bytes);
    void m_Drop(uint64_t id, const std::string& reason);

    const TSLimits m_limits;
    TCOwnDirectory m_directory;
    std::map<uint64_t, uint64_t> m_sizes; // of the reports, in bytes
};

/// A report in the making. It is gone with this object, unless it has become one.
class TCReportDraft
{
public:
    /// @param store  open; outlives this object.
    explicit TCReportDraft(TCReportStore& store);
    ~TCReportDraft();
    TCReportDraft(const TCReportDraft&) = delete;
    TCReportDraft& operator=(const TCReportDraft&) = delete;

    /// Makes its directory.
    ///
    /// @param reason  here and below: replaced by one line on failure; untouched otherwise.
    bool Begin(std::string& reason);

    uint64_t Id() const { return m_id; }

    /// The path of a file in it.
    std::string PathOf(const std::string& file) const { return m_path + "/" + file; }

    /// Adds a file.
    bool Write(const std::string& file, const std::string& text, std::string& reason);

    /// Makes it a report that survives a power cut; the oldest ones are dropped for it.
    ///
    /// @param size  that of its files, in bytes.
    bool Finish(uint64_t size, std::string& reason);

private:
    TCReportStore& m_store;
    const uint64_t m_id;
    const std::string m_path;
    tools::TCDescriptor m_directory;
};

} // namespace agent
} // namespace kel
