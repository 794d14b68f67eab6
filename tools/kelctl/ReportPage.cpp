#include "ReportPage.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <ctime>
#include <utility>

#include <glib.h>

#include "PageParts.h"
#include "common/Text.h"

namespace kel {
namespace ctl {

using tools::GetStatus;
using tools::OpenIn;
using tools::TCDescriptor;

namespace {

constexpr char kData[] = "{{data}}";

// What the page holds of a file.
struct TSExcerpt
{
    uint64_t m_bytes = 0;               // of the whole
    const char* m_state = "unreadable"; // "whole", "end" or "out"
    std::string m_text;
};

std::string Replaced(std::string text, const std::string& name, const std::string& with)
{
    const size_t at = text.find(name);
    return at == std::string::npos ? text : text.replace(at, name.size(), with);
}

std::string Base64(const unsigned char* bytes, size_t size)
{
    gchar* const text = g_base64_encode(bytes, size);
    std::string base64 = text;
    g_free(text);
    return base64;
}

// The source expression by which a policy lets one text run, and no other.
std::string HashOf(const std::string& text)
{
    guint8 digest[32];
    gsize size = sizeof(digest);
    GChecksum* const checksum = g_checksum_new(G_CHECKSUM_SHA256);
    g_checksum_update(checksum, reinterpret_cast<const guchar*>(text.data()),
                      static_cast<gssize>(text.size()));
    g_checksum_get_digest(checksum, digest, &size);
    g_checksum_free(checksum);
    return "'sha256-" + Base64(digest, size) + "'";
}

std::string PageAround(bool before)
{
    const std::string policy = "default-src 'none'; script-src " + HashOf(kPageScript)
                               + "; style-src " + HashOf(kPageStyle)
                               + "; base-uri 'none'; form-action 'none'; "
                                 "require-trusted-types-for 'script'; trusted-types 'none'";
    const std::string page = kPage;
    const size_t data = page.find(kData);
    if (before) {
        return Replaced(Replaced(page.substr(0, data), "{{policy}}", policy), "{{style}}",
                        kPageStyle);
    }
    return Replaced(page.substr(data + sizeof(kData) - 1), "{{script}}", kPageScript);
}

// As data of a page: nothing in it is markup.
std::string Escaped(const TJson& value)
{
    const std::string json = value.dump(-1, ' ', true, TJson::error_handler_t::replace);
    std::string text;
    text.reserve(json.size());
    for (const char c : json) {
        if (c == '<' || c == '>' || c == '&') { // only strings have them
            char escape[sizeof("\\u0000")];
            std::snprintf(escape, sizeof(escape), "\\u%04x", static_cast<unsigned int>(c));
            text += escape;
        } else {
            text += c;
        }
    }
    return text;
}

// Cuts what is long. The names of members count, too.
TJson Shortened(const TJson& value)
{
    const auto cut = [](std::string text) {
        if (text.size() > TCReportPage::kMostOfAText) {
            const std::string size = std::to_string(text.size());
            text.resize(TCReportPage::kMostOfAText);
            text += "... (" + size + " bytes)";
        }
        return text;
    };
    if (value.is_string()) {
        return cut(value.get<std::string>());
    }
    if (value.is_array()) {
        TJson array = TJson::array();
        for (const TJson& element : value) {
            array.push_back(Shortened(element));
        }
        return array;
    }
    if (value.is_object()) {
        TJson object = TJson::object();
        for (const auto& [name, member] : value.items()) {
            object[cut(name)] = Shortened(member);
        }
        return object;
    }
    return value;
}

bool IsText(const std::string& bytes)
{
    const auto isOdd = [](unsigned char c) {
        return (c < ' ' && std::isspace(c) == 0 && c != '\x1b') || c == '\x7f';
    };
    return g_utf8_validate(bytes.data(), static_cast<gssize>(bytes.size()), nullptr) != FALSE
           && std::none_of(bytes.begin(), bytes.end(), isOdd);
}

std::string ReadFrom(int file, uint64_t place, uint64_t size)
{
    std::string text(static_cast<size_t>(size), '\0');
    size_t got = 0;
    ssize_t n = 1;
    while (got < text.size() && n > 0) {
        n = pread(file, &text[got], text.size() - got, static_cast<off_t>(place + got));
        got += n > 0 ? static_cast<size_t>(n) : 0;
    }
    text.resize(got);
    return text;
}

// False where there is no such file.
bool ReadExcerpt(int directory, const char* name, uint64_t mostOfAll, uint64_t& room,
                 TSExcerpt& excerpt)
{
    const TCDescriptor file = OpenIn(directory, name, O_RDONLY | O_NONBLOCK);
    struct stat status;
    if (!file.IsOpen() || !GetStatus(file.Get(), status) || !S_ISREG(status.st_mode)) {
        return file.IsOpen() || errno != ENOENT;
    }
    excerpt.m_bytes = static_cast<uint64_t>(status.st_size);
    const uint64_t size = std::min(
        excerpt.m_bytes, excerpt.m_bytes <= mostOfAll ? mostOfAll : TCReportPage::kMostOfAnEnd);
    if (size > room) {
        excerpt.m_state = "out";
        return true;
    }
    excerpt.m_text = ReadFrom(file.Get(), excerpt.m_bytes - size, size);
    excerpt.m_state = size == excerpt.m_bytes ? "whole" : "end";
    if (size < excerpt.m_bytes) { // it begins with a character
        const auto goesOn = [](char c) { return (static_cast<unsigned char>(c) & 0xc0U) == 0x80; };
        excerpt.m_text.erase(
            excerpt.m_text.begin(),
            std::find_if_not(excerpt.m_text.begin(), excerpt.m_text.end(), goesOn));
    }
    return true;
}

// When this machine has booted, by its clock of now.
int64_t BootTime()
{
    timespec since = {};
    clock_gettime(CLOCK_MONOTONIC, &since);
    const timespec now = tools::Now();
    return (int64_t(now.tv_sec) - since.tv_sec) * 1000 + (now.tv_nsec - since.tv_nsec) / 1'000'000;
}

std::string HostName()
{
    char name[256] = {};
    return gethostname(name, sizeof(name) - 1) == 0 ? name : "-";
}

} // namespace

TCReportPage::TCReportPage(TOutput output) : m_output(std::move(output)) {}

void TCReportPage::Begin() { m_Write(PageAround(true)); }

void TCReportPage::Add(uint64_t id, TJson report, int directory)
{
    const std::string number = std::to_string(id);
    struct stat status;
    uint64_t bytes
        = GetStatus(directory, "report.json", status) ? static_cast<uint64_t>(status.st_size) : 0;
    TJson artefact = m_AddArtefact(number, directory, bytes);
    TJson log = m_AddLog(number, directory, bytes);
    m_AddData("data-report", {{"id", id},
                              {"bytes", bytes},
                              {"artefact", std::move(artefact)},
                              {"log", std::move(log)},
                              {"report", Shortened(report)}});
}

TJson TCReportPage::m_AddArtefact(const std::string& id, int directory, uint64_t& bytes)
{
    TSExcerpt excerpt;
    if (!ReadExcerpt(directory, "artefact", kMostOfAnArtefact, m_room, excerpt)) {
        return nullptr;
    }
    bytes += excerpt.m_bytes;
    const bool isText = IsText(excerpt.m_text);
    if (!isText && std::string(excerpt.m_state) == "end") {
        excerpt = {excerpt.m_bytes, "out", ""}; // nobody can use a part of it
    }
    m_room -= excerpt.m_text.size();
    if (!excerpt.m_text.empty()) {
        const auto* const binary = reinterpret_cast<const unsigned char*>(excerpt.m_text.data());
        m_AddData("id=\"artefact-" + id + "\"",
                  isText ? excerpt.m_text : Base64(binary, excerpt.m_text.size()));
    }
    return {{"bytes", excerpt.m_bytes},
            {"state", excerpt.m_state},
            {"kind", isText ? "text" : "binary"}};
}

TJson TCReportPage::m_AddLog(const std::string& id, int directory, uint64_t& bytes)
{
    TSExcerpt excerpt;
    if (!ReadExcerpt(directory, "kernel.log", kMostOfAnEnd, m_room, excerpt)) {
        return nullptr;
    }
    bytes += excerpt.m_bytes;
    m_room -= excerpt.m_text.size();
    if (!excerpt.m_text.empty()) {
        m_AddData("id=\"log-" + id + "\"", excerpt.m_text);
    }
    return {{"bytes", excerpt.m_bytes}, {"state", excerpt.m_state}};
}

bool TCReportPage::End(const std::vector<std::string>& unreadable)
{
    m_AddData("id=\"about\"", {{"made", tools::IsoTime(tools::Now())},
                               {"version", KEL_VERSION},
                               {"host", HostName()},
                               {"boot", BootTime()},
                               {"unreadable", unreadable}});
    m_Write(PageAround(false));
    return m_done;
}

void TCReportPage::m_AddData(const std::string& attributes, const TJson& data)
{
    m_Write("<script type=\"application/json\" " + attributes + ">" + Escaped(data)
            + "</script>\n");
}

void TCReportPage::m_Write(const std::string& text) { m_done = m_done && m_output(text); }

} // namespace ctl
} // namespace kel
