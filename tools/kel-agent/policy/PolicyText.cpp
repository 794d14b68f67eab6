#include "policy/PolicyText.h"

#include <cstring>
#include <memory>
#include <set>

#include <glib.h>

namespace kel {
namespace agent {

namespace {

constexpr char kByteOrderMark[] = "\xef\xbb\xbf";
constexpr size_t kByteOrderMarkLength = sizeof(kByteOrderMark) - 1;

bool StartsWith(const char* text, size_t length, const char* start)
{
    const size_t startLength = std::strlen(start);
    return length >= startLength && std::memcmp(text, start, startLength) == 0;
}

// The control characters that no XML text may hold, not even as a reference. GLib lets them pass.
bool HasForbiddenCharacter(const char* text, size_t length)
{
    for (size_t i = 0; i < length; ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (c < 0x20 && c != '\t' && c != '\n' && c != '\r') {
            return true;
        }
    }
    return false;
}

// What GLib's parser does not look at, because it reads fragments as well: that there is one root
// and nothing beside it, and that names of attributes do not repeat.
class TCDocument
{
public:
    TCDocument() : m_depth(0), m_hasRoot(false), m_hasDoctype(false) {}

    bool HasRoot() const { return m_hasRoot; }

    static const GMarkupParser kParser;

private:
    static TCDocument& Of(gpointer document) { return *static_cast<TCDocument*>(document); }

    static void Refuse(GError** error, const char* reason)
    {
        g_set_error_literal(error, G_MARKUP_ERROR, G_MARKUP_ERROR_PARSE, reason);
    }

    void m_StartElement(const char* const* attributes, const char* const* values, GError** error)
    {
        if (m_depth == 0 && m_hasRoot) {
            Refuse(error, "There is a second root element");
            return;
        }
        m_hasRoot = true;
        ++m_depth;

        std::set<std::string> names;
        for (; *attributes != nullptr; ++attributes, ++values) {
            if (!names.insert(*attributes).second) {
                Refuse(error, "An attribute is repeated");
                return;
            }
            if (HasForbiddenCharacter(*values, std::strlen(*values))) {
                Refuse(error, "An attribute holds a control character");
                return;
            }
        }
    }

    void m_Text(const char* text, size_t length, GError** error)
    {
        if (m_depth == 0) {
            Refuse(error, "There is text beside the root element");
        } else if (HasForbiddenCharacter(text, length)) {
            Refuse(error, "The text holds a control character");
        }
    }

    // Comments, processing instructions, the XML declaration and the document type.
    void m_Passthrough(const char* text, size_t length, GError** error)
    {
        if (StartsWith(text, length, "<!DOCTYPE")) {
            if (m_hasRoot || m_hasDoctype) {
                Refuse(error, "The document type is not where it belongs");
            }
            m_hasDoctype = true;
        }
    }

    static void StartElement(GMarkupParseContext*, const char*, const char** attributes,
                             const char** values, gpointer document, GError** error)
    {
        Of(document).m_StartElement(attributes, values, error);
    }

    static void EndElement(GMarkupParseContext*, const char*, gpointer document, GError**)
    {
        --Of(document).m_depth;
    }

    static void Text(GMarkupParseContext*, const char* text, gsize length, gpointer document,
                     GError** error)
    {
        Of(document).m_Text(text, length, error);
    }

    static void Passthrough(GMarkupParseContext*, const char* text, gsize length, gpointer document,
                            GError** error)
    {
        Of(document).m_Passthrough(text, length, error);
    }

    size_t m_depth;
    bool m_hasRoot;
    bool m_hasDoctype;
};

const GMarkupParser TCDocument::kParser = {&TCDocument::StartElement, &TCDocument::EndElement,
                                           &TCDocument::Text, &TCDocument::Passthrough, nullptr};

std::string OneLine(const char* message)
{
    std::string line(message);
    for (char& c : line) {
        if (static_cast<unsigned char>(c) < 0x20) {
            c = ' ';
        }
    }
    return line;
}

} // namespace

bool TSPolicyText::IsWellFormed(const std::string& text, std::string& reason)
{
    const char* begin = text.data();
    size_t length = text.size();
    if (StartsWith(begin, length, kByteOrderMark)) {
        begin += kByteOrderMarkLength;
        length -= kByteOrderMarkLength;
    }
    if (HasForbiddenCharacter(begin, length)) {
        reason = "The text holds a control character";
        return false;
    }

    TCDocument document;
    const std::unique_ptr<GMarkupParseContext, decltype(&g_markup_parse_context_unref)> context(
        g_markup_parse_context_new(&TCDocument::kParser, G_MARKUP_TREAT_CDATA_AS_TEXT, &document,
                                   nullptr),
        &g_markup_parse_context_unref);

    GError* pError = nullptr;
    if (g_markup_parse_context_parse(context.get(), begin, static_cast<gssize>(length), &pError)) {
        g_markup_parse_context_end_parse(context.get(), &pError);
    }
    if (pError != nullptr) {
        const std::unique_ptr<GError, decltype(&g_error_free)> error(pError, &g_error_free);
        reason = OneLine(error->message);
        return false;
    }
    if (!document.HasRoot()) {
        reason = "There is no element";
        return false;
    }
    return true;
}

} // namespace agent
} // namespace kel
