// docs/wire-vectors.json on a bus: what our ends send, and what they make of what is sent to them.

#include <gmock/gmock.h>

#include "e2e/AgentRoad.h"
#include "support/WireVectors.h"

namespace kel::test {

using nlohmann::json;

namespace {

std::vector<json> ExchangesFrom(const char* end, const char* method)
{
    std::vector<json> exchanges;
    for (const json& vector : WireVectors("exchanges")) {
        if (vector.at("from") == end && vector.at("method") == method && IsOwn(vector)) {
            exchanges.push_back(vector);
        }
    }
    EXPECT_FALSE(exchanges.empty());
    return exchanges;
}

} // namespace

class WireVectorRoad : public AgentRoad
{
protected:
    void ExpectReply(const json& vector, const TSReply& reply)
    {
        EXPECT_TRUE(reply.IsOk()) << reply.m_error;
        if (vector.at("method") == "Hello") {
            EXPECT_EQ(reply.m_signature, "");
            return;
        }
        const TBytes expected = HexBytes(vector, "reply");
        if (vector.value("example", false)) {
            ASSERT_FALSE(reply.m_bytes.empty());
            EXPECT_EQ(reply.m_bytes[0], expected.at(0));
        } else {
            EXPECT_EQ(reply.m_bytes, expected);
        }
    }
};

TEST_F(WireVectorRoad, TheAgentAnswersAsTheyTell)
{
    const std::unique_ptr<ChildProcess> agent = StartAgent();
    ASSERT_TRUE(Says(*agent, "kel-agent: ready\n"));

    for (const char* method : {"Hello", "Send"}) {
        for (const json& vector : ExchangesFrom("application", method)) {
            SCOPED_TRACE(vector.dump());
            ExpectReply(vector, m_peer.Call(method, Body(HexBytes(vector, "request"))));
        }
    }
    for (const json& vector : WireVectors("errors")) {
        SCOPED_TRACE(vector.dump());
        EXPECT_EQ(m_peer.Call(vector.at("method"), ParseBody(vector.at("arguments"))).m_error,
                  vector.at("error"));
    }
}

TEST_F(WireVectorRoad, AnApplicationSendsAndAnswersAsTheyTell)
{
    ASSERT_TRUE(m_peer.OwnName());
    const std::vector<json> hellos = ExchangesFrom("application", "Hello");
    ASSERT_EQ(hellos.size(), 2U);

    SetPolicy("<policy/>");
    ASSERT_TRUE(m_peer.WaitForCalls("Hello", 1));
    ASSERT_TRUE(m_peer.WaitForCalls("Send", 1));
    EXPECT_EQ(m_peer.Calls("Hello")[0].m_bytes, HexBytes(hellos[0], "request"));
    EXPECT_EQ(m_peer.Calls("Send")[0].m_bytes,
              HexBytes(ExchangesFrom("application", "Send")[0], "request"));

    const auto asksForBoth = [&] {
        const std::vector<TSCall> calls = m_peer.Calls("Hello");
        return !calls.empty() && calls.back().m_bytes == HexBytes(hellos[1], "request");
    };
    const ChildProcess monitor({KEL_CTL, "monitor"});
    ASSERT_TRUE(WaitUntil(asksForBoth));
    m_peer.SetTarget(m_peer.Calls("Hello").back().m_sender);
    for (const json& vector : ExchangesFrom("agent", "Send")) {
        SCOPED_TRACE(vector.dump());
        ExpectReply(vector, m_peer.Call("Send", Body(HexBytes(vector, "request"))));
    }
}

TEST_F(WireVectorRoad, AnswersAreReadOrRefusedByAnApplication)
{
    ASSERT_TRUE(m_peer.OwnName());
    for (const json& vector : WireVectors("answers")) {
        SCOPED_TRACE(vector.dump());
        TBytes reply = HexBytes(vector, "bytes");
        reply.insert(reply.begin(), 1);
        m_peer.SetAnswer("Send", RawPeer::TSAnswer::Bytes(reply));

        const TSFinished set = SetPolicy("<policy/>");

        if (IsReadable(vector)) {
            const std::string answer = std::to_string(vector.at("answer").get<int>());
            EXPECT_TRUE(IsOneLine(set.m_output, answer + " (")) << Text(set);
        } else {
            EXPECT_EQ(set.m_exit, 3) << Text(set);
            EXPECT_TRUE(IsOneLine(set.m_errorOutput, "kelctl: the agent's answer cannot be read"))
                << Text(set);
        }
    }
}

} // namespace kel::test
