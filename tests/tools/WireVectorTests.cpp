// docs/wire-vectors.json, held against the readers and writers of the library and of the agent.

#include <gtest/gtest.h>

#include <kel/KELDbus.h>

#include "KELPayload.h"
#include "policy/PolicyArchive.h"
#include "support/Archives.h"
#include "support/RawPeer.h"
#include "support/WireVectors.h"

namespace kel::test {

using agent::EPolicyArchive;
using agent::TSPolicyArchive;
using nlohmann::json;

namespace {

constexpr char kUntouched[] = "untouched";
constexpr size_t kMost = 1 << 20;

// The converters are the channel base's; they need no channel.
class TCConverter : public TCDbus
{
public:
    TCConverter() : TCDbus(false) {}
    bool SetCallback(int, const TMessageCallback&) override { return false; }
    bool UnSetCallback(int) override { return false; }
};

TBytes Written(GVariant* floating)
{
    const TBody body(g_variant_ref_sink(floating), &g_variant_unref);
    return BytesOf(body).value();
}

} // namespace

TEST(WireVectors, RequestsAreReadAndWritten)
{
    const TCConverter converter;
    for (const json& vector : WireVectors("requests")) {
        SCOPED_TRACE(vector.dump());
        const TBytes bytes = HexBytes(vector, "bytes");
        int type = 0;
        bool flag = false;
        TBytes data;

        converter.t_ConvertBytes(Body(bytes).get(), type, flag, data);

        EXPECT_EQ(type, vector.at("type"));
        EXPECT_EQ(!Truth(flag), vector.at("waits"));
        EXPECT_EQ(data, HexBytes(vector, "data"));
        if (IsWritten(vector)) {
            GVariant* written = nullptr;
            converter.t_ConvertBytes(type, flag, data, written);
            EXPECT_EQ(Written(written), bytes);
        }
    }
}

TEST(WireVectors, RepliesAreReadAndWritten)
{
    const TCConverter converter;
    for (const json& vector : WireVectors("replies")) {
        SCOPED_TRACE(vector.dump());
        const TBytes bytes = HexBytes(vector, "bytes");
        for (const bool initial : {false, true}) {
            bool result = initial;
            TBytes data{0xee};

            converter.t_ConvertBytes(Body(bytes).get(), result, data);

            if (IsRefused(vector)) {
                EXPECT_EQ(result, initial);
                EXPECT_EQ(data, TBytes{0xee});
                continue;
            }
            EXPECT_EQ(Truth(result), vector.at("result"));
            EXPECT_EQ(data, HexBytes(vector, "data"));
            if (IsWritten(vector)) {
                GVariant* written = nullptr;
                converter.t_ConvertBytes(data, result, written);
                EXPECT_EQ(Written(written), bytes);
            }
        }
    }
}

TEST(WireVectors, HellosAreRead)
{
    for (const json& vector : WireVectors("hellos")) {
        SCOPED_TRACE(vector.dump());

        EXPECT_EQ(ReadTypes(HexBytes(vector, "bytes")), vector.at("types").get<std::set<int>>());
    }
}

TEST(WireVectors, PoliciesAreReadOrRefused)
{
    for (const json& vector : WireVectors("policies")) {
        SCOPED_TRACE(vector.dump());
        std::string policy = kUntouched;

        const EPolicyArchive read = TSPolicyArchive::Read(HexBytes(vector, "bytes"), kMost, policy);

        if (IsReadable(vector)) {
            const TBytes text = HexBytes(vector, "policy");
            EXPECT_EQ(read, EPolicyArchive::Policy);
            EXPECT_EQ(policy, std::string(text.begin(), text.end()));
            continue;
        }
        EXPECT_EQ(policy, kUntouched);
        if (IsRefused(vector)) {
            EXPECT_NE(read, EPolicyArchive::Policy);
        } else {
            EXPECT_EQ(read, EPolicyArchive::Foreign);
        }
    }
}

TEST(WireVectors, ThisBoostWritesThePoliciesAndAnswersOfItsKind)
{
    size_t policies = 0;
    for (const json& vector : WireVectors("policies")) {
        if (!IsRefused(vector) && IsOwn(vector)) {
            const TBytes text = HexBytes(vector, "policy");
            EXPECT_EQ(ArchiveOf(std::string(text.begin(), text.end())), HexBytes(vector, "bytes"))
                << vector.dump();
            ++policies;
        }
    }
    size_t answers = 0;
    for (const json& vector : WireVectors("answers")) {
        if (!IsRefused(vector) && IsOwn(vector) && IsWritten(vector)) {
            TBytes written;
            TSPolicyArchive::Write(vector.at("answer"), written);
            EXPECT_EQ(written, HexBytes(vector, "bytes")) << vector.dump();
            ++answers;
        }
    }
    EXPECT_GT(policies, 0U) << "add what this Boost writes, of version " << OwnArchiveVersion();
    EXPECT_GT(answers, 0U) << "add what this Boost writes, of version " << OwnArchiveVersion();
}

} // namespace kel::test
