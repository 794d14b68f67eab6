#pragma once

#include <sys/types.h>

#include "common/Files.h"
#include "reports/ArtefactReader.h"

namespace kel {
namespace agent {

/// Starts readers of artefacts, from a process of its own. That process is made while the agent is
/// still small, and stays so: fork() copies the page tables of all that a process has, which would
/// take longer than to read most artefacts, the longer the larger a message a stranger has sent.
///
/// A reader ends by itself, and with that process, which ends with this object or with the thread
/// that has started it. Nobody waits for either.
///
/// Threads: one at a time.
class TCReaderServer
{
public:
    /// To be made before any thread and before anything large.
    TCReaderServer();
    ~TCReaderServer();
    TCReaderServer(const TCReaderServer&) = delete;
    TCReaderServer& operator=(const TCReaderServer&) = delete;

    /// Starts a reader. When the process that does so was killed there is a line in the log, and
    /// another one is started.
    ///
    /// @return a socket with what the reader says, hung up when the reader has ended, or not
    ///         started; none, with errno set, when it cannot be asked for.
    tools::TCDescriptor Start(const TSReading& reading);

private:
    bool m_Launch();
    void m_End();
    bool m_Send(const TSReading& reading, int socket) const;

    tools::TCDescriptor m_socket;
    pid_t m_id = -1;
};

} // namespace agent
} // namespace kel
