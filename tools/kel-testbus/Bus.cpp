#include "Bus.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <system_error>

#include <gio/gio.h>

#include "Configurations.h"

namespace kel {
namespace testbus {

namespace {

std::string Replaced(std::string text, const std::string& part, const std::string& by)
{
    for (size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += by.size()) {
        text.replace(at, part.size(), by);
    }
    return text;
}

std::string InXml(const std::string& text)
{
    return Replaced(Replaced(Replaced(text, "&", "&amp;"), "<", "&lt;"), ">", "&gt;");
}

std::string InAddress(const std::string& text)
{
    std::string address;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        char escaped[sizeof("%00")];
        std::snprintf(escaped, sizeof(escaped), "%%%02x", byte);
        const bool isPlain = (byte < 0x80 && std::isalnum(byte)) || (c != 0 && strchr("/._-", c));
        address += isPlain ? std::string(1, c) : escaped;
    }
    return address;
}

// The bus reads escapes first, and then splits the line as a shell does.
std::string InExec(const std::vector<std::string>& command)
{
    std::string line;
    for (const std::string& word : command) {
        line += (line.empty() ? "'" : " '") + Replaced(word, "'", "'\\''") + "'";
    }
    return Replaced(line, "\\", "\\\\");
}

void WriteFile(const std::string& path, const std::string& text)
{
    std::ofstream file(path);
    file << text;
    if (!file.flush()) {
        throw std::runtime_error(path + " cannot be written");
    }
}

void WriteConfiguration(const std::string& directory)
{
    const std::string root = "<policy user=\"root\">";
    const std::string ours = "<policy user=\"" + std::to_string(geteuid()) + "\">";
    WriteFile(directory + "/strict-bus.conf", Replaced(kStrictBus, root, ours));
    WriteFile(directory + "/channel.conf", Replaced(kChannelPolicy, root, ours));
    WriteFile(directory + "/test-channel.conf", Replaced(kTestChannelPolicy, root, ours));
    const std::string place = InXml(directory);
    WriteFile(directory + "/bus.conf",
              "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
              " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
              "<busconfig>\n"
              "  <include>"
                  + place
                  + "/strict-bus.conf</include>\n"
                    "  <listen>unix:path="
                  + InAddress(directory)
                  + "/bus</listen>\n"
                    "  <servicedir>"
                  + place
                  + "/services</servicedir>\n"
                    "  <include>"
                  + place
                  + "/channel.conf</include>\n"
                    "  <include>"
                  + place
                  + "/test-channel.conf</include>\n"
                    "</busconfig>\n");
}

// The line that a pipe brings; what there is of it when its other end is closed.
std::string ReadLine(TCFamily& family, int pipe)
{
    std::string line;
    for (char c = 0;;) {
        family.WaitReadable(pipe);
        if (read(pipe, &c, 1) != 1 || c == '\n') {
            return line;
        }
        line += c;
    }
}

// By the bus, so that it has one agent, whoever else calls for it. True once it owns its name.
bool AskForAgent(const std::string& address, const char* name)
{
    GError* error = nullptr;
    GDBusConnection* const bus = g_dbus_connection_new_for_address_sync(
        address.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT
                                          | G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &error);
    GVariant* const started
        = bus == nullptr
              ? nullptr
              : g_dbus_connection_call_sync(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                            "org.freedesktop.DBus", "StartServiceByName",
                                            g_variant_new("(su)", name, 0U), nullptr,
                                            G_DBUS_CALL_FLAGS_NONE, G_MAXINT, nullptr, &error);
    if (error != nullptr) {
        std::fprintf(stderr, "kel-testbus: %s\n", error->message);
    }
    return started != nullptr;
}

} // namespace

const char* AgentName(bool test)
{
    return test ? "com.norvale.kel.IControlTest" : "com.norvale.kel.IControl";
}

TSPipe::TSPipe()
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        throw std::system_error(errno, std::generic_category(), "making a pipe");
    }
    m_output.Reset(ends[0]);
    m_input.Reset(ends[1]);
}

TCBus::TCBus(TCFamily& family, const std::string& directory, int log, bool test,
             const std::vector<std::string>& agent)
{
    const passwd* const user = getpwuid(geteuid());
    if (user == nullptr) {
        throw std::runtime_error("the user database has no user " + std::to_string(geteuid())
                                 + ", and a bus lets in only those it has");
    }
    const std::string services = directory + "/services";
    mkdir(services.c_str(), 0755);
    if (!agent.empty()) {
        WriteFile(services + "/" + AgentName(test) + ".service",
                  std::string("[D-BUS Service]\nName=") + AgentName(test)
                      + "\nUser=" + user->pw_name + "\nExec=" + InExec(agent) + "\n");
    }
    WriteConfiguration(directory);

    TSPipe address;
    const int input = address.m_input.Get();
    m_process = family.Start(TCFamily::EGroup::Own, [&] {
        dup2(log, STDERR_FILENO);
        fcntl(input, F_SETFD, 0);
        BecomeProgram({"dbus-daemon", "--nofork", "--nopidfile", "--nosyslog",
                       "--config-file=" + directory + "/bus.conf",
                       "--print-address=" + std::to_string(input)});
    });
    address.m_input.Reset();
    m_address = ReadLine(family, address.m_output.Get());
    if (m_address.empty()) {
        throw std::runtime_error("the private bus does not start");
    }
    setenv("DBUS_SYSTEM_BUS_ADDRESS", m_address.c_str(), 1);
}

void TCBus::StartAgent(TCFamily& family, int log, bool test) const
{
    TSPipe result;
    family.Start(TCFamily::EGroup::Own, [&] {
        dup2(log, STDERR_FILENO);
        const bool isThere = AskForAgent(m_address, AgentName(test));
        _exit(isThere && write(result.m_input.Get(), "there\n", 6) == 6 ? EXIT_SUCCESS
                                                                        : EXIT_FAILURE);
    });
    result.m_input.Reset();
    if (ReadLine(family, result.m_output.Get()).empty()) {
        throw std::runtime_error("the agent does not start");
    }
}

} // namespace testbus
} // namespace kel
