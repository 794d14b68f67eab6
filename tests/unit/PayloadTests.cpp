#include <cstring>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kel/KELDbus.h>

#include "Allocations.h"
#include "KELGlib.h"
#include "KELPayload.h"
#include "Messages.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

typedef std::vector<unsigned char> TBytes;

// The converters are the channel base's; they need no channel.
class TCConverter : public kel::TCDbus
{
public:
    TCConverter() : kel::TCDbus(false) {}
    bool SetCallback(int, const TMessageCallback&) override { return false; }
    bool UnSetCallback(int) override { return false; }
};

typedef kel::TGlibPtr<GVariant> TValue;

// The same value the slow way, element by element.
TValue ElementByElement(const TBytes& bytes)
{
    GVariantBuilder* const builder = g_variant_builder_new(G_VARIANT_TYPE("ay"));
    for (const unsigned char byte : bytes) {
        g_variant_builder_add(builder, "y", byte);
    }
    GVariant* const value = g_variant_new("(ay)", builder);
    g_variant_builder_unref(builder);
    return TValue(g_variant_ref_sink(value));
}

TBytes ReadElementByElement(GVariant* value)
{
    TBytes bytes;
    GVariantIter* iterator = nullptr;
    g_variant_get(value, "(ay)", &iterator);
    unsigned char byte = 0;
    while (g_variant_iter_loop(iterator, "y", &byte)) {
        bytes.push_back(byte);
    }
    g_variant_iter_free(iterator);
    return bytes;
}

// The memory image of a value.
TBytes ImageOf(GVariant* value)
{
    const auto* const data = static_cast<const unsigned char*>(g_variant_get_data(value));
    return TBytes(data, data + g_variant_get_size(value));
}

TBytes Counting(size_t size)
{
    TBytes bytes(size);
    for (size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<unsigned char>(i * 31 + i / 251);
    }
    return bytes;
}

unsigned char ByteOf(const bool& flag)
{
    unsigned char byte = 0;
    std::memcpy(&byte, &flag, 1);
    return byte;
}

void SetByteOf(bool& flag, unsigned char byte) { std::memcpy(&flag, &byte, 1); }

class Payload : public testing::Test
{
protected:
    TValue Pack(const TBytes& bytes) const
    {
        GVariant* out = nullptr;
        m_converter.t_ConvertBytes(bytes, out);
        return Sink(out);
    }

    TValue PackRequest(int type, bool flag, const TBytes& data) const
    {
        GVariant* out = nullptr;
        m_converter.t_ConvertBytes(type, flag, data, out);
        return Sink(out);
    }

    TValue PackReply(const TBytes& data, bool result) const
    {
        GVariant* out = nullptr;
        m_converter.t_ConvertBytes(data, result, out);
        return Sink(out);
    }

    // Every builder hands out a value that nobody owns yet.
    static TValue Sink(GVariant* value)
    {
        EXPECT_TRUE(g_variant_is_floating(value));
        return TValue(g_variant_ref_sink(value));
    }

    static void ExpectSame(const TValue& value, const TBytes& bytes)
    {
        const TValue slow = ElementByElement(bytes);
        EXPECT_STREQ(g_variant_get_type_string(value.get()), "(ay)");
        EXPECT_TRUE(g_variant_is_normal_form(value.get()));
        EXPECT_TRUE(g_variant_equal(value.get(), slow.get()));
        EXPECT_EQ(ImageOf(value.get()), ImageOf(slow.get()));
        EXPECT_EQ(ReadElementByElement(value.get()), bytes);
    }

    kel::test::LogRecorder m_log;
    TCConverter m_converter;
};

// What a reader must leave alone.
struct TSRequestOutputs
{
    int m_type = 7;
    bool m_flag = true;
    TBytes m_data{0xee};

    void ExpectUntouched() const
    {
        EXPECT_EQ(m_type, 7);
        EXPECT_TRUE(m_flag);
        EXPECT_EQ(m_data, TBytes{0xee});
    }
};

const char* const kShortRequest = "6 Error for RV-HIVE-api/impl/src/KELDbus file in line 283.";
const char* const kEmptyReply = "6 Error for RV-HIVE-api/impl/src/KELDbus file in line 304.";

