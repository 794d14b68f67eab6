#include "doctor/DoctorChannel.h"

#include <cstdlib>
#include <cstring>
#include <future>
#include <sstream>
#include <thread>
#include <vector>

#include "common/Files.h"

namespace kel {
namespace ctl {

namespace {

constexpr size_t kLongestCommand = 1U << 16;
constexpr TSMethod kListActivatable = {"org.freedesktop.DBus", "/org/freedesktop/DBus",
                                       "org.freedesktop.DBus", "ListActivatableNames"};

// A bus that is stopped takes a connection, and says nothing.
TGlibPtr<GDBusConnection> ConnectInTime(TGlibPtr<GError>& error)
{
    GCancellable* const cancellable = g_cancellable_new();
    std::promise<void> over;
    std::thread watchdog([&over, cancellable] {
        if (over.get_future().wait_for(std::chrono::milliseconds(kDoctorPatience))
            != std::future_status::ready) {
            g_cancellable_cancel(cancellable);
        }
    });
    TGlibPtr<GDBusConnection> connection = ConnectAlone(cancellable, error);
    over.set_value();
    watchdog.join();
    g_object_unref(cancellable);
    return connection;
}

bool IsStartable(GDBusConnection* connection, const char* name)
{
    TGlibPtr<GError> error;
    const TGlibPtr<GVariant> names
        = Call(connection, kListActivatable, nullptr, "(as)", kDoctorPatience, error);
    if (!names) {
        return false;
    }
    const TGlibPtr<GVariant> list(g_variant_get_child_value(names.get(), 0));
    gsize count = 0;
    const char** const all = g_variant_get_strv(list.get(), &count);
    const bool found = g_strv_contains(all, name) != FALSE;
    g_free(all);
    return found;
}

std::string NameOfProgram(const std::vector<std::string>& command)
{
    const std::string program = command.empty() ? "" : command[0];
    return program.substr(program.find_last_of("/@")
                          + 1); // systemd's unit of it has "@dbus-daemon"
}

bool HasWord(const std::vector<std::string>& command, const char* word)
{
    for (const std::string& one : command) {
        if (one == word) {
            return true;
        }
    }
    return false;
}

// Empty when the command line tells none.
std::string ConfigurationOf(const std::vector<std::string>& command)
{
    const std::string file = OptionOf(command, "--config-file");
    if (!file.empty()) {
        return file[0] == '/' ? file : ""; // who knows where it was started
    }
    return HasWord(command, "--system") || OptionOf(command, "--scope") == "system"
               ? TCBusConfiguration::StandardFile()
               : "";
}

} // namespace

TSChannelSight::TSChannelSight(const TSDoctorOptions& options)
    : m_isTest(options.m_test), m_channel(options.m_test ? kTestChannel : kChannel),
      m_configuration(m_channel.m_agent), m_isStartable(false)
{
    m_SeeBus();
    m_SeeConfiguration();
    if (m_connection) {
        m_agent.m_timeout = kAgentPatience;
        m_agentFound = m_agent.Find(m_connection.get(), m_channel, m_noAgent);
    }
}

void TSChannelSight::m_SeeBus()
{
    TGlibPtr<GError> error;
    m_connection = ConnectInTime(error);
    if (!m_connection) {
        m_noBus = g_error_matches(error.get(), G_IO_ERROR, G_IO_ERROR_CANCELLED)
                      ? "who listens there says nothing"
                      : TextOf(*error);
        return;
    }
    const TGlibPtr<GVariant> process = AskBus(m_connection.get(), "GetConnectionUnixProcessID",
                                              "org.freedesktop.DBus", "(u)", error);
    if (process) {
        g_variant_get(process.get(), "(u)", &m_busProcess);
    }
    m_isStartable = IsStartable(m_connection.get(), m_channel.m_agent);
}

void TSChannelSight::m_SeeConfiguration()
{
    const std::vector<std::string> command
        = m_busProcess != 0 ? CommandOf(m_busProcess) : std::vector<std::string>();
    // The number may be one that another namespace gives, and here another's.
    const std::string name = NameOfProgram(command);
    const bool isBus = name == "dbus-daemon" || name == "dbus-broker-launch";
    std::string file;
    if (isBus) {
        m_busProgram = name;
        file = ConfigurationOf(command);
    } else if (getenv("DBUS_SYSTEM_BUS_ADDRESS") == nullptr) {
        file = TCBusConfiguration::StandardFile();
    }
    if (file.empty()) {
        m_unread = "which files it reads is not to be seen";
        return;
    }
    m_unread = m_configuration.Read(file).Reason();
}

std::vector<std::string> CommandOf(unsigned int process)
{
    std::vector<std::string> words;
    std::istringstream text(
        tools::ReadText("/proc/" + std::to_string(process) + "/cmdline", kLongestCommand)
            .value_or(""));
    for (std::string word; std::getline(text, word, '\0');) {
        words.push_back(word);
    }
    return words;
}

std::string OptionOf(const std::vector<std::string>& command, const std::string& option)
{
    for (size_t i = 1; i < command.size(); ++i) {
        if (command[i] == option && i + 1 < command.size()) {
            return command[i + 1];
        }
        if (command[i].compare(0, option.size() + 1, option + "=") == 0) {
            return command[i].substr(option.size() + 1);
        }
    }
    return {};
}

void CheckChannel(const TSDoctorOptions& options, TFindings& findings)
{
    const TSChannelSight sight(options);
    CheckBus(sight, findings);
    CheckBusPolicy(sight, findings);
    CheckActivation(sight, findings);
    CheckAgent(sight, findings);
    CheckBusLimits(sight, findings);
    CheckArchive(sight, findings);
    CheckUnit(sight, findings);
}

} // namespace ctl
} // namespace kel
