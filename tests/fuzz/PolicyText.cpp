// The text of a policy, beside the bare parser: what that one refuses is never accepted.

#include <memory>
#include <type_traits>

#include <expat.h>

#include "Fuzz.h"
#include "policy/PolicyText.h"

using kel::agent::EPolicyText;
using kel::agent::TSPolicyText;
using kel::fuzz::Require;

namespace {

bool IsTakenByTheBareParser(const std::string& text)
{
    const std::unique_ptr<std::remove_pointer_t<XML_Parser>, decltype(&XML_ParserFree)> parser(
        XML_ParserCreate(nullptr), &XML_ParserFree);
    return XML_Parse(parser.get(), text.data(), static_cast<int>(text.size()), XML_TRUE)
           == XML_STATUS_OK;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string text = kel::fuzz::TextFrom(data, size);
    std::string reason;
    const EPolicyText verdict = TSPolicyText::Judge(text, reason);

    Require((verdict == EPolicyText::WellFormed) == reason.empty(), "a refusal has a reason");
    Require(reason.size() <= 200 && reason.find('\n') == std::string::npos
                && kel::fuzz::IsPlain(reason),
            "a reason is one short line of plain text");
    if (verdict == EPolicyText::TooLarge) {
        return 0; // the bare parser has no bounds
    }
    const bool isUtf8
        = g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr) != FALSE;
    Require((verdict == EPolicyText::WellFormed) == (isUtf8 && IsTakenByTheBareParser(text)),
            "a text within the bounds is taken exactly when it is UTF-8 and the parser takes it");
    return 0;
}
