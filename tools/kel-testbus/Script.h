#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "common/Outcome.h"

namespace kel {
namespace testbus {

/// The type of the message that sets the agent's policy.
constexpr int kSetPolicy = 4;

/// What the agent answers to one message.
struct TSAnswer
{
    enum class EKind { Handled, NotHandled, Error, Junk, NoBytes, OtherType, Nothing };

    EKind m_kind = EKind::NotHandled;
    std::optional<int> m_result; // of a handled message: an archive of this number, 0 for a policy
    std::string m_error;         // the name of a D-Bus error
    unsigned int m_delay = 0;    // in milliseconds
};

/// What the agent does of itself, one step behind the other.
struct TSStep
{
    enum class EKind { Send, Vanish, Return, WaitForClient, WaitForMessage };

    EKind m_kind;
    unsigned int m_delay = 0;  // in milliseconds, before it is done
    std::optional<int> m_type; // of an event or a message
    size_t m_number = 0;       // the how many-th message of the type is waited for, from 1
};

/// How a scripted agent behaves, as a small text tells: see kel-testbus(1).
class TCScript
{
public:
    /// Reads a file.
    ///
    /// @return failed with a reason that begins with the file's name, and the line where there is
    ///         one; the script is as it was then.
    static tools::TCOutcome Read(const std::string& path, TCScript& script);

    /// What is answered to the message of a type that follows so many others, of that type; of all
    /// that have no lines of their own, when this type has none.
    TSAnswer Answer(int type, size_t earlier) const;

    /// Whether messages of the type have lines of their own.
    bool HasLines(int type) const { return m_answers.count(type) != 0; }

    /// The types of messages that have lines, or are waited for.
    std::set<int> Types() const;

    const std::vector<TSStep>& Steps() const { return m_steps; }

    /// Whether the agent is away when this step is the next.
    bool IsAwayAt(size_t step) const;

private:
    friend class TCScriptReader;

    std::map<int, std::vector<TSAnswer>> m_answers; // one after the other; the last one stays
    std::vector<TSAnswer> m_otherAnswers;
    std::vector<TSStep> m_steps;
};

} // namespace testbus
} // namespace kel
