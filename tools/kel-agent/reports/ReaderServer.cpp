#include "reports/ReaderServer.h"

#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <utility>

namespace kel {
namespace agent {

using tools::TCDescriptor;

namespace {

constexpr char kName[] = "kel-agent-read";
constexpr int kServersSocket = 0;

// A message with one descriptor.
class TCMessage
{
public:
    explicit TCMessage(TSReading& reading) : m_part{&reading, sizeof(reading)}
    {
        m_header.msg_iov = &m_part;
        m_header.msg_iovlen = 1;
        m_header.msg_control = m_control;
        m_header.msg_controllen = sizeof(m_control);
    }

    bool Send(int socket, int descriptor)
    {
        cmsghdr* const rights = CMSG_FIRSTHDR(&m_header);
        rights->cmsg_level = SOL_SOCKET;
        rights->cmsg_type = SCM_RIGHTS;
        rights->cmsg_len = CMSG_LEN(sizeof(descriptor));
        std::memcpy(CMSG_DATA(rights), &descriptor, sizeof(descriptor));
        return sendmsg(socket, &m_header, MSG_NOSIGNAL | MSG_DONTWAIT) >= 0;
    }

    // Negative when there are no more.
    int Receive(int socket)
    {
        ssize_t n = 0;
        do {
            n = recvmsg(socket, &m_header, 0);
        } while (n < 0 && errno == EINTR);
        const cmsghdr* const rights
            = n == static_cast<ssize_t>(m_part.iov_len) ? CMSG_FIRSTHDR(&m_header) : nullptr;
        int descriptor = -1;
        if (rights != nullptr) {
            std::memcpy(&descriptor, CMSG_DATA(rights), sizeof(descriptor));
        }
        return descriptor;
    }

private:
    msghdr m_header = {};
    iovec m_part;
    alignas(cmsghdr) char m_control[CMSG_SPACE(sizeof(int))] = {};
};

// From here on to the end of the room all is for the process that starts readers, and for these. It
// may have one of the threads that the agent has, so that nothing in it may take a lock or reserve
// memory.

void CloseAllBut(int descriptor)
{
    dup2(descriptor, kServersSocket);
#ifdef SYS_close_range
    if (syscall(SYS_close_range, kServersSocket + 1U, ~0U, 0U) == 0) {
        return;
    }
#endif
    rlimit files = {};
    getrlimit(RLIMIT_NOFILE, &files);
    for (rlim_t file = kServersSocket + 1; file < files.rlim_cur; ++file) {
        close(static_cast<int>(file));
    }
}

void HandleSignals(sighandler_t handler)
{
    struct sigaction action = {};
    action.sa_handler = handler;
    for (int signal = 1; signal < NSIG; ++signal) {
        sigaction(signal, &action, nullptr);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

void StartReader(const TSReading& reading, int socket)
{
    const pid_t server = getpid();
    const pid_t reader = fork();
    if (reader == 0) {
        HandleSignals(SIG_DFL);
        dup2(socket, kReadersSocket); // in place of the server's
        close(socket);
        BeReader(reading, server);
    }
    if (reader < 0) {
        const TSFrame failed = {TSFrame::Failed, static_cast<uint32_t>(errno), 0};
        send(socket, &failed, sizeof(failed), MSG_NOSIGNAL | MSG_DONTWAIT);
    }
    close(socket);
}

// Until the agent has gone. A signal that a terminal sends to all of the agent's processes must not
// end it earlier: the agent finishes the report under way. Nobody waits for readers, so that
// SIGCHLD is ignored as well.
[[noreturn]] void BeServer(int socket, pid_t agent)
{
    HandleSignals(SIG_IGN);
    CloseAllBut(socket);
    prctl(PR_SET_NAME, kName, 0, 0, 0);
    prctl(PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0);
    if (getppid() != agent) {
        _exit(1);
    }
    static TSReading reading;
    for (;;) {
        const int readers = TCMessage(reading).Receive(kServersSocket);
        if (readers < 0) {
            _exit(0);
        }
        StartReader(reading, readers);
    }
}

} // namespace

TCReaderServer::TCReaderServer() { m_Launch(); }

TCReaderServer::~TCReaderServer() { m_End(); }

TCDescriptor TCReaderServer::Start(const TSReading& reading)
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        return TCDescriptor();
    }
    TCDescriptor ours(ends[0]);
    const TCDescriptor readers(ends[1]);
    if (!m_Send(reading, readers.Get())) {
        if (errno != EPIPE && errno != ECONNRESET && errno != EBADF) {
            return TCDescriptor();
        }
        std::fprintf(stderr, "kel-agent: the process that starts readers of artefacts has ended, "
                             "another one is started\n");
        m_End();
        if (!m_Launch() || !m_Send(reading, readers.Get())) {
            return TCDescriptor();
        }
    }
    return ours;
}

// False with errno set when it cannot be.
bool TCReaderServer::m_Launch()
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
        return false;
    }
    TCDescriptor ours(ends[0]);
    const TCDescriptor servers(ends[1]);
    // No handler of the agent's runs in the other process.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    const pid_t agent = getpid();
    m_id = fork();
    if (m_id == 0) {
        BeServer(servers.Get(), agent);
    }
    const int error = errno;
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (m_id > 0) {
        m_socket = std::move(ours);
    }
    errno = error;
    return m_id > 0;
}

void TCReaderServer::m_End()
{
    m_socket.Reset();
    if (m_id > 0) {
        kill(m_id, SIGKILL); // it has the agent's user
        waitpid(m_id, nullptr, 0);
        m_id = -1;
    }
}

bool TCReaderServer::m_Send(const TSReading& reading, int socket) const
{
    TSReading copy = reading;
    return TCMessage(copy).Send(m_socket.Get(), socket);
}

} // namespace agent
} // namespace kel
