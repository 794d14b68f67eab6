#include "trace/Recording.h"

#include "common/AgentMessages.h"
#include "common/Archive.h"

namespace kel {
namespace ctl {

namespace {

constexpr size_t kMostBytes = 256U << 20;
constexpr size_t kMostCalls = 1U << 20;

} // namespace

tools::TCOutcome TCRecording::Read(const std::string& path)
{
    TCPcapReader reader;
    tools::TCOutcome outcome = reader.Open(path);
    TCChannel channel(m_test, *this);
    TSPcapRecord record;
    while (outcome && reader.Next(record, outcome)) {
        const TGlibPtr<GDBusMessage> message = MessageOf(record);
        if (message) {
            channel.Take(record.m_time, *message);
        }
        if (m_size > kMostBytes || m_calls.size() > kMostCalls) {
            return tools::TCOutcome::Failed("the recording has more than 256 MiB or 1048576 calls");
        }
    }
    return outcome;
}

const TSChannelAnswer* TCRecording::AnswerTo(bool toAgent, const std::string& from, int type,
                                             const TBytes& data) const
{
    const TSChannelAnswer* alike = nullptr;
    for (const TSRecordedCall& recorded : m_calls) {
        const TSChannelCall& call = recorded.m_call;
        if (!recorded.m_answer || call.m_kind != TSChannelCall::EKind::Send
            || call.m_toAgent != toAgent || call.m_type != type
            || (!from.empty() && recorded.m_answer->m_from != from)) {
            continue;
        }
        if (call.m_data == data) {
            return &*recorded.m_answer;
        }
        alike = alike == nullptr ? &*recorded.m_answer : alike;
    }
    return alike;
}

void TCRecording::OnCall(const TSChannelCall& call)
{
    m_size += call.m_data.size() + call.m_types.size() * sizeof(int);
    m_calls.push_back({call, std::nullopt});
}

void TCRecording::OnAnswer(const TSChannelCall& call, const TSChannelAnswer& answer)
{
    m_size += answer.m_data.size();
    m_calls[call.m_number].m_answer = answer;
}

bool IsSame(const TSChannelCall& call, const std::optional<TSChannelAnswer>& one,
            const std::optional<TSChannelAnswer>& other)
{
    if (!one || !other) {
        return one.has_value() == other.has_value();
    }
    if (one->m_error != other->m_error || one->m_readable != other->m_readable
        || one->m_handled != other->m_handled) {
        return false;
    }
    if (call.m_toAgent && call.m_type == tools::AskClients) {
        return true; // it tells of that moment
    }
    // An archive of another machine has other bytes for the same number.
    const std::optional<int> number = tools::TCArchiveView(one->m_data).Int();
    return call.m_kind != TSChannelCall::EKind::Send || one->m_data == other->m_data
           || (number && number == tools::TCArchiveView(other->m_data).Int());
}

} // namespace ctl
} // namespace kel
