#include "support/PrivateBus.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include <gio/gio.h>

namespace kel::test {

namespace {

constexpr char kVariable[] = "DBUS_SYSTEM_BUS_ADDRESS";

// The project's policy lets root be the agent. A test that does not run as root plays all parts
// itself, under the same rules.
std::string PolicyForThisUser()
{
    if (geteuid() == 0) {
        return {};
    }
    std::string text = "<policy user=\"" + std::to_string(geteuid()) + "\">";
    for (const char* const suffix : {"", "Test"}) {
        text += std::string("<allow own=\"com.norvale.kel.IControl") + suffix
                + "\"/><allow send_type=\"method_call\" send_interface=\"com.norvale.kel.IControl\""
                  " send_path=\"/com/norvale/kel/CommunicationChannel"
                + suffix + "\"/>";
    }
    text += "<allow send_destination=\"org.freedesktop.DBus\""
            " send_interface=\"org.freedesktop.DBus.Monitoring\"/>";
    return text + "</policy>";
}

std::string Configuration(const std::string& directory, const PrivateBus::TSOptions& options)
{
    std::string text = "<!DOCTYPE busconfig PUBLIC "
                       "\"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\" "
                       "\"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
                       "<busconfig>\n  <include>" KEL_STRICT_BUS "</include>\n  <listen>unix:path="
                       + directory + "/bus</listen>\n  <servicedir>" + directory
                       + "/services</servicedir>\n";
    if (options.m_projectPolicy) {
        text += "  <includedir>" KEL_POLICY_DIR "</includedir>\n";
    }
    if (options.m_thisUserIsAgent) {
        text += PolicyForThisUser();
    }
    return text + options.m_config + "</busconfig>\n";
}

// The program that was asked for. Its first line of output is its address: it is ready then.
std::vector<std::string> Daemon(const std::string& directory, const std::string& config)
{
    if (!PrivateBus::IsBroker()) {
        return {
            "dbus-daemon",      "--nofork", "--nopidfile", "--nosyslog", "--config-file=" + config,
            "--print-address=1"};
    }
    std::vector<std::string> command;
    if (geteuid() == 0) {
        command = {"unshare", "-m", "--"};
    }
    command.insert(command.end(),
                   {"/usr/bin/python3", KEL_START_BROKER, directory + "/bus", config});
    return command;
}

} // namespace

PrivateBus::PrivateBus() : PrivateBus(TSOptions()) {}

PrivateBus::PrivateBus(const TSOptions& options) : m_directory(MakeDirectory())
{
    std::filesystem::create_directory(m_directory + "/services");
    const std::string config = m_directory + "/bus.conf";
    std::ofstream(config) << Configuration(m_directory, options);

    m_daemon = std::make_unique<ChildProcess>(Daemon(m_directory, config));
    if (!m_daemon->WaitForOutput("\n")) {
        throw std::runtime_error("the bus daemon does not start: " + m_daemon->ErrorOutput());
    }
    m_address = m_daemon->Output();
    m_address.erase(m_address.find('\n'));
    setenv(kVariable, m_address.c_str(), 1);
}

PrivateBus::~PrivateBus()
{
    Kill();
    unsetenv(kVariable);
    std::error_code ignored;
    std::filesystem::remove_all(m_directory, ignored);
}

bool PrivateBus::IsBroker()
{
    const char* const wanted = getenv("KEL_TEST_BUS");
    const std::string name = wanted != nullptr ? wanted : "dbus-daemon";
    if (name != "dbus-daemon" && name != "dbus-broker") {
        throw std::runtime_error("KEL_TEST_BUS is neither dbus-daemon nor dbus-broker: " + name);
    }
    return name == "dbus-broker";
}

bool PrivateBus::WaitForDisconnection()
{
    GDBusConnection* const shared = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    if (shared == nullptr) {
        return true;
    }
    GWeakRef weak;
    g_weak_ref_init(&weak, shared);
    g_object_unref(shared);
    const bool gone = WaitUntil([&] {
        gpointer const alive = g_weak_ref_get(&weak);
        if (alive != nullptr) {
            g_object_unref(alive);
        }
        return alive == nullptr;
    });
    g_weak_ref_clear(&weak);
    return gone;
}

void PrivateBus::Kill()
{
    if (!m_daemon) {
        return;
    }
    // The process's shared connection may live on in somebody's hands.
    GDBusConnection* const shared = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    if (shared != nullptr) {
        g_dbus_connection_set_exit_on_close(shared, FALSE);
        g_object_unref(shared);
    }
    m_daemon.reset();
}

std::string MakeDirectory()
{
    const char* const parent = getenv("TMPDIR");
    std::string path = std::string(parent != nullptr ? parent : "/tmp") + "/kel-test-XXXXXX";
    if (mkdtemp(path.data()) == nullptr) {
        throw std::runtime_error("cannot make the directory " + path);
    }
    chmod(path.c_str(), 0755); // other users connect to sockets in it
    return path;
}

} // namespace kel::test
