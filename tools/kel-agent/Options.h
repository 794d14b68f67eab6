#pragma once

#include <cstdint>
#include <string>

#include "reports/ReportStore.h"

namespace kel {
namespace agent {

/// What the command line says. Read by the C library's own means: a parser of templates made a
/// third of the program, for five options.
struct TSOptions
{
    enum class ENext { Serve, End, WrongUsage };

    std::string m_stateDirectory = "/var/lib/kel-agent";
    bool m_isOwnDirectory = true; // which the agent makes; one that the user names is there
    TCReportStore::TSLimits m_limits;
    bool m_test = false;

    /// Prints what the user asks for to standard output, and what is wrong to standard error.
    ///
    /// @return what to do next; End when all has been said.
    ENext Read(int argc, char** argv);

private:
    bool m_ReadOption(int option, const char* value);
};

} // namespace agent
} // namespace kel
