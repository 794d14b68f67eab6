// A policy of 31 MiB took the agent a gigabyte, and its bytes flooded the agent's log or stood in
// it as they were.

#include <algorithm>

#include <gmock/gmock.h>

#include "e2e/AgentRoad.h"
#include "support/Archives.h"

namespace kel::test {

namespace {

constexpr int kSetPolicy = 4;
constexpr size_t kLarge = 31U << 20;
constexpr size_t kMost = 1U << 20;

// Of a process's memory, in KiB.
size_t Memory(pid_t id, const std::string& label)
{
    const std::string status = ReadFile("/proc/" + std::to_string(id) + "/status");
    return std::stoul(status.substr(status.find(label) + label.size()));
}

std::string Repeated(const std::string& part, size_t size)
{
    std::string text;
    text.reserve(size);
    while (text.size() + part.size() <= size) {
        text += part;
    }
    return text;
}

} // namespace

class PolicyWithoutBound : public AgentRoad
{
protected:
    PolicyWithoutBound()
    {
        ProvideAgent();
        EXPECT_EQ(SetPolicy("<policy/>").m_exit, 0);
    }

    // The agent's answer.
    int Answer(const std::string& policy)
    {
        const TSReply reply = m_peer.Send(SendBytes(kSetPolicy, 0, ArchiveOf(policy)));
        EXPECT_TRUE(reply.IsOk()) << reply.m_error;
        if (reply.m_bytes.empty() || reply.m_bytes[0] != 1) {
            return -1;
        }
        return ValueOf<int>({reply.m_bytes.begin() + 1, reply.m_bytes.end()});
    }
};

TEST_F(PolicyWithoutBound, OfElementsInsideOneAnotherIsRefusedWithoutMemory)
{
    const pid_t agent = AgentId().value();
    const size_t before = Memory(agent, "VmRSS:");
    RawPeer other(m_bus);
    const TBytes large = SendBytes(kSetPolicy, 0, ArchiveOf(Repeated("<a>", kLarge)));

    const guint32 first = m_peer.Post("Send", Body(large));
    EXPECT_TRUE(other.Hello({7}).IsOk()); // somebody else is answered meanwhile
    const TSReply reply = m_peer.WaitReply(first);

    ASSERT_TRUE(reply.IsOk()) << reply.m_error;
    ASSERT_EQ(reply.m_bytes.at(0), 1);
    EXPECT_EQ(ValueOf<int>({reply.m_bytes.begin() + 1, reply.m_bytes.end()}), 3);
    EXPECT_LT(Memory(agent, "VmHWM:"), before + (512U << 10)); // the message, several times
    EXPECT_LT(Memory(agent, "VmRSS:"), before + (512U << 10));
    EXPECT_EQ(Answer(Repeated("<a>", kMost)), 3);
    EXPECT_EQ(StoredPolicy(), "<policy/>");
    EXPECT_EQ(AgentId(), agent);
}

TEST_F(PolicyWithoutBound, LeavesOneShortPrintableLineInTheLog)
{
    const std::string name = "\x7f\xc2\x9b\xe2\x80\xae\xff";
    const std::string policies[] = {
        Repeated("<?\xff?>", kMost),
        Repeated("<?a?>\xff", kMost),
        "<" + Repeated("a", kMost - 2) + "<",
        "<" + Repeated("a", 16U << 20) + "<",
        "<" + Repeated(name, kMost - 2) + ">",
        "<a></" + name + ">",
        "<a b='&" + name + ";'/>",
        "<!DOCTYPE a [<!ENTITY e '&" + name + ";'>]><a>&e;</a>",
    };
    const size_t before = AgentLog().size();

    for (const std::string& policy : policies) {
        EXPECT_THAT(Answer(policy), testing::AnyOf(1, 3));
    }

    const std::string log = AgentLog().substr(before);
    EXPECT_EQ(CountOf(log, " refused: "), std::size(policies)) << log.substr(0, 4096);
    EXPECT_LE(log.size(), (std::size(policies) + 8) * 200); // some lines are of other things
    EXPECT_TRUE(std::all_of(log.begin(), log.end(),
                            [](char c) { return c == '\n' || (c >= ' ' && c <= '~'); }));
}

} // namespace kel::test
