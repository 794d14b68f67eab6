#pragma once

#include <CLI/CLI.hpp>

#include "ExitStatus.h"

namespace kel {
namespace ctl {

/// What every command takes.
struct TSCommon
{
    bool m_test = false; // the test channel is meant
};

/// A subcommand adds itself to the program, in a source file of its own. When it is the one that
/// was called, it runs after parsing and sets the status; a failure is told in one line on
/// standard error. What it has left in standard output's buffer is written at the program's end.
void AddDoctor(CLI::App& program, const TSCommon& common, EStatus& status);
void AddKernelLog(CLI::App& program, EStatus& status);
void AddMonitor(CLI::App& program, const TSCommon& common, EStatus& status);
void AddPolicy(CLI::App& program, EStatus& status);
void AddProcessInfo(CLI::App& program, const TSCommon& common, EStatus& status);
void AddReplay(CLI::App& program, const TSCommon& common, EStatus& status);
void AddReport(CLI::App& program, EStatus& status);
void AddReports(CLI::App& program, EStatus& status);
void AddSetPolicy(CLI::App& program, const TSCommon& common, EStatus& status);
void AddStatus(CLI::App& program, const TSCommon& common, EStatus& status);
void AddTrace(CLI::App& program, const TSCommon& common, EStatus& status);

} // namespace ctl
} // namespace kel
