// The bodies of messages, of any bytes.

#include <cstring>
#include <set>

#include <kel/KELDbus.h>

#include "Fuzz.h"
#include "KELGlib.h"
#include "KELPayload.h"

namespace {

using kel::fuzz::Require;
using kel::fuzz::TBytes;

// The converters are the channel base's; they need no channel.
class TCConverter : public kel::TCDbus
{
public:
    TCConverter() : kel::TCDbus(false) {}
    bool SetCallback(int, const TMessageCallback&) override { return false; }
    bool UnSetCallback(int) override { return false; }
};

typedef kel::TGlibPtr<GVariant> TValue;

// As the bus hands it over: it has looked at the type, and not at what is inside.
TValue Untrusted(const uint8_t* data, size_t size)
{
    GBytes* const bytes = g_bytes_new(data, size);
    GVariant* const value = g_variant_new_from_bytes(G_VARIANT_TYPE("(ay)"), bytes, FALSE);
    g_bytes_unref(bytes);
    return TValue(g_variant_ref_sink(value));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static TCConverter converter;
    const TValue value = Untrusted(data, size);

    TBytes all;
    converter.t_ConvertBytes(value.get(), all);
    Require(all.size() <= size, "a body has no more bytes than the message");

    int type = 0;
    bool flag = false;
    TBytes body;
    converter.t_ConvertBytes(value.get(), type, flag, body);
    Require(all.size() < kel::kRequestHeaderSize
                ? body.empty()
                : body.size() == all.size() - kel::kRequestHeaderSize,
            "a request is its header and the rest");
    if (all.size() >= kel::kRequestHeaderSize) {
        GVariant* built = nullptr;
        converter.t_ConvertBytes(type, kel::Truth(flag), body, built);
        const TValue again(g_variant_ref_sink(built));
        TBytes bytes;
        converter.t_ConvertBytes(again.get(), bytes);
        all[kel::kTypeSize] = all[kel::kTypeSize] != 0 ? 1 : 0;
        Require(bytes == all, "a request that is built again is the same");
    }

    bool result = false;
    TBytes answer;
    converter.t_ConvertBytes(value.get(), result, answer);
    Require(all.empty() || answer.size() == all.size() - 1, "a reply is its result and the rest");

    const std::set<int> types = kel::ReadTypes(all);
    Require(types.size() <= all.size() / kel::kTypeSize, "four bytes are a type");
    return 0;
}