TEST_F(Payload, RequestIsSignedTypeThenFlagThenData)
{
    ExpectSame(PackRequest(4, false, {0x41, 0x42}), {0x04, 0, 0, 0, 0x00, 0x41, 0x42});
    ExpectSame(PackRequest(0x01020304, true, {}), {0x04, 0x03, 0x02, 0x01, 0x01});
    ExpectSame(PackRequest(-2, false, {9}), {0xfe, 0xff, 0xff, 0xff, 0x00, 9});
}

TEST_F(Payload, ReplyIsResultThenData)
{
    ExpectSame(PackReply({0x41, 0x42}, true), {0x01, 0x41, 0x42});
    ExpectSame(PackReply({}, false), {0x00});
}

TEST_F(Payload, AnySizeIsTheSameValueAsElementByElement)
{
    for (const size_t size : {0, 1, 2, 3, 4, 5, 7, 8, 9, 255, 256, 257, 65535, 65536, 65537}) {
        SCOPED_TRACE(size);
        ExpectSame(Pack(Counting(size)), Counting(size));
    }
}

TEST_F(Payload, RequestRoundTripsThroughItsReader)
{
    const TBytes sent = Counting(1000);
    int type = 0;
    bool flag = false;
    TBytes data{1, 2, 3}; // replaced, not appended to

    m_converter.t_ConvertBytes(PackRequest(-77, true, sent).get(), type, flag, data);

    EXPECT_EQ(type, -77);
    EXPECT_TRUE(flag);
    EXPECT_EQ(data, sent);
    EXPECT_THAT(TakeMessages(m_log), IsEmpty());
}

TEST_F(Payload, ReplyRoundTripsThroughItsReader)
{
    const TBytes sent = Counting(1000);
    bool result = false;
    TBytes data{1, 2, 3};

    m_converter.t_ConvertBytes(PackReply(sent, true).get(), result, data);

    EXPECT_TRUE(result);
    EXPECT_EQ(data, sent);
    EXPECT_THAT(TakeMessages(m_log), IsEmpty());
}

TEST_F(Payload, EightMebibytesRoundTripInAFewAllocations)
{
    const TBytes sent = Counting(8 * 1024 * 1024);
    int type = 0;
    bool flag = false;
    TBytes data;
    size_t allocations = 0;

    {
        const TCAllocations counted;
        const TValue value = PackRequest(4, false, sent);
        m_converter.t_ConvertBytes(value.get(), type, flag, data);
        allocations = counted.Count();
    }

    EXPECT_EQ(data, sent);
    EXPECT_LT(allocations, 64u) << "the array is not handled as a whole";
}

TEST_F(Payload, RequestOfFiveBytesHasNoData)
{
    TSRequestOutputs out;

    m_converter.t_ConvertBytes(ElementByElement({9, 0, 0, 0, 0}).get(), out.m_type, out.m_flag,
                               out.m_data);

    EXPECT_EQ(out.m_type, 9);
    EXPECT_FALSE(out.m_flag);
    EXPECT_THAT(out.m_data, IsEmpty());
    EXPECT_THAT(TakeMessages(m_log), IsEmpty());
}

TEST_F(Payload, RequestOfUpToFourBytesIsRefusedAndTouchesNothing)
{
    for (size_t size = 0; size <= 4; ++size) {
        SCOPED_TRACE(size);
        TSRequestOutputs out;

        m_converter.t_ConvertBytes(ElementByElement(TBytes(size, 1)).get(), out.m_type, out.m_flag,
                                   out.m_data);

        out.ExpectUntouched();
        EXPECT_THAT(TakeMessages(m_log), ElementsAre(kShortRequest));
    }
}

TEST_F(Payload, ReplyOfOneByteHasNoData)
{
    bool result = false;
    TBytes data{0xee};

    m_converter.t_ConvertBytes(ElementByElement({1}).get(), result, data);

    EXPECT_TRUE(result);
    EXPECT_THAT(data, IsEmpty());
    EXPECT_THAT(TakeMessages(m_log), IsEmpty());
}

