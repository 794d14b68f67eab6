#include "policy/PolicyText.h"

#include <cstring>
#include <memory>
#include <type_traits>

#define XML_DTD // declares the limits of amplification
#include <expat.h>

#include <glib.h>

namespace kel {
namespace agent {

namespace {

// The parser looks at every attribute that a document type declares for each element, and for each
// further one that it declares: a megabyte of both takes it a quarter of a minute. So many looks
// take a fifth of a second.
constexpr size_t kMostLooks = 1U << 26;

constexpr size_t kMostAmplification = TSPolicyText::kMostExpandedBytes / TSPolicyText::kMostBytes;

// "line 3, column 7": where the parser has stopped. Newer ones call the older functions deprecated.
std::string Place(XML_Parser parser)
{
#if XML_MAJOR_VERSION > 2 || XML_MINOR_VERSION >= 9
    const auto line = XML_GetCurrentLineNumber64(parser);
    const auto column = XML_GetCurrentColumnNumber64(parser);
#else
    const auto line = XML_GetCurrentLineNumber(parser);
    const auto column = XML_GetCurrentColumnNumber(parser);
#endif
    return "line " + std::to_string(line) + ", column " + std::to_string(column + 1);
}

// One text on its way through the parser. Entities outside the text are not fetched: the parser
// does so for nobody who has no function for it.
class TCDocument
{
public:
    TCDocument();
    TCDocument(const TCDocument&) = delete;
    TCDocument& operator=(const TCDocument&) = delete;

    EPolicyText Judge(const std::string& text, std::string& reason);

private:
    void m_Refuse(const char* reason);
    void m_Look();

    static TCDocument& Of(void* document) { return *static_cast<TCDocument*>(document); }
    static void StartElement(void* document, const char*, const char**);
    static void EndElement(void* document, const char*) { --Of(document).m_depth; }
    static void DeclareAttribute(void* document, const char*, const char*, const char*, const char*,
                                 int);
    static void DeclareEntity(void* document, const char*, int, const char* value, int length,
                              const char*, const char*, const char*, const char*);

    const std::unique_ptr<std::remove_pointer_t<XML_Parser>, decltype(&XML_ParserFree)> m_parser;
    const char* m_pReason = nullptr; // of our own for ending the parser
    size_t m_depth = 0;
    size_t m_entities = 0;   // that are made of others
    size_t m_attributes = 0; // declared
    size_t m_looks = 0;
};

TCDocument::TCDocument() : m_parser(XML_ParserCreate(nullptr), &XML_ParserFree)
{
    if (!m_parser) {
        return;
    }
    XML_Parser const parser = m_parser.get();
    XML_SetUserData(parser, this);
    XML_SetElementHandler(parser, &TCDocument::StartElement, &TCDocument::EndElement);
    XML_SetAttlistDeclHandler(parser, &TCDocument::DeclareAttribute);
    XML_SetEntityDeclHandler(parser, &TCDocument::DeclareEntity);
    XML_SetBillionLaughsAttackProtectionActivationThreshold(parser,
                                                            TSPolicyText::kMostExpandedBytes);
    XML_SetBillionLaughsAttackProtectionMaximumAmplification(
        parser, static_cast<float>(kMostAmplification));
}

EPolicyText TCDocument::Judge(const std::string& text, std::string& reason)
{
    if (!m_parser) {
        reason = "out of memory";
        return EPolicyText::TooLarge;
    }
    XML_Parser const parser = m_parser.get();
    if (XML_Parse(parser, text.data(), static_cast<int>(text.size()), XML_TRUE) == XML_STATUS_OK) {
        return EPolicyText::WellFormed;
    }
    const XML_Error error = XML_GetErrorCode(parser);
    const char* const words = m_pReason != nullptr ? m_pReason : XML_ErrorString(error);
    reason = Place(parser) + ": " + words;
    const bool tooLarge = m_pReason != nullptr || error == XML_ERROR_AMPLIFICATION_LIMIT_BREACH
                          || error == XML_ERROR_NO_MEMORY;
    return tooLarge ? EPolicyText::TooLarge : EPolicyText::NotWellFormed;
}

void TCDocument::m_Refuse(const char* reason)
{
    m_pReason = reason;
    XML_StopParser(m_parser.get(), XML_FALSE);
}

void TCDocument::m_Look()
{
    m_looks += m_attributes;
    if (m_looks > kMostLooks) {
        m_Refuse("too many elements for the attributes that are declared");
    }
}

void TCDocument::StartElement(void* document, const char*, const char**)
{
    if (++Of(document).m_depth > TSPolicyText::kMostDepth) {
        Of(document).m_Refuse("too many elements inside one another");
    } else {
        Of(document).m_Look();
    }
}

void TCDocument::DeclareAttribute(void* document, const char*, const char*, const char*,
                                  const char*, int)
{
    ++Of(document).m_attributes;
    Of(document).m_Look();
}

// The parser calls itself for an entity inside an entity, and its stack has an end. However they
// are declared, no chain of them is longer than there are entities that use one.
void TCDocument::DeclareEntity(void* document, const char*, int, const char* value, int length,
                               const char*, const char*, const char*, const char*)
{
    if (value != nullptr && std::memchr(value, '&', static_cast<size_t>(length)) != nullptr
        && ++Of(document).m_entities > TSPolicyText::kMostDepth) {
        Of(document).m_Refuse("too many entities that are made of others");
    }
}

} // namespace

EPolicyText TSPolicyText::Judge(const std::string& text, std::string& reason)
{
    if (text.size() > kMostBytes) {
        reason = "larger than " + std::to_string(kMostBytes) + " bytes";
        return EPolicyText::TooLarge;
    }
    // The parser knows other encodings as well.
    if (!g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr)) {
        reason = "not UTF-8";
        return EPolicyText::NotWellFormed;
    }
    return TCDocument().Judge(text, reason);
}

} // namespace agent
} // namespace kel
