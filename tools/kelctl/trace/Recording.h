#pragma once

#include <optional>
#include <string>
#include <vector>

#include "common/Outcome.h"
#include "trace/Channel.h"

namespace kel {
namespace ctl {

/// A call of a recording, and the answer it has got there.
struct TSRecordedCall
{
    TSChannelCall m_call;
    std::optional<TSChannelAnswer> m_answer;
};

/// Calls of the channel in a file, in its order. The file may be a stranger's.
class TCRecording : private IChannelListener
{
public:
    /// @param test  whether the test channel is meant.
    explicit TCRecording(bool test) : m_test(test) {}

    /// @return a failure also of a file that cannot be read to its end, or is too large to be kept.
    tools::TCOutcome Read(const std::string& path);

    const std::vector<TSRecordedCall>& Calls() const { return m_calls; }

    /// What was answered to such a call: to the same bytes, or else to another of this type.
    ///
    /// @param from  whose answers are meant; empty for all.
    const TSChannelAnswer* AnswerTo(bool toAgent, const std::string& from, int type,
                                    const TBytes& data) const;

private:
    void OnCall(const TSChannelCall& call) override;
    void OnAnswer(const TSChannelCall& call, const TSChannelAnswer& answer) override;
    void OnUnanswered(const TSChannelCall&, TMicroseconds) override {}
    void OnAgent(TMicroseconds, const std::string&) override {}
    void OnFlood(TMicroseconds, const TSFlood&) override {}

    const bool m_test;
    size_t m_size = 0; // of all data
    std::vector<TSRecordedCall> m_calls;
};

/// Whether two answers to such a call say the same; none is an answer, too.
bool IsSame(const TSChannelCall& call, const std::optional<TSChannelAnswer>& one,
            const std::optional<TSChannelAnswer>& other);

} // namespace ctl
} // namespace kel
