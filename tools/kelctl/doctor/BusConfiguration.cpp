#include "doctor/BusConfiguration.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>

#include <glib.h>

#include "common/Files.h"
#include "common/Text.h"

namespace kel {
namespace ctl {

using tools::TCOutcome;

namespace {

constexpr size_t kMostBytes = 1U << 20; // of one file
constexpr size_t kMostFiles = 1000;
constexpr size_t kMostDepth = 8; // of files that include others

std::string DirectoryOf(const std::string& path) { return path.substr(0, path.rfind('/')); }

// Paths in a file are told from its directory.
std::string PathIn(const std::string& directory, const std::string& path)
{
    return path.empty() || path[0] == '/' ? path : directory + "/" + path;
}

} // namespace

const std::vector<std::string> TCBusConfiguration::kStandardServiceDirectories
    = {"/etc/dbus-1/system-services", "/run/dbus-1/system-services",
       "/usr/local/share/dbus-1/system-services", "/usr/share/dbus-1/system-services",
       "/lib/dbus-1/system-services"};

// Reads one file, and has what it includes read in its place.
class TCBusConfiguration::TCReader
{
public:
    TCReader(TCBusConfiguration& configuration, std::string path, size_t depth)
        : m_configuration(configuration), m_path(std::move(path)), m_depth(depth)
    {}

    TCOutcome Read(const std::string& text)
    {
        constexpr GMarkupParser parser
            = {&TCReader::m_Begin, &TCReader::m_End, &TCReader::m_Text, nullptr, nullptr};
        const std::unique_ptr<GMarkupParseContext, decltype(&g_markup_parse_context_unref)> context(
            g_markup_parse_context_new(&parser, GMarkupParseFlags(0), this, nullptr),
            &g_markup_parse_context_unref);
        if (g_markup_parse_context_parse(context.get(), text.data(),
                                         static_cast<gssize>(text.size()), nullptr)
                == FALSE
            || g_markup_parse_context_end_parse(context.get(), nullptr) == FALSE) {
            return TCOutcome::Failed(m_path + ": no configuration of a bus");
        }
        return m_outcome;
    }

private:
    typedef std::map<std::string, std::string> TAttributes;

    static void m_Begin(GMarkupParseContext*, const char*, const char** names, const char** values,
                        gpointer reader, GError**)
    {
        TCReader& self = *static_cast<TCReader*>(reader);
        self.m_attributes.clear();
        self.m_text.clear();
        for (; *names != nullptr; ++names, ++values) {
            self.m_attributes[*names] = *values;
        }
    }

    static void m_Text(GMarkupParseContext*, const char* text, gsize size, gpointer reader,
                       GError**)
    {
        static_cast<TCReader*>(reader)->m_text.append(text, size);
    }

    static void m_End(GMarkupParseContext*, const char* element, gpointer reader, GError**)
    {
        static_cast<TCReader*>(reader)->m_Take(element);
    }

    void m_Take(const std::string& element)
    {
        const std::string path = PathIn(DirectoryOf(m_path), m_text);
        if (element == "limit") {
            m_configuration.m_limits[m_attributes["name"]]
                = std::strtoll(m_text.c_str(), nullptr, 10);
        } else if (element == "servicedir") {
            m_configuration.m_serviceDirectories.push_back(path);
        } else if (element == "standard_system_servicedirs") {
            std::vector<std::string>& all = m_configuration.m_serviceDirectories;
            all.insert(all.end(), kStandardServiceDirectories.begin(),
                       kStandardServiceDirectories.end());
        } else if (element == "allow" && m_attributes["send_destination"] == m_configuration.m_agent
                   && (m_configuration.m_rules.empty()
                       || m_configuration.m_rules.back() != m_path)) {
            m_configuration.m_rules.push_back(m_path);
        } else if (element == "includedir") {
            m_configuration.m_ReadDirectory(path, m_depth + 1);
        } else if (element == "include" && m_attributes["if_selinux_enabled"] != "yes") {
            m_Keep(
                m_configuration.m_Read(path, m_attributes["ignore_missing"] == "yes", m_depth + 1));
        }
    }

    void m_Keep(TCOutcome outcome)
    {
        if (m_outcome) {
            m_outcome = std::move(outcome);
        }
    }

    TCBusConfiguration& m_configuration;
    const std::string m_path;
    const size_t m_depth;
    TCOutcome m_outcome;
    TAttributes m_attributes; // of the element that has begun last
    std::string m_text;       // in it
};

TCOutcome TCBusConfiguration::Read(const std::string& path) { return m_Read(path, false, 0); }

long long TCBusConfiguration::Limit(const std::string& name, long long builtIn) const
{
    const auto found = m_limits.find(name);
    return found == m_limits.end() ? builtIn : found->second;
}

std::string TCBusConfiguration::StandardFile()
{
    constexpr char kNow[] = "/usr/share/dbus-1/system.conf";
    return access(kNow, F_OK) == 0 ? kNow : "/etc/dbus-1/system.conf";
}

TCOutcome TCBusConfiguration::m_Read(const std::string& path, bool mayMiss, size_t depth)
{
    if (depth > kMostDepth || ++m_files > kMostFiles) {
        return TCOutcome::Failed(path + ": too many files include one another");
    }
    const std::optional<std::string> text = tools::ReadText(path, kMostBytes);
    if (!text) {
        return mayMiss && errno == ENOENT ? TCOutcome()
                                          : TCOutcome::Failed(path + ": " + std::strerror(errno));
    }
    return TCReader(*this, path, depth).Read(*text);
}

// The bus does without such a directory, and without a file in it that it cannot read.
void TCBusConfiguration::m_ReadDirectory(const std::string& path, size_t depth)
{
    std::vector<std::string> names;
    tools::ListNames(path, names);
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) {
        if (tools::EndsWith(name, ".conf")) {
            static_cast<void>(m_Read(PathIn(path, name), true, depth));
        }
    }
}

} // namespace ctl
} // namespace kel
