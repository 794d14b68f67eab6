#pragma once

// Compares two ways of doing one thing, on a machine that is never quite idle: the two take turns
// in short blocks, each round gives one ratio, and the median of those is the figure. What else
// the machine does hits both sides of a round alike, or falls out as an outlier.

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <string>
#include <vector>

namespace kel::bench {

inline double Median(std::vector<double> values)
{
    const size_t middle = values.size() / 2;
    std::nth_element(values.begin(), values.begin() + static_cast<long>(middle), values.end());
    return values[middle];
}

/// How long a comparison may take, and how long one side's turn lasts.
struct TSEffort
{
    double m_seconds = 4;
    double m_blockSeconds = 0.002;
    size_t m_minRounds = 7;  // also when that takes longer
    bool m_sameCalls = true; // in a turn of either side: the first call of a turn costs more than
                             // the others. Not for sides of which one is far slower.
};

/// Times are in seconds per call.
struct TSPaired
{
    double m_ours = 0;
    double m_baseline = 0;
    double m_ratio = 0; // median of the rounds' ratios
    double m_low = 0;   // 95 % confidence interval of that median
    double m_high = 0;
    size_t m_rounds = 0;
};

inline double SecondsSince(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

/// Seconds per call of so many calls in a row.
template <typename Call> double TimeBlock(Call& call, size_t calls)
{
    const auto start = std::chrono::steady_clock::now();
    for (size_t i = 0; i < calls; ++i) {
        call();
    }
    return SecondsSince(start) / static_cast<double>(calls);
}

/// How many calls make a block; warms the call up on the way.
template <typename Call> size_t CallsPerBlock(Call& call, double blockSeconds)
{
    size_t calls = 1;
    for (;;) {
        double seconds = TimeBlock(call, calls) * static_cast<double>(calls);
        for (int again = 0; again < 3 && seconds >= blockSeconds / 2; ++again) {
            seconds = std::min(seconds, TimeBlock(call, calls) * static_cast<double>(calls));
        }
        if (seconds >= blockSeconds / 2) {
            const double wanted = static_cast<double>(calls) * blockSeconds / seconds;
            return std::max<size_t>(1, static_cast<size_t>(wanted));
        }
        calls *= 2;
    }
}

template <typename Ours, typename Baseline>
TSPaired MeasurePair(Ours ours, Baseline baseline, const TSEffort& effort)
{
    size_t ourCalls = CallsPerBlock(ours, effort.m_blockSeconds);
    size_t baselineCalls = CallsPerBlock(baseline, effort.m_blockSeconds);
    if (effort.m_sameCalls) {
        ourCalls = baselineCalls = std::min(ourCalls, baselineCalls);
    }

    std::vector<double> ourTimes;
    std::vector<double> baselineTimes;
    std::vector<double> ratios;
    const auto start = std::chrono::steady_clock::now();
    while (ratios.size() < effort.m_minRounds || SecondsSince(start) < effort.m_seconds) {
        // Whoever goes second finds other caches than whoever goes first.
        const bool oursFirst = ratios.size() % 2 == 0;
        double ourTime = oursFirst ? TimeBlock(ours, ourCalls) : 0;
        const double baselineTime = TimeBlock(baseline, baselineCalls);
        if (!oursFirst) {
            ourTime = TimeBlock(ours, ourCalls);
        }
        ourTimes.push_back(ourTime);
        baselineTimes.push_back(baselineTime);
        ratios.push_back(ourTime / baselineTime);
    }

    // The ranks between which the true median lies; no assumption about the distribution.
    std::sort(ratios.begin(), ratios.end());
    const double count = static_cast<double>(ratios.size());
    const double reach = 0.98 * std::sqrt(count);
    const double lowRank = std::max(0.0, std::floor(count / 2 - reach));
    const double highRank = std::min(count - 1, std::ceil(count / 2 + reach));

    TSPaired result;
    result.m_ours = Median(ourTimes);
    result.m_baseline = Median(baselineTimes);
    result.m_ratio = Median(ratios);
    result.m_low = ratios[static_cast<size_t>(lowRank)];
    result.m_high = ratios[static_cast<size_t>(highRank)];
    result.m_rounds = ratios.size();
    return result;
}

/// A time in the unit that suits it.
inline std::string Time(double seconds)
{
    char text[32];
    if (seconds < 1e-6) {
        std::snprintf(text, sizeof(text), "%.0f ns", seconds * 1e9);
    } else if (seconds < 1e-3) {
        std::snprintf(text, sizeof(text), "%.1f us", seconds * 1e6);
    } else {
        std::snprintf(text, sizeof(text), "%.2f ms", seconds * 1e3);
    }
    return text;
}

inline std::string Size(size_t bytes)
{
    if (bytes >= 1024 * 1024) {
        return std::to_string(bytes / (1024 * 1024)) + " MiB";
    }
    return bytes >= 1024 ? std::to_string(bytes / 1024) + " KiB" : std::to_string(bytes) + " B";
}

/// Counts the documented bounds that were missed.
class TCBounds
{
public:
    /// One bound, as a cell of the table: what it is, and whether it holds.
    std::string AtMost(double value, double bound)
    {
        const bool held = value <= bound;
        m_missed += held ? 0 : 1;
        char text[48];
        std::snprintf(text, sizeof(text), "<= %.2f %s", bound, held ? "ok" : "MISSED");
        return text;
    }

    /// What main() returns.
    int ExitStatus() const
    {
        if (m_missed != 0) {
            std::printf("\n%u bound(s) missed\n", m_missed);
        }
        return m_missed != 0 ? 1 : 0;
    }

private:
    unsigned int m_missed = 0;
};

} // namespace kel::bench
