#include "Commands.h"

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "EndableOutput.h"
#include "common/KernelLog.h"
#include "common/Text.h"

namespace kel {
namespace ctl {

namespace {

constexpr int kPeriod = 1000; // ms between two looks

// The kernel's log has strangers' names in it. The backslash stays: dmesg writes escapes of its
// own.
std::string Text(const std::vector<std::string>& lines)
{
    std::string text;
    for (const std::string& line : lines) {
        text += tools::Printable(line, "\t\\") + '\n';
    }
    return text;
}

EStatus PrintOnce()
{
    tools::TSKernelLines read;
    const tools::TCOutcome outcome = tools::ReadKernelLog(read);
    if (read.m_lines.empty()) {
        std::fprintf(stderr, "kelctl: no line of the kernel log can be had%s%s\n",
                     outcome ? "" : ": ", outcome.Reason().c_str());
        return EStatus::Negative;
    }
    const std::string text = Text(read.m_lines);
    std::fwrite(text.data(), 1, text.size(), stdout);
    return EStatus::Success;
}

EStatus Follow()
{
    TCEndableOutput output;
    std::string known; // the reason that was told
    while (!output.Status()) {
        tools::TSKernelLines read;
        const tools::TCOutcome outcome = tools::ReadKernelLog(read);
        output.Print(Text(read.m_lines));
        output.Wait(0); // a signal of the terminal ends dmesg, too, and that is no news
        if (!output.Status() && !outcome && outcome.Reason() != known) {
            std::fprintf(stderr, "kelctl: the kernel log is not read: %s\n",
                         outcome.Reason().c_str());
        }
        known = outcome.Reason();
        output.Wait(kPeriod);
    }
    return *output.Status();
}

} // namespace

void AddKernelLog(CLI::App& program, EStatus& status)
{
    CLI::App* const command = program.add_subcommand("klog", "Print the kernel log");
    const auto follow = std::make_shared<bool>(false);
    command->add_flag("--follow", *follow, "Go on with the lines that are new");
    command->callback([follow, &status] { status = *follow ? Follow() : PrintOnce(); });
}

} // namespace ctl
} // namespace kel
