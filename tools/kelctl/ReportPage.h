#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "ReportView.h"
#include "common/Files.h"

namespace kel {
namespace ctl {

/// A page of reports for a browser, in one file. Whatever strangers' texts it has are data for a
/// script of its own, the only one that its security policy lets run: JSON in ASCII, without a
/// character that means something to a reader of markup.
///
/// What it holds is bounded: of files that have no more room in it, the sizes alone.
class TCReportPage
{
public:
    /// Takes the page, piece by piece.
    typedef std::function<bool(const std::string& text)> TOutput;

    /// The bytes of all files that a page holds, of one artefact, and of the end of a longer text
    /// and of a kernel log.
    static constexpr uint64_t kRoom = 16U << 20;
    static constexpr uint64_t kMostOfAnArtefact = 1U << 20;
    static constexpr uint64_t kMostOfAnEnd = 1U << 17;

    /// The bytes of one text of a report.
    static constexpr size_t kMostOfAText = 4096;

    explicit TCReportPage(TOutput output);

    void Begin();

    /// Adds a report. The newest comes first.
    ///
    /// @param directory  the open one of the report; its files are read as a stranger's.
    void Add(uint64_t id, TJson report, int directory);

    /// @param unreadable  directories that have no report that can be read.
    bool End(const std::vector<std::string>& unreadable);

private:
    TJson m_AddArtefact(const std::string& id, int directory, uint64_t& bytes);
    TJson m_AddLog(const std::string& id, int directory, uint64_t& bytes);
    void m_AddData(const std::string& attributes, const TJson& data);
    void m_Write(const std::string& text);

    const TOutput m_output;
    uint64_t m_room = kRoom;
    bool m_done = true;
};

} // namespace ctl
} // namespace kel
