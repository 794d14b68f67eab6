#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include "Clients.h"
#include "common/Files.h"
#include "common/Text.h"

namespace kel {
namespace ctl {

namespace {

constexpr int kPeriod = 1000; // ms; the agent tells when it is asked, and of nothing by itself

// What a terminal understands. The lines are cut at its right edge, where they would go on below.
constexpr char kClear[] = "\033[2J";
constexpr char kHome[] = "\033[?7l\033[H";
constexpr char kRestOfLine[] = "\033[K\n";
constexpr char kRestOfScreen[] = "\033[J\033[?7h";

size_t RowsOfTerminal()
{
    winsize size = {};
    return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0 ? size.ws_row : SIZE_MAX;
}

// As many lines as the terminal has, drawn over those that are there.
std::string Drawn(const std::string& text)
{
    std::string drawn = kHome;
    size_t room = RowsOfTerminal() - 1; // the cursor takes a line of its own
    for (size_t at = 0; at < text.size() && room > 0; --room) {
        const size_t end = text.find('\n', at);
        drawn.append(text, at, end - at).append(kRestOfLine);
        at = end + 1;
    }
    return drawn + kRestOfScreen;
}

class TCWatch
{
public:
    TCWatch(const TSChannel& channel, bool json)
        : m_channel(channel), m_isJson(json), m_isTerminal(!json && isatty(STDOUT_FILENO) == 1)
    {
        for (const int signal : {SIGINT, SIGTERM}) {
            // At once, also when nobody takes what is printed. Nothing is buffered.
            std::signal(signal, [](int) { _exit(static_cast<int>(EStatus::Success)); });
        }
    }

    EStatus Run();

private:
    bool m_Look();
    void m_Show();
    std::string m_Changes();
    void m_Print(const std::string& text);
    void m_Wait();

    const TSChannel& m_channel;
    const bool m_isJson;
    const bool m_isTerminal;
    TGlibPtr<GDBusConnection> m_connection;
    std::string m_state; // of the agent
    std::string m_json;
    TCClients m_clients;
    std::optional<std::string> m_shown;                // the state, or the object
    std::map<std::string, std::string> m_shownClients; // lines by the clients' names
    std::optional<EStatus> m_status;                   // from its end on
};

EStatus TCWatch::Run()
{
    m_connection = ConnectToBus();
    if (!m_connection) {
        return EStatus::NoAnswer;
    }
    if (m_isTerminal) {
        m_Print(kClear);
    }
    while (!m_status && m_Look()) {
        m_Show();
        m_Wait();
    }
    return *m_status;
}

// Agents may come and go; false when there is nobody to ask for them.
bool TCWatch::m_Look()
{
    TSAgent agent;
    m_clients = TCClients();
    const EStatus found = agent.Find(m_connection.get(), m_channel, m_state);
    if (found == EStatus::NoAnswer && g_dbus_connection_is_closed(m_connection.get()) != FALSE) {
        std::fprintf(stderr, "kelctl: the system bus is gone\n");
        m_status = found;
        return false;
    }
    m_json = "\"running\": false";
    if (found != EStatus::Success) {
        return true;
    }
    m_state = "running: " + TextOf(agent);
    m_json = JsonOf(agent);
    if (agent.m_denied || !agent.m_answers) {
        return true;
    }
    std::string reason;
    if (m_clients.Ask(m_connection.get(), m_channel, agent, reason) == EStatus::Success) {
        m_json += ", \"clients\": " + m_clients.Json();
    } else {
        m_state += "; " + reason;
    }
    return true;
}

void TCWatch::m_Show()
{
    if (m_isTerminal) {
        m_Print(Drawn(tools::IsoTime(tools::Now()) + " " + m_state + "\n" + m_clients.Table()));
    } else if (!m_isJson) {
        m_Print(m_Changes());
    } else if (const std::string line = "{" + m_json + "}\n"; line != m_shown) {
        m_Print(line);
        m_shown = line;
    }
}

// A line for the agent, and one for each of its clients, of which there is anything new.
std::string TCWatch::m_Changes()
{
    const std::string time = tools::IsoTime(tools::Now()) + " ";
    std::string text;
    if (m_state != m_shown) {
        m_shown = m_state;
        text = time + tools::Printable(m_state) + "\n";
    }
    std::map<std::string, std::string> lines;
    for (const TCClients::TRow& row : m_clients.Rows()) {
        std::string& line = lines[row[0]];
        line = row[0];
        for (size_t i = 1; i < row.size(); ++i) {
            line += " " + TCClients::kHead[i] + " " + row[i];
        }
        if (m_shownClients[row[0]] != line) {
            text += time + line + "\n";
        }
        m_shownClients.erase(row[0]);
    }
    for (const auto& [name, line] : m_shownClients) {
        text += time + name + " gone\n";
    }
    m_shownClients = std::move(lines);
    return text;
}

void TCWatch::m_Print(const std::string& text)
{
    if (tools::WriteAll(STDOUT_FILENO, text)) {
        return;
    }
    m_status = EStatus::NoOutput;
    if (errno != EPIPE) { // who has gone knows
        std::fprintf(stderr, "kelctl: the output cannot be written: %s\n", std::strerror(errno));
    }
}

void TCWatch::m_Wait()
{
    pollfd output = {STDOUT_FILENO, 0, 0};
    if (!m_status && poll(&output, 1, kPeriod) > 0) {
        m_status = EStatus::NoOutput;
    }
}

} // namespace

EStatus WatchClients(const TSChannel& channel, bool json) { return TCWatch(channel, json).Run(); }

} // namespace ctl
} // namespace kel
