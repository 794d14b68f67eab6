#include "Family.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

namespace kel {
namespace testbus {

namespace {

constexpr std::chrono::seconds kPatience(10); // with the command, which is asked to end
constexpr std::chrono::seconds kEndTime(5);   // for all that is left then
constexpr std::chrono::milliseconds kTick(10);
constexpr int kNotFound = 127; // as shells tell
constexpr int kNotStarted = 126;

sigset_t Awaited()
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGCHLD, SIGHUP, SIGINT, SIGQUIT, SIGTERM}) {
        sigaddset(&signals, signal);
    }
    return signals;
}

void Check(int result, const char* what)
{
    if (result < 0) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

int ExitStatus(int status)
{
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

} // namespace

TCFamily::TCFamily() : m_isImpatient(false)
{
    // Ignored ones, as behind nohup, stay so. But for this one, whose end of a child we wait for.
    std::signal(SIGCHLD, SIG_DFL);
    const sigset_t awaited = Awaited();
    m_signals.Reset(signalfd(-1, &awaited, SFD_CLOEXEC));
    Check(m_signals.Get(), "waiting for signals");
    prctl(PR_SET_CHILD_SUBREAPER,
          1); // which an emulator may not know: orphans are on their own then
    Check(sigprocmask(SIG_BLOCK, &awaited, &m_earlier), "blocking signals");
}

TCFamily::~TCFamily()
{
    const TClock::time_point deadline = TClock::now() + kEndTime;
    std::set<pid_t> told;
    while (m_Reap()) {
        const bool isLate = TClock::now() > deadline;
        for (const pid_t child : m_Children()) {
            // Also those that have lost their parent in the meantime.
            if (isLate || told.insert(child).second) {
                kill(child, isLate ? SIGKILL : SIGTERM);
                kill(child, SIGCONT);
            }
        }
        std::this_thread::sleep_for(kTick);
    }
}

pid_t TCFamily::Start(EGroup group, const std::function<void()>& run)
{
    const pid_t parent = getpid();
    const pid_t child = fork();
    Check(child, "starting a process");
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) { // gone before
            _exit(EXIT_FAILURE);
        }
        if (group == EGroup::Own) {
            setpgid(0, 0);
        }
        sigprocmask(SIG_SETMASK, &m_earlier, nullptr);
        try { // what is thrown is not for the frames of the parent's
            run();
        } catch (const std::exception& failure) {
            std::fprintf(stderr, "kel-testbus: %s\n", failure.what());
        }
        _exit(EXIT_FAILURE);
    }
    m_started.insert(child);
    return child;
}

void TCFamily::WaitReadable(int descriptor)
{
    pollfd sources[] = {{descriptor, POLLIN, 0}, {m_signals.Get(), POLLIN, 0}};
    while (sources[0].revents == 0) {
        poll(sources, 2, -1);
        if (sources[1].revents != 0) {
            const int signal = m_NextSignal(0).m_number;
            if (signal == SIGCHLD) {
                m_Reap();
            } else if (signal != 0) {
                throw TSInterrupted{signal};
            }
        }
    }
}

int TCFamily::Wait(pid_t process, const std::function<void(pid_t process, int status)>& onOther)
{
    for (;;) {
        m_Reap();
        const std::map<pid_t, int> ended = std::exchange(m_ended, {});
        const auto found = ended.find(process);
        if (found != ended.end()) {
            return ExitStatus(found->second);
        }
        for (const auto& [other, status] : ended) {
            onOther(other, status);
        }
        m_HandOn(process);
    }
}

// Waits for the next signal, of which an end is one, and hands it on unless it is that.
void TCFamily::m_HandOn(pid_t process)
{
    using std::chrono::milliseconds;
    const auto left = std::chrono::duration_cast<milliseconds>(m_patience - TClock::now());
    const int timeout = left.count() > 0 ? static_cast<int>(left.count()) + 1 : 0;
    const TSSignal signal = m_NextSignal(m_isImpatient ? timeout : -1);
    if (signal.m_number == SIGCHLD) {
        return;
    }
    if (signal.m_isTyped) {
        return; // the process has it from the terminal, and may want to live on, as a shell does
    }
    if (m_isImpatient) { // it has been told before
        kill(process, SIGKILL);
    } else if (signal.m_number != 0) {
        kill(process, signal.m_number);
        m_isImpatient = true;
    }
    m_patience = TClock::now() + kPatience;
}

// No number when none has come in time.
TCFamily::TSSignal TCFamily::m_NextSignal(int timeout)
{
    pollfd source{m_signals.Get(), POLLIN, 0};
    signalfd_siginfo information;
    if (poll(&source, 1, timeout) <= 0
        || read(m_signals.Get(), &information, sizeof(information)) < 0) {
        return {0, false};
    }
    const int signal = static_cast<int>(information.ssi_signo);
    return {signal, information.ssi_code == SI_KERNEL && (signal == SIGINT || signal == SIGQUIT)};
}

// Whether there still is a child.
bool TCFamily::m_Reap()
{
    for (;;) {
        int status = 0;
        const pid_t ended = waitpid(-1, &status, WNOHANG);
        if (ended <= 0) {
            return ended == 0 || errno != ECHILD;
        }
        if (m_started.erase(ended) != 0) {
            m_ended[ended] = status;
        }
    }
}

std::vector<pid_t> TCFamily::m_Children() const
{
    std::vector<pid_t> children;
    const tools::TCDescriptor all(open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    tools::ForEachName(all.Get(), [&](const std::string& name, unsigned char) {
        std::string line;
        std::ifstream status("/proc/" + name + "/stat");
        std::getline(status, line);
        const size_t behind = line.rfind(") "); // the program's name may hold anything
        char state = 0;
        int parent = 0;
        if (behind != std::string::npos
            && std::sscanf(line.c_str() + behind, ") %c %d", &state, &parent) == 2
            && parent == getpid()) {
            children.push_back(static_cast<pid_t>(std::atoi(name.c_str())));
        }
        return true;
    });
    return children;
}

void BecomeProgram(const std::vector<std::string>& command)
{
    std::vector<char*> words;
    words.reserve(command.size() + 1);
    for (const std::string& word : command) {
        words.push_back(const_cast<char*>(word.c_str()));
    }
    words.push_back(nullptr);
    execvp(words[0], words.data());
    const int fault = errno;
    std::fprintf(stderr, "kel-testbus: %s: %s\n", words[0], std::strerror(fault));
    _exit(fault == ENOENT ? kNotFound : kNotStarted);
}

} // namespace testbus
} // namespace kel
