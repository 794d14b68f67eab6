#include "doctor/Unit.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <optional>
#include <sstream>

#include "common/Files.h"
#include "common/Text.h"

namespace kel {
namespace ctl {

namespace {

constexpr size_t kMostBytes = 1U << 18; // of one file
constexpr char kBlanks[] = " \t\r";

// The first first.
const char* const kDirectories[]
    = {"/etc/systemd/system", "/run/systemd/system", "/usr/local/lib/systemd/system",
       "/usr/lib/systemd/system", "/lib/systemd/system"};

// What is said of these twice is meant twice. Of the others the last word counts.
const char* const kLists[]
    = {"AmbientCapabilities",   "BindPaths",        "BindReadOnlyPaths", "ExecStart",
       "CapabilityBoundingSet", "Environment",      "ExecPaths",         "InaccessiblePaths",
       "NoExecPaths",           "ReadOnlyPaths",    "ReadWritePaths",    "RestrictAddressFamilies",
       "RestrictNamespaces",    "RuntimeDirectory", "StateDirectory",    "SystemCallFilter",
       "TemporaryFileSystem"};

std::string Below(const std::string& directory, const std::string& name)
{
    return directory + "/" + name;
}

std::string Trimmed(const std::string& text)
{
    const size_t begin = text.find_first_not_of(kBlanks);
    return begin == std::string::npos
               ? ""
               : text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1);
}

bool IsList(const std::string& setting)
{
    return std::find(std::begin(kLists), std::end(kLists), setting) != std::end(kLists);
}

// A yes and a no may be said in several ways.
std::string Plain(const std::string& word)
{
    if (word == "1" || word == "true" || word == "on") {
        return "yes";
    }
    return word == "0" || word == "false" || word == "off" ? "no" : word;
}

// As a later word of a line that goes on at its end.
std::string JoinedLines(std::string text)
{
    for (size_t at = 0; (at = text.find("\\\n", at)) != std::string::npos;) {
        text.replace(at, 2, " ");
    }
    return text;
}

// A link beside what starts by itself, which need not lead anywhere that is seen from here.
bool IsBroughtAlong(const std::string& name)
{
    for (const std::string directory : kDirectories) {
        std::vector<std::string> entries;
        tools::ListNames(directory, entries);
        for (const std::string& entry : entries) {
            struct stat status;
            if ((tools::EndsWith(entry, ".wants") || tools::EndsWith(entry, ".requires"))
                && tools::GetStatus(AT_FDCWD, Below(Below(directory, entry), name), status)) {
                return true;
            }
        }
    }
    return false;
}

} // namespace

void TCUnit::Add(const std::string& text)
{
    m_section.clear();
    std::istringstream lines(JoinedLines(text));
    for (std::string line; std::getline(lines, line);) {
        m_Take(Trimmed(line));
    }
}

void TCUnit::m_Take(const std::string& line)
{
    const size_t equals = line.find('=');
    if (line.empty() || line[0] == '#' || line[0] == ';') {
        return;
    }
    if (line[0] == '[') {
        m_section = line;
    } else if (m_section == "[Service]" && equals != std::string::npos) {
        const std::string setting = Trimmed(line.substr(0, equals));
        std::vector<std::string>& words = m_settings[setting];
        std::istringstream value(line.substr(equals + 1));
        const size_t before = words.size();
        for (std::string word; value >> word;) {
            words.push_back(Plain(word));
        }
        if (!IsList(setting)) {
            words.erase(words.begin(), words.begin() + static_cast<std::ptrdiff_t>(before));
        } else if (words.size() == before) { // nothing is said: what was said before is taken back
            words.clear();
        }
    }
}

std::vector<std::string> TCUnit::Words(const std::string& setting) const
{
    const auto found = m_settings.find(setting);
    return found == m_settings.end() ? std::vector<std::string>() : found->second;
}

std::vector<std::string> TCUnit::Settings() const
{
    std::vector<std::string> names;
    for (const auto& [name, words] : m_settings) {
        names.push_back(name);
    }
    return names;
}

bool TCUnit::Is(const std::string& setting) const
{
    const std::vector<std::string> words = Words(setting);
    return !words.empty() && words.front() == "yes";
}

TSInstalledUnit::TSInstalledUnit(const std::string& name)
{
    for (const std::string directory : kDirectories) {
        const std::string path = Below(directory, name);
        struct stat status;
        if (!tools::GetStatus(AT_FDCWD, path, status)) {
            continue;
        }
        m_file = path;
        char target[PATH_MAX];
        m_isMasked
            = realpath(path.c_str(), target) != nullptr && std::string(target) == "/dev/null";
        const std::optional<std::string> text
            = m_isMasked ? std::make_optional<std::string>() : tools::ReadText(path, kMostBytes);
        m_isUnreadable = !text;
        m_isMasked = text && text->empty();
        m_unit.Add(text.value_or(""));
        m_ReadDropIns(name);
        m_isEnabled = IsBroughtAlong(name);
        return;
    }
}

// In the order of their names, whatever their directories; of one name the first directory's.
void TSInstalledUnit::m_ReadDropIns(const std::string& name)
{
    std::map<std::string, std::string> paths;
    for (const std::string directory : kDirectories) {
        const std::string dropIns = Below(directory, name) + ".d";
        std::vector<std::string> entries;
        tools::ListNames(dropIns, entries);
        for (const std::string& entry : entries) {
            if (tools::EndsWith(entry, ".conf")) {
                paths.emplace(entry, Below(dropIns, entry));
            }
        }
    }
    for (const auto& [entry, path] : paths) {
        m_unit.Add(tools::ReadText(path, kMostBytes).value_or(""));
    }
}

} // namespace ctl
} // namespace kel
