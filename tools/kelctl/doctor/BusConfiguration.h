#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "common/Outcome.h"

namespace kel {
namespace ctl {

/// What a bus is told by its configuration, as far as the channel depends on it.
///
/// It is what the files say now. The bus may have read them before somebody changed them.
class TCBusConfiguration
{
public:
    /// @param agent  the name on the bus that the channel's agent has.
    explicit TCBusConfiguration(std::string agent) : m_agent(std::move(agent)) {}

    /// Reads a file, and all that it includes, within bounds.
    ///
    /// @return failed when it, or a file that has to be there, cannot be read. What was read before
    ///         is kept.
    tools::TCOutcome Read(const std::string& path);

    /// A limit by the name that it has there; otherwise that of a bus which is told of none.
    long long Limit(const std::string& name, long long builtIn) const;

    /// The files that let messages be sent to the agent, in the order in which they are read.
    const std::vector<std::string>& Rules() const { return m_rules; }

    /// Where the bus looks for activation files, the first first.
    const std::vector<std::string>& ServiceDirectories() const { return m_serviceDirectories; }

    /// The directories where a system bus looks for them when it is told no others.
    static const std::vector<std::string> kStandardServiceDirectories;

    /// The file that a system bus reads first, when it is told of no other.
    static std::string StandardFile();

private:
    class TCReader;

    tools::TCOutcome m_Read(const std::string& path, bool mayMiss, size_t depth);
    void m_ReadDirectory(const std::string& path, size_t depth);

    const std::string m_agent;
    std::map<std::string, long long> m_limits;
    std::vector<std::string> m_rules;
    std::vector<std::string> m_serviceDirectories;
    size_t m_files = 0;
};

} // namespace ctl
} // namespace kel
