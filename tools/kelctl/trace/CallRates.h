#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "trace/Pcap.h"

namespace kel {
namespace ctl {

/// So many calls of one peer to another that something must be wrong.
struct TSFlood
{
    std::string m_from;
    std::string m_to;
    size_t m_calls; // within a second
};

/// Counts who calls whom how often within a second, and finds the floods. The names may be a
/// stranger's inventions.
class TCCallRates
{
public:
    void Add(const std::string& from, const std::string& to);

    /// The floods of the second that is over at this time, if one is.
    std::vector<TSFlood> Look(TMicroseconds time);

    /// Those of the second that has begun.
    std::vector<TSFlood> End();

private:
    TMicroseconds m_begin = 0;
    std::map<std::pair<std::string, std::string>, size_t> m_calls; // since then, by both names
};

} // namespace ctl
} // namespace kel
