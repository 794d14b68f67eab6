#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <glib.h>

#include "common/Files.h"
#include "common/Text.h"
#include "doctor/DoctorChannel.h"

namespace kel {
namespace ctl {

namespace {

constexpr size_t kMostBytes = 1U << 16; // of an activation file
constexpr char kGroup[] = "D-BUS Service";

struct TSActivation
{
    std::string m_file; // empty when there is none
    std::string m_command;
};

std::string ValueOf(GKeyFile* file, const char* key)
{
    char* const value = g_key_file_get_string(file, kGroup, key, nullptr);
    std::string text = value != nullptr ? value : "";
    g_free(value);
    return text;
}

// The name of such a file is the bus's name of whom it starts.
std::optional<TSActivation> ReadActivation(const std::string& path, const std::string& agent)
{
    const std::string text = tools::ReadText(path, kMostBytes).value_or("");
    const std::unique_ptr<GKeyFile, decltype(&g_key_file_unref)> file(g_key_file_new(),
                                                                      &g_key_file_unref);
    if (g_key_file_load_from_data(file.get(), text.data(), text.size(), G_KEY_FILE_NONE, nullptr)
            == FALSE
        || ValueOf(file.get(), "Name") != agent) {
        return std::nullopt;
    }
    return TSActivation{path, ValueOf(file.get(), "Exec")};
}

TSActivation FindActivation(const std::vector<std::string>& directories, const std::string& agent)
{
    const std::string name = "/" + agent + ".service";
    for (const std::string& directory : directories) {
        if (const auto found = ReadActivation(directory + name, agent)) {
            return *found;
        }
    }
    return {};
}

} // namespace

std::string FaultOfProgram(const std::string& commandLine, std::string& program)
{
    int count = 0;
    char** words = nullptr;
    if (g_shell_parse_argv(commandLine.c_str(), &count, &words, nullptr) == FALSE) {
        return "it names no program";
    }
    program = words[0];
    g_strfreev(words);
    if (program.empty() || program[0] != '/') {
        return program + " is no absolute path";
    }
    const tools::TCDescriptor file(open(program.c_str(), O_PATH | O_CLOEXEC));
    struct stat status;
    if (!file.IsOpen() || !tools::GetStatus(file.Get(), status)) {
        return program + ": " + std::strerror(errno);
    }
    return S_ISREG(status.st_mode) && (status.st_mode & 0111U) != 0
               ? ""
               : program + " is no program that can be executed";
}

void CheckActivation(const TSChannelSight& sight, TFindings& findings)
{
    if (sight.m_isTest) {
        findings.push_back({"activation", EHealth::Good,
                            "the test channel has no activation file: kel-agent --test is started "
                            "by hand",
                            ""});
        return;
    }
    const std::vector<std::string>& told = sight.m_configuration.ServiceDirectories();
    const std::vector<std::string>& directories
        = told.empty() ? TCBusConfiguration::kStandardServiceDirectories : told;
    const TSActivation found = FindActivation(directories, sight.m_channel.m_agent);
    if (found.m_file.empty() && sight.m_isStartable) {
        findings.push_back({"activation", EHealth::Good,
                            "the bus starts an agent; by which file is not to be seen", ""});
        return;
    }
    if (found.m_file.empty()) {
        findings.push_back({"activation", EHealth::Warning,
                            std::string("the bus starts no agent: ") + sight.m_channel.m_agent
                                + ".service is not in " + tools::Joined(directories),
                            "install kel-agent below /usr; or have an agent of your own run before "
                            "the first application"});
        return;
    }
    std::string program;
    const std::string fault = FaultOfProgram(found.m_command, program);
    if (!fault.empty()) {
        findings.push_back({"activation", EHealth::Fault,
                            found.m_file + " starts no agent: " + fault,
                            "install kel-agent again, or mend the line Exec="});
    } else if (sight.m_connection && !sight.m_isStartable) {
        findings.push_back({"activation", EHealth::Fault, "the bus has not read " + found.m_file,
                            "systemctl reload dbus, or kill -HUP the bus's process"});
    } else {
        findings.push_back(
            {"activation", EHealth::Good, found.m_file + " has the bus start " + program, ""});
    }
}

} // namespace ctl
} // namespace kel
