#include "ReportSelection.h"

#include <array>
#include <cstdlib>

namespace kel {
namespace ctl {

namespace {

constexpr char kForm[] = "0000-00-00T00:00:00.000";
constexpr size_t kEnds[] = {10, 16, 19, 23}; // of what stands for a time: day, minute, second, all
constexpr TMilliseconds kSecond = 1000;
constexpr TMilliseconds kMinute = 60 * kSecond;
constexpr TMilliseconds kHour = 60 * kMinute;
constexpr TMilliseconds kDay = 24 * kHour;
constexpr size_t kMostDigits = 9;

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// Whether a text has the form of a time, and ends where a time may.
bool IsOfTheForm(const std::string& text)
{
    for (size_t i = 0; i < text.size(); ++i) {
        if (kForm[i] == '0' ? !IsDigit(text[i]) : text[i] != kForm[i]) {
            return false;
        }
    }
    return true;
}

// The number at a place of a text that may end before.
int NumberAt(const std::string& text, size_t place, size_t size)
{
    return place < text.size() ? std::atoi(text.substr(place, size).c_str()) : 0;
}

bool IsLeap(int year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

// From the first day of the year 0 on.
TMilliseconds DaysBeforeYear(int year)
{
    const int before = year - 1; // the year 0 is a leap year itself
    return year == 0 ? 0
                     : 366 + TMilliseconds(before) * 365 + before / 4 - before / 100 + before / 400;
}

const TJson& At(const TJson& report, const char* pointer)
{
    static const TJson nothing;
    const TJson::json_pointer place(pointer);
    return report.contains(place) ? report[place] : nothing;
}

std::string TextAt(const TJson& report, const char* pointer)
{
    const TJson& value = At(report, pointer);
    return value.is_string() ? value.get<std::string>() : "";
}

// What is no number comes before all that is.
uint64_t NumberAt(const TJson& report, const char* pointer)
{
    const TJson& value = At(report, pointer);
    return value.is_number_unsigned() ? value.get<uint64_t>() + 1 : 0;
}

} // namespace

std::optional<TMilliseconds> ParseTime(const std::string& text)
{
    std::string time = text;
    if (time.size() > kEnds[0] && time.back() == 'Z') {
        time.pop_back();
    }
    bool ends = false;
    for (const size_t end : kEnds) {
        ends = ends || time.size() == end;
    }
    if (!ends || !IsOfTheForm(time)) {
        return std::nullopt;
    }
    const int year = NumberAt(time, 0, 4);
    const int month = NumberAt(time, 5, 2);
    const int day = NumberAt(time, 8, 2);
    const int hour = NumberAt(time, 11, 2);
    const int minute = NumberAt(time, 14, 2);
    const int second = NumberAt(time, 17, 2);
    const std::array<int, 12> lengths{
        31, IsLeap(year) ? 29 : 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (month < 1 || month > 12 || day < 1 || day > lengths[static_cast<size_t>(month - 1)]
        || hour > 23 || minute > 59 || second > 60) {
        return std::nullopt;
    }
    TMilliseconds days = DaysBeforeYear(year) - DaysBeforeYear(1970) + day - 1;
    for (int before = 1; before < month; ++before) {
        days += lengths[static_cast<size_t>(before - 1)];
    }
    return days * kDay + hour * kHour + minute * kMinute + second * kSecond + NumberAt(time, 20, 3);
}

std::optional<TMilliseconds> ParseAge(const std::string& text)
{
    if (text.size() < 2 || text.size() > kMostDigits + 1
        || text.find_first_not_of("0123456789") != text.size() - 1) {
        return std::nullopt;
    }
    const TMilliseconds number = std::atoi(text.c_str());
    TMilliseconds unit = 0;
    switch (text.back()) {
    case 's':
        unit = kSecond;
        break;
    case 'm':
        unit = kMinute;
        break;
    case 'h':
        unit = kHour;
        break;
    case 'd':
        unit = kDay;
        break;
    case 'w':
        unit = 7 * kDay;
        break;
    default:
        break;
    }
    return number > 0 && unit > 0 ? std::optional<TMilliseconds>(number * unit) : std::nullopt;
}

bool TSReportSelection::IsEmpty() const
{
    return !m_since && !m_before && !m_process && !m_mode && !m_user;
}

bool TSReportSelection::Has(const TJson& report) const
{
    if (m_since || m_before) {
        const std::optional<TMilliseconds> time = ParseTime(TextAt(report, "/time"));
        if (!time || (m_since && *time < *m_since) || (m_before && *time >= *m_before)) {
            return false;
        }
    }
    if (m_user) {
        const TJson::json_pointer place("/request/user");
        if (!report.contains(place) || report[place] != *m_user) {
            return false;
        }
    }
    return (!m_process || At(report, "/request/process") == *m_process)
           && (!m_mode || At(report, "/request/mode") == *m_mode);
}

TSReportSelection::TKey TSReportSelection::KeyOf(const TJson& report) const
{
    switch (m_order) {
    case EOrder::Id:
        break; // they come so
    case EOrder::Time:
        return {0, TextAt(report, "/time")};
    case EOrder::Process:
        return {0, TextAt(report, "/request/process")};
    case EOrder::User:
        return {NumberAt(report, "/request/user"), ""};
    case EOrder::Mode:
        return {0, TextAt(report, "/request/mode")};
    case EOrder::Size:
        return {NumberAt(report, "/artefact/bytes"), ""};
    }
    return {};
}

} // namespace ctl
} // namespace kel
