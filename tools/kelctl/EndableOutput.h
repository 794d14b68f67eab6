#pragma once

#include <optional>
#include <string>

#include "ExitStatus.h"
#include "common/Files.h"

namespace kel {
namespace ctl {

/// Standard output of a command that goes on until a signal comes, or until nobody reads what it
/// prints. SIGINT and SIGTERM make a descriptor readable, and so come when it suits, also while a
/// reader has stopped. There is one at a time, for one thread.
class TCEndableOutput
{
public:
    /// @param bySignals  whether signals end it so; otherwise they end the program, as ever.
    explicit TCEndableOutput(bool bySignals = true);
    ~TCEndableOutput();
    TCEndableOutput(const TCEndableOutput&) = delete;
    TCEndableOutput& operator=(const TCEndableOutput&) = delete;

    /// Readable as soon as a signal has come.
    int Signals() const { return m_signals.Get(); }

    /// What has ended it, if anything.
    const std::optional<EStatus>& Status() const { return m_status; }

    /// Prints all of a text. Where it cannot be written, a line on standard error tells why.
    void Print(const std::string& text);

    /// Waits for a signal or the reader's end for so many milliseconds; negative for without end.
    void Wait(int time) { m_Wait(0, time); }

private:
    bool m_Wait(short output, int time);

    tools::TCDescriptor m_signals;
    std::optional<EStatus> m_status;
};

} // namespace ctl
} // namespace kel
