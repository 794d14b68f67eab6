#include "Commands.h"

#include <cstdio>
#include <memory>
#include <string>

#include "Bus.h"

namespace kel {
namespace ctl {

namespace {

// The owner's unique name and process. True on success, otherwise false with the error.
bool FindAgent(GDBusConnection* connection, std::string& uniqueName, guint32& process,
               TGlibPtr<GError>& error)
{
    const TGlibPtr<GVariant> owner = AskBus(connection, "GetNameOwner", kAgentName, "(s)", error);
    if (!owner) {
        return false;
    }
    const char* name = nullptr;
    g_variant_get(owner.get(), "(&s)", &name);
    uniqueName = name;

    const TGlibPtr<GVariant> id
        = AskBus(connection, "GetConnectionUnixProcessID", name, "(u)", error);
    if (!id) {
        return false;
    }
    g_variant_get(id.get(), "(u)", &process);
    return true;
}

EStatus Status(bool json)
{
    const TGlibPtr<GDBusConnection> connection = ConnectToBus();
    if (!connection) {
        return EStatus::NoAnswer;
    }

    std::string uniqueName;
    guint32 process = 0;
    TGlibPtr<GError> error;
    if (FindAgent(connection.get(), uniqueName, process, error)) {
        if (json) {
            std::printf("{\"running\": true, \"pid\": %u, \"unique-name\": \"%s\"}\n", process,
                        uniqueName.c_str());
        } else {
            std::printf("running: process %u, unique name %s\n", process, uniqueName.c_str());
        }
        return EStatus::Success;
    }
    if (g_error_matches(error.get(), G_DBUS_ERROR, G_DBUS_ERROR_NAME_HAS_NO_OWNER)) {
        if (json) {
            std::printf("{\"running\": false}\n");
        }
        std::fprintf(stderr, "kelctl: no agent runs\n");
        return EStatus::Negative;
    }
    std::fprintf(stderr, "kelctl: no answer from the bus: %s\n", error->message);
    return EStatus::NoAnswer;
}

} // namespace

void AddStatus(CLI::App& program, EStatus& status)
{
    CLI::App* const command = program.add_subcommand("status", "Tell whether an agent runs");
    const auto json = std::make_shared<bool>(false);
    command->add_flag("--json", *json, "Print a JSON object");
    command->callback([json, &status] { status = Status(*json); });
}

} // namespace ctl
} // namespace kel
