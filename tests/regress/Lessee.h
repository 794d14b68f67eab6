#pragma once

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <stdexcept>

#include <boost/filesystem.hpp>

namespace kel::test {

/// Another process with a lease on a file, which ends, and the lease with it, when the kernel tells
/// it that somebody opens the file: that is what SIGIO does to a process. Or it keeps the lease.
class Lessee
{
public:
    explicit Lessee(const boost::filesystem::path& path, bool keeps = false)
    {
        int channel[2];
        if (pipe2(channel, O_CLOEXEC) != 0) {
            throw std::runtime_error("no pipe");
        }
        m_child = fork();
        if (m_child == 0) {
            signal(SIGIO, keeps ? SIG_IGN : SIG_DFL);
            const int file = open(path.c_str(), O_RDWR | O_CLOEXEC);
            const char taken = fcntl(file, F_SETLEASE, F_WRLCK) == 0 ? 'y' : 'n';
            if (write(channel[1], &taken, 1) == 1) {
                pause(); // a signal that is ignored does not end it
            }
            _exit(1);
        }
        close(channel[1]);
        char taken = 'n';
        m_taken = read(channel[0], &taken, 1) == 1 && taken == 'y';
        close(channel[0]);
    }
    ~Lessee()
    {
        if (m_child > 0) {
            kill(m_child, SIGKILL);
            waitpid(m_child, nullptr, 0);
        }
    }
    Lessee(const Lessee&) = delete;
    Lessee& operator=(const Lessee&) = delete;

    bool HasLease() const { return m_taken; }

    /// The signal that has ended it.
    int End()
    {
        int status = 0;
        waitpid(m_child, &status, 0);
        m_child = -1;
        return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    }

private:
    pid_t m_child;
    bool m_taken;
};

} // namespace kel::test
