#pragma once

#include <cstdint>
#include <set>
#include <string>

#include "OwnDirectory.h"
#include "common/Outcome.h"
#include "reports/ReportText.h"
#include "reports/Shares.h"

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
    typedef TCShares::TSLimits TSLimits; // bytes are those that are written: holes take none

    TCReportStore(const std::string& stateDirectory, const TSLimits& limits);

    /// Looks at the directory as it is now: makes a missing one, removes what a killed agent has
    /// left unfinished, and drops reports beyond the limits. Only one agent at a time has it, until
    /// Close(). There may be drafts of this one's.
    tools::TCOutcome Open();

    /// Lets other agents have it.
    void Close() { m_directory.Unlock(); }

    /// Who holds how much.
    const TCShares& Shares() const { return m_shares; }

    /// Whom the newest report is of, and its stamp; nothing when there is none.
    TSOrigin Newest() const;

private:
    friend class TCReportDraft;

    std::string m_PathOf(uint64_t id) const;
    void m_Learn(uint64_t id);
    void m_MakeRoom(const std::optional<TCShares::TSNew>& added);
    void m_Drop(uint64_t id, const std::string& reason);

    TCOwnDirectory m_directory;
    TCShares m_shares;
    std::set<std::string> m_drafts; // their names
    uint64_t m_draftNumber = 0;     // of the last one
};

/// A report in the making. It is gone with this object, unless it has become one.
class TCReportDraft
{
public:
    /// @param store  open; outlives this object.
    TCReportDraft(TCReportStore& store, const TOwner& owner);
    ~TCReportDraft();
    TCReportDraft(const TCReportDraft&) = delete;
    TCReportDraft& operator=(const TCReportDraft&) = delete;

    /// Makes its directory.
    tools::TCOutcome Begin();

    /// Its number, unless another draft becomes a report before.
    uint64_t Id() const { return m_store.m_shares.NewestId() + 1; }

    /// The path of a file in it.
    std::string PathOf(const std::string& file) const { return m_path + "/" + file; }

    /// Adds a file, or takes one away.
    tools::TCOutcome Write(const std::string& file, const std::string& text);
    void Remove(const std::string& file);

    /// Makes it a report that survives a power cut; others are dropped for it.
    ///
    /// @param size  that of its files, in bytes.
    tools::TCOutcome Finish(uint64_t size);

private:
    TCReportStore& m_store;
    const TOwner m_owner;
    const std::string m_name;
    const std::string m_path;
    tools::TCDescriptor m_directory; // open from Begin() on, until it is a report
};

} // namespace agent
} // namespace kel
