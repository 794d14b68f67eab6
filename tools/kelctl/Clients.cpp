#include "Clients.h"

#include <algorithm>
#include <cstdio>
#include <optional>
#include <utility>

#include "common/AgentMessages.h"
#include "common/BusPeer.h"
#include "common/Text.h"

namespace kel {
namespace ctl {

namespace {

constexpr char kUnknown[] = "-";

TJson ToJson(const std::optional<unsigned int>& number)
{
    return number ? TJson(*number) : TJson(nullptr);
}

// A value as JSON, without the end of the line.
std::string Compact(const TJson& value)
{
    std::string text = TSReportView::JsonLine(value);
    text.pop_back();
    return text;
}

// A number, or the beginning of what the agent has told in its place.
std::string Cell(const TJson& client, const char* member)
{
    const auto found = client.find(member);
    if (found == client.end() || found->is_null()) {
        return kUnknown;
    }
    return tools::PrintableStart(found->is_string() ? found->get<std::string>() : Compact(*found));
}

std::string Milliseconds(const TJson& client, const char* member)
{
    const auto found = client.find(member);
    const auto sent = client.find("sent");
    if (found == client.end() || !found->is_number_unsigned() || sent == client.end()
        || *sent == 0) {
        return kUnknown;
    }
    char text[32];
    std::snprintf(text, sizeof(text), "%.1f", found->get<double>() / 1000);
    return text;
}

std::string Types(const TJson& client)
{
    const auto types = client.find("types");
    const auto count = client.find("number-of-types");
    if (types == client.end() || !types->is_array() || types->empty()) {
        return kUnknown;
    }
    std::string text;
    for (const TJson& type : *types) {
        text += (text.empty() ? "" : ",") + Compact(type);
    }
    if (count != client.end() && *count != types->size()) {
        text += "...";
    }
    return tools::PrintableStart(text);
}

TCClients::TRow Row(const TJson& client)
{
    return {Cell(client, "unique-name"),
            Cell(client, "pid"),
            Cell(client, "user"),
            Types(client),
            Cell(client, "registered"),
            Cell(client, "sent"),
            Cell(client, "handled"),
            Cell(client, "refused"),
            Cell(client, "timed-out"),
            Cell(client, "unreachable"),
            Milliseconds(client, "last-us"),
            Milliseconds(client, "slowest-us"),
            Cell(client, "program")};
}

} // namespace

const TCClients::TRow TCClients::kHead
    = {"CLIENT",  "PROCESS",   "USER",        "TYPES",   "REGISTERED", "SENT",   "HANDLED",
       "REFUSED", "TIMED-OUT", "UNREACHABLE", "LAST-MS", "SLOWEST-MS", "PROGRAM"};

std::optional<TJson> ClientsIn(const std::optional<std::string>& answer)
{
    TJson told = TJson::parse(answer.value_or(""), nullptr, false);
    const auto clients = told.find("clients");
    if (!told.is_object() || clients == told.end() || !clients->is_object()) {
        return std::nullopt;
    }
    return std::move(*clients);
}

EStatus TCClients::Ask(GDBusConnection* connection, const TSChannel& channel, const TSAgent& agent,
                       std::string& reason)
{
    m_clients = TJson::array();
    TGlibPtr<GError> error;
    const std::optional<std::string> answer
        = AskAgent(connection, channel, agent.m_uniqueName.c_str(), tools::AskClients, error);
    if (error) {
        reason = IsDenied(error) ? "the bus forbids this user the agent: " : "no answer: ";
        reason += TextOf(*error);
        return EStatus::NoAnswer;
    }
    const std::optional<TJson> clients = ClientsIn(answer);
    if (!clients) {
        reason = "the agent that runs does not tell of its applications: it is another one than "
                 "kel-agent, or older";
        return EStatus::Negative;
    }
    for (const auto& [name, members] : clients->items()) {
        const tools::TSBusPeer peer = tools::TSBusPeer::Of(connection, name);
        TJson client
            = {{"unique-name", name},
               {"pid", ToJson(peer.m_process)},
               {"user", ToJson(peer.m_user)},
               {"program", peer.m_program.empty() ? TJson(nullptr) : TJson(peer.m_program)}};
        if (members.is_object()) {
            client.insert(members.begin(), members.end());
        }
        m_clients.push_back(std::move(client));
    }
    return EStatus::Success;
}

std::vector<TCClients::TRow> TCClients::Rows() const
{
    std::vector<TRow> rows;
    for (const TJson& client : m_clients) {
        rows.push_back(Row(client));
    }
    return rows;
}

std::string TCClients::Json() const { return Compact(m_clients); }

std::string TCClients::Table() const
{
    std::vector<TRow> rows = Rows();
    rows.insert(rows.begin(), kHead);
    std::array<size_t, std::tuple_size<TRow>::value> widths = {};
    for (const TRow& row : rows) {
        for (size_t i = 0; i + 1 < row.size(); ++i) { // nothing follows the last
            widths[i] = std::max(widths[i], row[i].size());
        }
    }
    std::string text;
    for (const TRow& row : rows) {
        for (size_t i = 0; i + 1 < row.size(); ++i) {
            text += row[i] + std::string(widths[i] - row[i].size() + 2, ' ');
        }
        text += row.back() + '\n';
    }
    return text;
}

} // namespace ctl
} // namespace kel
