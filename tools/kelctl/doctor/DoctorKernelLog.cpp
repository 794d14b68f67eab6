#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <thread>

#include "doctor/DoctorFiles.h"

namespace kel {
namespace ctl {

namespace {

typedef std::chrono::steady_clock TClock;

constexpr std::chrono::milliseconds kPatience(1000); // the agent's, too
constexpr std::chrono::milliseconds kMoment(1);
constexpr size_t kMostBytes = 4096; // the beginning tells whether there is something

// A child that says something, and is gone with this object. It is waited for no longer than a
// second, as what has nobody's time may not even end.
class TCChild
{
public:
    /// @param run  in the child, which has other threads' locks: nothing that takes one.
    explicit TCChild(const std::function<void()>& run);
    ~TCChild();
    TCChild(const TCChild&) = delete;
    TCChild& operator=(const TCChild&) = delete;

    /// What it writes to standard output, until it ends or there is enough.
    ///
    /// @param end  set when it has closed its output in time.
    std::string Read(bool& end);

    /// How it has ended; nothing when it has not in time.
    std::optional<int> Status();

private:
    const TClock::time_point m_end = TClock::now() + kPatience;
    tools::TCDescriptor m_output;
    pid_t m_id = -1;
};

TCChild::TCChild(const std::function<void()>& run)
{
    int channel[2];
    if (pipe2(channel, O_CLOEXEC) != 0) {
        return;
    }
    m_output.Reset(channel[0]);
    const tools::TCDescriptor input(channel[1]);
    m_id = fork();
    setpgid(m_id, m_id); // here and there: whoever comes first
    if (m_id == 0) {
        dup2(input.Get(), STDOUT_FILENO);
        dup2(input.Get(), STDERR_FILENO);
        run();
        _exit(1);
    }
}

TCChild::~TCChild()
{
    if (m_id > 0) {
        kill(-m_id, SIGKILL); // and what it has started
        waitpid(m_id, nullptr, WNOHANG);
    }
}

std::string TCChild::Read(bool& end)
{
    std::string text;
    char block[1024];
    end = false;
    while (text.size() < kMostBytes && !end) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(m_end - TClock::now());
        pollfd output = {m_output.Get(), POLLIN, 0};
        if (left.count() <= 0 || poll(&output, 1, static_cast<int>(left.count())) == 0) {
            return text;
        }
        const ssize_t size = read(m_output.Get(), block, sizeof(block));
        text.append(block, size > 0 ? static_cast<size_t>(size) : 0);
        end = size == 0 || (size < 0 && errno != EINTR);
    }
    return text;
}

std::optional<int> TCChild::Status()
{
    int status = 0;
    while (m_id > 0) {
        if (waitpid(m_id, &status, WNOHANG) == m_id) {
            m_id = -1;
            return status;
        }
        if (TClock::now() >= m_end) {
            return std::nullopt;
        }
        std::this_thread::sleep_for(kMoment);
    }
    return std::nullopt;
}

std::string FirstLine(const std::string& text) { return text.substr(0, text.find('\n')); }

constexpr char kNoDmesg[] = "reports have no lines of the kernel log";
constexpr char kShell[] = "/bin/sh";
constexpr int kNotFound = 127; // by the shell

} // namespace

void CheckKernelLog(TFindings& findings)
{
    const TCCheck check("kernel log", findings);
    TCChild dmesg([] { execl(kShell, kShell, "-c", "exec dmesg", static_cast<char*>(nullptr)); });
    bool end = false;
    const std::string text = dmesg.Read(end);
    const std::optional<int> status = end ? dmesg.Status() : std::nullopt;
    const bool failed = status && (!WIFEXITED(*status) || WEXITSTATUS(*status) != 0);
    if (failed && WIFEXITED(*status) && WEXITSTATUS(*status) == kNotFound) {
        check.Warn(std::string("there is no dmesg: ") + kNoDmesg,
                   "install the package that has it: util-linux, or busybox");
    } else if (failed && geteuid() != 0) {
        check.OnlyRoot("whether the kernel log can be read: " + FirstLine(text));
    } else if (failed) {
        check.Warn("dmesg fails: " + FirstLine(text) + ": " + kNoDmesg,
                   "in a container the host decides; else look at sysctl kernel.dmesg_restrict");
    } else if (text.empty() && !end) {
        check.Warn("dmesg gives no line within " + std::to_string(kPatience.count())
                       + " ms: reports have the kernel log late",
                   "run dmesg, and see what it waits for");
    } else if (text.empty()) {
        check.Warn(std::string("dmesg gives no line: ") + kNoDmesg,
                   "the kernel's log was cleared, or is not this machine's");
    } else {
        check.Good("dmesg gives the lines of the kernel log");
    }
}

// What reads the kernel log for a report has the time that nobody else wants.
void CheckIdleClass(TFindings& findings)
{
    const TCCheck check("idle class", findings);
    const TClock::time_point start = TClock::now();
    TCChild idler([] {
        const sched_param parameters = {};
        sched_setscheduler(0, SCHED_IDLE, &parameters);
        const bool isIdle = sched_getscheduler(0) == SCHED_IDLE;
        sched_yield();
        const char* const word = isIdle ? "idle" : "busy";
        _exit(write(STDOUT_FILENO, word, std::strlen(word)) < 0 ? 1 : 0);
    });
    bool end = false;
    const std::string text = idler.Read(end);
    const auto took
        = std::chrono::duration_cast<std::chrono::milliseconds>(TClock::now() - start).count();
    if (text == "busy") {
        check.Warn("the system does not let a thread into the idle class: reading the kernel log "
                   "takes time from other programs",
                   "does a filter of system calls forbid sched_setscheduler?");
    } else if (text != "idle") {
        check.Warn("the machine is so busy that a thread of the idle class does not run within "
                       + std::to_string(kPatience.count())
                       + " ms: reports have the kernel log late",
                   "see what keeps the processor: top");
    } else {
        check.Good("a thread of the idle class runs within " + std::to_string(took) + " ms");
    }
}

} // namespace ctl
} // namespace kel
