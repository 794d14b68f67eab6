// The report.json that kelctl shows: whatever is in it, what is shown is plain text.

#include "ReportView.h"
#include "Fuzz.h"

using kel::ctl::TJson;
using kel::ctl::TSReportView;
using kel::fuzz::IsPlain;
using kel::fuzz::Require;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    TJson report;
    if (!TSReportView::Read(kel::fuzz::TextFrom(data, size), report)) {
        Require(report.is_null(), "without a report nothing is touched");
        return 0;
    }
    const std::string json = TSReportView::Json(report);
    Require(g_str_is_ascii(json.c_str()) != FALSE && IsPlain(json), "JSON is plain ASCII");
    Require(TJson::parse(json, nullptr, false) == report, "JSON is the report again");

    report["directory"] = kel::fuzz::TextFrom(data, size).substr(0, 32);
    Require(IsPlain(TSReportView::Members(report)), "the members are plain text");
    const TSReportView::TRow row = TSReportView::Row(report);
    TSReportView::TWidths widths = {};
    TSReportView::Widen(widths, TSReportView::kHead);
    const std::string line = TSReportView::Line(row, widths);
    Require(IsPlain(line), "the table is plain text");
    Require(std::count(line.begin(), line.end(), '\n') == 1, "a report is a line of the table");
    Require(!TJson::parse(TSReportView::Json(report), nullptr, false).is_discarded(),
            "JSON is valid whatever the directory's name is");
    return 0;
}