TEST_F(Payload, EmptyReplyIsRefusedAndKeepsTheCallersResult)
{
    for (const bool initial : {false, true}) {
        bool result = initial;
        TBytes data{0xee};

        m_converter.t_ConvertBytes(ElementByElement({}).get(), result, data);

        EXPECT_EQ(result, initial);
        EXPECT_EQ(data, TBytes{0xee});
        EXPECT_THAT(TakeMessages(m_log), ElementsAre(kEmptyReply));
    }
}

TEST_F(Payload, FlagByteOfTwoIsDeliveredAsTwo)
{
    for (const unsigned char byte : {2, 255}) {
        int type = 0;
        bool flag = false;
        bool result = false;
        TBytes data;

        m_converter.t_ConvertBytes(ElementByElement({1, 0, 0, 0, byte}).get(), type, flag, data);
        m_converter.t_ConvertBytes(ElementByElement({byte}).get(), result, data);

        EXPECT_EQ(ByteOf(flag), byte);
        EXPECT_EQ(ByteOf(result), byte);
        EXPECT_TRUE(kel::Truth(flag));
        EXPECT_TRUE(kel::Truth(result));

        SetByteOf(flag, 0);
        SetByteOf(result, 0);
        EXPECT_FALSE(kel::Truth(flag));
        EXPECT_FALSE(kel::Truth(result));
    }
}

TEST_F(Payload, TupleToBytesAppendsAndDoesNotConsumeTheTuple)
{
    const TValue value = ElementByElement({3, 4});
    TBytes bytes{1};

    m_converter.t_ConvertBytes(value.get(), bytes);
    m_converter.t_ConvertBytes(ElementByElement({}).get(), bytes);
    m_converter.t_ConvertBytes(value.get(), bytes);

    EXPECT_THAT(bytes, ElementsAre(1, 3, 4, 3, 4));
}

TEST_F(Payload, NoValueCountsAsEmpty)
{
    TSRequestOutputs out;
    bool result = true;
    TBytes bytes{5};

    m_converter.t_ConvertBytes(nullptr, out.m_type, out.m_flag, out.m_data);
    m_converter.t_ConvertBytes(static_cast<GVariant*>(nullptr), result, bytes);
    m_converter.t_ConvertBytes(static_cast<GVariant*>(nullptr), bytes);

    out.ExpectUntouched();
    EXPECT_TRUE(result);
    EXPECT_EQ(bytes, TBytes{5});
    EXPECT_THAT(TakeMessages(m_log), ElementsAre(kShortRequest, kEmptyReply));
}

TEST_F(Payload, AValueOfAnotherTypeCountsAsEmpty)
{
    GVariant* const strangers[]
        = {g_variant_new("(s)", "text"), g_variant_new("(au)", nullptr), g_variant_new("()"),
           g_variant_new("(ayy)", nullptr, 1), g_variant_new_bytestring("bare array")};
    for (GVariant* const floating : strangers) {
        const TValue stranger(g_variant_ref_sink(floating));
        SCOPED_TRACE(g_variant_get_type_string(stranger.get()));
        TSRequestOutputs out;
        bool result = true;
        TBytes bytes{5};

        m_converter.t_ConvertBytes(stranger.get(), out.m_type, out.m_flag, out.m_data);
        m_converter.t_ConvertBytes(stranger.get(), result, bytes);
        m_converter.t_ConvertBytes(stranger.get(), bytes);

        out.ExpectUntouched();
        EXPECT_TRUE(result);
        EXPECT_EQ(bytes, TBytes{5});
        EXPECT_THAT(TakeMessages(m_log), ElementsAre(kShortRequest, kEmptyReply));
    }
}

TEST(HelloPayload, TypesAreReadInFours)
{
    EXPECT_THAT(kel::ReadTypes({2, 0, 0, 0, 5, 0, 0, 0, 0xff, 0xff, 0xff, 0xff}),
                ElementsAre(-1, 2, 5));
}

TEST(HelloPayload, TrailingBytesAreIgnored)
{
    EXPECT_THAT(kel::ReadTypes({5, 0, 0, 0, 2, 0, 0, 0, 9, 9}), ElementsAre(2, 5));
    EXPECT_THAT(kel::ReadTypes({1, 2, 3}), IsEmpty());
    EXPECT_THAT(kel::ReadTypes({}), IsEmpty());
}

} // namespace
