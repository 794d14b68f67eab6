#include <fcntl.h>

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "NewFile.h"
#include "ReportPage.h"
#include "Reports.h"

namespace kel {
namespace ctl {

namespace {

EStatus Fail(const tools::TCOutcome& outcome)
{
    std::fprintf(stderr, "kelctl: the page cannot be written: %s\n", outcome.Reason().c_str());
    return EStatus::NoOutput;
}

} // namespace

EStatus WriteReportPage(const TSReportsOptions& options, const std::vector<std::string>& names)
{
    TCNewFile file;
    const tools::TCOutcome opened = file.Open(options.m_page);
    if (!opened) {
        return Fail(opened);
    }
    const TCReportDirectory directory(options.m_stateDirectory);
    TCReportPage page([&file](const std::string& text) { return file.Write(text); });
    std::vector<std::string> unreadable;
    page.Begin();
    for (auto name = names.rbegin(); name != names.rend(); ++name) {
        TJson report;
        bool read = true;
        if (ReadSelected(options, directory, *name, report, read)) {
            page.Add(TCReportDirectory::IdOf(*name), std::move(report),
                     directory.Open(*name).Get());
        } else if (!read) {
            unreadable.push_back(directory.PathOf(*name));
        }
    }
    page.End(unreadable);
    const tools::TCOutcome finished = file.Finish();
    if (!finished) {
        return Fail(finished);
    }
    return unreadable.empty() ? EStatus::Success : EStatus::Negative;
}

} // namespace ctl
} // namespace kel
