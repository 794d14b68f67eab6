#include "support/Stranger.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <stdexcept>

namespace kel::test {

Stranger::Stranger(const std::function<void()>& action, bool forEver, uid_t user)
{
    int channel[2];
    if (pipe2(channel, O_CLOEXEC) != 0) {
        throw std::runtime_error("no pipe");
    }
    m_child = fork();
    if (m_child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (setgroups(0, nullptr) == 0 && setresgid(user, user, user) == 0) {
            static_cast<void>(setresuid(user, user, user) == 0);
        }
        umask(0);
        action();
        if (write(channel[1], "", 1) != 1) {
            _exit(1);
        }
        while (forEver) {
            action();
        }
        for (;;) {
            pause();
        }
    }
    close(channel[1]);
    char done = 0;
    const ssize_t size = read(channel[0], &done, 1);
    close(channel[0]);
    if (size != 1) {
        throw std::runtime_error("the stranger has ended");
    }
}

Stranger::~Stranger()
{
    kill(m_child, SIGKILL);
    waitpid(m_child, nullptr, 0);
}

} // namespace kel::test
