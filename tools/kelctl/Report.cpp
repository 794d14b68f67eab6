#include "Commands.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <memory>
#include <optional>
#include <string>

#include <kel/KELFileSystem.h>
#include <kel/KELIssueReport.h>

#include "Numbers.h"
#include "ReportWait.h"
#include "StoredPolicy.h"
#include "common/RequestFormat.h"

namespace kel {
namespace ctl {

namespace {

struct TSMode
{
    const char* m_name;
    artifactSendFlag m_flag;
};
constexpr TSMode kModes[] = {
    {"oqc-always", OQC_ALWAYS},
    {"always", ALWAYS},
    {"once-only", ONCE_ONLY},
    {"policy", POLICY},
};

struct TSOptions
{
    std::optional<std::string> m_process;
    std::optional<std::string> m_thread;
    std::string m_mode = "policy";
    std::optional<std::string> m_path;
    bool m_reboot = false;
    bool m_slot = false;
    bool m_wait = false;
    double m_timeout = 0; // in seconds; 0 for none
    std::string m_stateDirectory = kDefaultStateDirectory;
};

char* OrNull(std::optional<std::string>& name) { return name ? name->data() : nullptr; }

const TSMode& Mode(const std::string& name)
{
    return *std::find_if(std::begin(kModes), std::end(kModes) - 1,
                         [&](const TSMode& mode) { return name == mode.m_name; });
}

// The words of the file names are taken, too.
std::string ModeName(std::string text)
{
    std::replace(text.begin(), text.end(), '_', '-');
    return CLI::detail::to_lower(text);
}

EStatus Fail(const char* reason)
{
    std::fprintf(stderr, "kelctl: the request could not be left: %s\n", reason);
    return EStatus::Negative;
}

// Both names, one of which may stand for the other.
std::string Names(const TSOptions& options, char separator)
{
    const std::string& process = options.m_process ? *options.m_process : *options.m_thread;
    const std::string& thread = options.m_thread ? *options.m_thread : *options.m_process;
    return process + separator + thread;
}

// Whether this user's requests are left where the device's agent does not look: on a plain host
// there is one store for the superuser and one for each other user, unless all are told of another.
bool IsOwnStore()
{
#ifdef KEL_HOST_PLATFORM
    return geteuid() != 0 && secure_getenv("KEL_HOST_VCONF_DIR") == nullptr;
#else
    return false;
#endif
}

EStatus RequestBySlot(TSOptions options, TSAwaited& awaited)
{
    const std::string value
        = Names(options, tools::kRequestValueSeparator) + (options.m_reboot ? "|1" : "|0");

    char* const process = OrNull(options.m_process);
    char* const thread = OrNull(options.m_thread);
    const int result
        = options.m_reboot ? Request_NDF(process, thread, 1) : Request_NDF(process, thread);
    if (result != 1) {
        std::fflush(stdout);
        return Fail("the key-value store has refused it");
    }
    std::printf("\n"); // the library's line has no end
    if (IsOwnStore()) {
        std::fprintf(stderr, "kelctl: nobody will collect it but an agent of this user: the "
                             "key-value store is the user's own\n");
    }
    if (value.size() > tools::kLongestRequestValue) {
        std::fprintf(stderr, "kelctl: the names are too long, and were cut with the restart\n");
    }
    awaited = {tools::kRequestKey, value.substr(0, tools::kLongestRequestValue)};
    return EStatus::Success;
}

int RequestByFile(TSOptions& options)
{
    char* const process = OrNull(options.m_process);
    char* const thread = OrNull(options.m_thread);
    const artifactSendFlag flag = Mode(options.m_mode).m_flag;
    if (options.m_path && options.m_reboot) {
        return Request_NDF(flag, process, thread, *options.m_path, 1);
    }
    if (options.m_path) {
        return Request_NDF(flag, process, thread, *options.m_path);
    }
    if (options.m_reboot) {
        return Request_NDF(flag, process, thread, 1);
    }
    return Request_NDF(flag, process, thread);
}

EStatus RequestByFile(TSOptions options, const std::string& directory, TSAwaited& awaited)
{
    if (options.m_path) { // the agent's current directory is another one
        std::error_code failure;
        options.m_path = std::filesystem::absolute(*options.m_path, failure).string();
        if (failure) {
            return Fail(("the current directory cannot be told: " + failure.message()).c_str());
        }
    }
    const std::string names = Names(options, tools::kRequestNameSeparator);
    const std::string path = directory + "/" + names + tools::kRequestNameSeparator
                             + tools::kRequestModes[Mode(options.m_mode).m_flag]
                             + tools::kRequestSuffix;

    if (RequestByFile(options) != 1) {
        std::fflush(stdout);
        if (!TSFileSystem::FileExists(directory)) {
            return Fail((directory + " is missing, which an agent makes").c_str());
        }
        return Fail(names.find('/') != std::string::npos ? "a name has a slash"
                                                         : "its file cannot be written");
    }
    if (path.size() > tools::kLongestRequestPath) {
        std::fprintf(stderr, "kelctl: the names are too long, and were cut with the mode\n");
    }
    awaited = {directory, path.substr(0, tools::kLongestRequestPath).substr(directory.size() + 1)};
    return EStatus::Success;
}

EStatus Report(const TSOptions& options)
{
    if (!options.m_process && !options.m_thread) {
        throw CLI::RequiredError("--process or --thread");
    }
    if (options.m_process && options.m_process->empty()) {
        throw CLI::ValidationError("--process", "no name");
    }
    if (options.m_thread && options.m_thread->empty()) {
        throw CLI::ValidationError("--thread", "no name");
    }
    if (options.m_path && options.m_path->empty()) {
        throw CLI::ValidationError("--path", "no file");
    }
    TCReportWait wait(options.m_stateDirectory, options.m_timeout);
    if (options.m_wait && !wait.Begin()) {
        return EStatus::Negative;
    }
    TSAwaited awaited;
    const EStatus left = options.m_slot ? RequestBySlot(options, awaited)
                                        : RequestByFile(options,
                                                        options.m_reboot ? tools::kRebootRequestDrop
                                                                         : tools::kRequestDrop,
                                                        awaited);
    return options.m_wait && left == EStatus::Success ? wait.Run(awaited) : left;
}

} // namespace

void AddReport(CLI::App& program, EStatus& status)
{
    CLI::App* const command = program.add_subcommand("report", "Ask for an issue report");
    const auto options = std::make_shared<TSOptions>();
    command->add_option("--process", options->m_process, "The process that it is about")
        ->type_name("NAME");
    command->add_option("--thread", options->m_thread, "The thread that it is about")
        ->type_name("NAME");
    CLI::Option* const mode
        = command->add_option("--mode", options->m_mode, "oqc-always, always, once-only or policy")
              ->type_name("MODE")
              ->transform(CLI::IsMember({"oqc-always", "always", "once-only", "policy"}, ModeName)
                              .description(""));
    CLI::Option* const path
        = command->add_option("--path", options->m_path, "A file that the report is to have")
              ->type_name("FILE");
    command->add_flag("--reboot", options->m_reboot, "Ask for a restart of the device, too");
    command->add_flag("--slot", options->m_slot, "Leave it in the key-value store, not as a file")
        ->excludes(mode)
        ->excludes(path);
    CLI::Option* const wait
        = command->add_flag("--wait", options->m_wait, "Wait for the report, and print its number");
    command->add_option("--timeout", options->m_timeout, "Wait for so many seconds at most")
        ->type_name("S")
        ->check(&CheckSeconds)
        ->needs(wait);
    command->add_option("--state-dir", options->m_stateDirectory, "The agent's directory")
        ->type_name("DIR")
        ->capture_default_str()
        ->needs(wait);
    command->callback([options, &status] { status = Report(*options); });
}

} // namespace ctl
} // namespace kel
