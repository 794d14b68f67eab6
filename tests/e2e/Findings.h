#pragma once

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "e2e/AgentRoad.h"

namespace kel::test {

/// What "kelctl doctor" says of one check: "good", "warning" or "fault", and the words.
struct TSFound
{
    std::string m_health;
    std::string m_what;
    std::string m_advice;
};

inline void PrintTo(const TSFound& found, std::ostream* stream)
{
    *stream << found.m_health << ": " << found.m_what << " / " << found.m_advice;
}

/// The one finding of a check, in what a run with --json has printed.
inline TSFound FoundIn(const TSFinished& ended, const std::string& check)
{
    std::vector<TSFound> found;
    const nlohmann::json findings = nlohmann::json::parse(ended.m_output, nullptr, false);
    for (const nlohmann::json& finding : findings) {
        if (finding.is_object() && finding.value("check", "") == check) {
            found.push_back({finding.at("health"), finding.at("what"), finding.at("advice")});
        }
    }
    EXPECT_EQ(found.size(), 1u) << check << "\n" << Text(ended);
    return found.empty() ? TSFound() : found.front();
}

/// A check that finds this; with advice unless it is good.
inline auto Finds(const std::string& health, const std::string& words)
{
    using testing::AllOf;
    using testing::Field;
    const testing::Matcher<const std::string&> advice
        = health == "good" ? testing::Matcher<const std::string&>(testing::IsEmpty())
                           : testing::Not(testing::IsEmpty());
    return AllOf(Field(&TSFound::m_health, health),
                 Field(&TSFound::m_what, testing::HasSubstr(words)),
                 Field(&TSFound::m_advice, advice));
}

} // namespace kel::test
