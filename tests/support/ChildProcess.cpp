#include "support/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

extern char** environ;

namespace kel::test {

namespace {

struct TSPipe
{
    TSPipe()
    {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) {
            throw std::runtime_error("pipe2 failed");
        }
        m_read = ends[0];
        m_write = ends[1];
    }

    int m_read;
    int m_write;
};

std::vector<std::string> MergedEnvironment(const ChildProcess::TEnvironment& changes)
{
    std::vector<std::string> merged;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text(*entry);
        if (changes.count(text.substr(0, text.find('='))) == 0) {
            merged.push_back(text);
        }
    }
    for (const auto& [name, value] : changes) {
        merged.push_back(name + "=" + value);
    }
    return merged;
}

std::vector<char*> Pointers(const std::vector<std::string>& strings)
{
    std::vector<char*> pointers;
    for (const std::string& text : strings) {
        pointers.push_back(const_cast<char*>(text.c_str()));
    }
    pointers.push_back(nullptr);
    return pointers;
}

// Between fork and exec of a process with threads: async-signal-safe calls only.
[[noreturn]] void Become(char* const* command, char* const* environment, int input, int output,
                         int errorOutput, pid_t parent)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) {
        _exit(127); // the parent was gone before it could be said
    }
    setpgid(0, 0);
    dup2(input, STDIN_FILENO);
    dup2(output, STDOUT_FILENO);
    dup2(errorOutput, STDERR_FILENO);
    execvpe(command[0], command, environment);
    _exit(127);
}

} // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& command, const TEnvironment& environment)
    : m_id(-1), m_input(-1), m_stop(eventfd(0, EFD_CLOEXEC))
{
    const std::vector<std::string> merged = MergedEnvironment(environment);
    const std::vector<char*> arguments = Pointers(command);
    const std::vector<char*> variables = Pointers(merged);
    const TSPipe input;
    const TSPipe output;
    const TSPipe errorOutput;

    const pid_t parent = getpid();
    m_id = fork();
    if (m_id == 0) {
        Become(arguments.data(), variables.data(), input.m_read, output.m_write,
               errorOutput.m_write, parent);
    }
    close(input.m_read);
    close(output.m_write);
    close(errorOutput.m_write);
    if (m_id < 0) {
        throw std::runtime_error("fork failed");
    }
    setpgid(m_id, m_id); // whoever comes first
    m_input = input.m_write;
    m_pipes[0] = output.m_read;
    m_pipes[1] = errorOutput.m_read;
    for (const int pipe : m_pipes) {
        fcntl(pipe, F_SETFL, O_NONBLOCK);
    }
    m_reader = std::thread(&ChildProcess::m_Read, this);
}

ChildProcess::~ChildProcess()
{
    Kill();
    const uint64_t one = 1;
    if (write(m_stop, &one, sizeof(one)) != sizeof(one)) {
        close(m_stop);
    }
    m_reader.join();
    CloseInput();
    close(m_stop);
}

void ChildProcess::Write(const std::string& text)
{
    // A child that has gone is no reason to die here.
    void (*const before)(int) = signal(SIGPIPE, SIG_IGN);
    size_t written = 0;
    while (written < text.size()) {
        const ssize_t step = write(m_input, text.data() + written, text.size() - written);
        if (step <= 0) {
            break;
        }
        written += static_cast<size_t>(step);
    }
    signal(SIGPIPE, before);
}

void ChildProcess::CloseInput()
{
    if (m_input >= 0) {
        close(m_input);
        m_input = -1;
    }
}

std::string ChildProcess::Output() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_Take();
    return m_output;
}

std::string ChildProcess::ErrorOutput() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_Take();
    return m_errorOutput;
}

bool ChildProcess::WaitForOutput(const std::string& text, std::chrono::milliseconds deadline)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    const auto found = [&] { return m_output.find(text) != std::string::npos; };
    m_changed.wait_for(lock, deadline, [&] { return found() || m_closed; });
    return found();
}

std::optional<int> ChildProcess::Wait(std::chrono::milliseconds deadline)
{
    const auto end = std::chrono::steady_clock::now() + deadline;
    if (!WaitUntil([this] { return m_Reap(false); }, deadline)) {
        return std::nullopt;
    }
    // Its own children may hold the pipes open for longer than this waits.
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait_until(lock, end, [this] { return m_closed; });
    return m_exit;
}

void ChildProcess::Signal(int signal)
{
    if (!m_exit) {
        kill(m_id, signal);
    }
}

void ChildProcess::Kill()
{
    kill(-m_id, SIGKILL);
    m_Reap(true);
}

void ChildProcess::m_Read()
{
    for (bool stop = false; !stop;) {
        pollfd sources[] = {{-1, POLLIN, 0}, {-1, POLLIN, 0}, {m_stop, POLLIN, 0}};
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            sources[0].fd = m_pipes[0];
            sources[1].fd = m_pipes[1];
        }
        if (sources[0].fd < 0 && sources[1].fd < 0) {
            break;
        }
        if (poll(sources, 3, -1) < 0) {
            continue;
        }
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_Take();
        stop = sources[0].revents == 0 && sources[1].revents == 0 && sources[2].revents != 0;
    }
    const std::lock_guard<std::mutex> lock(m_mutex);
    for (int& pipe : m_pipes) {
        if (pipe >= 0) {
            close(pipe);
            pipe = -1;
        }
    }
    m_closed = true;
    m_changed.notify_all();
}

void ChildProcess::m_Take() const
{
    constexpr size_t kPipe = 65536; // what one holds, see pipe(7): a writer that goes on has an end
    std::string* const texts[] = {&m_output, &m_errorOutput};
    for (int i = 0; i < 2; ++i) {
        char buffer[4096];
        ssize_t size = m_pipes[i] < 0 ? -1 : 1;
        for (size_t taken = 0; size > 0 && taken < kPipe; taken += sizeof(buffer)) {
            size = read(m_pipes[i], buffer, sizeof(buffer));
            if (size > 0) {
                texts[i]->append(buffer, static_cast<size_t>(size));
            } else if (size == 0 || (errno != EAGAIN && errno != EINTR)) {
                close(m_pipes[i]);
                m_pipes[i] = -1;
            }
        }
    }
    m_changed.notify_all();
}

bool ChildProcess::m_Reap(bool block)
{
    if (m_exit) {
        return true;
    }
    int status = 0;
    if (waitpid(m_id, &status, block ? 0 : WNOHANG) != m_id) {
        return false;
    }
    m_exit = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return true;
}

size_t CountOf(const std::string& text, const std::string& part)
{
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

TSFinished RunProgram(const std::vector<std::string>& command,
                      const ChildProcess::TEnvironment& environment, const std::string& input,
                      std::chrono::milliseconds deadline)
{
    ChildProcess child(command, environment);
    child.Write(input);
    child.CloseInput();
    const std::optional<int> exit = child.Wait(deadline);
    return {exit, child.Output(), child.ErrorOutput()};
}

} // namespace kel::test
