#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "support/WaitUntil.h"

namespace kel::test {

/// Another program, with pipes to its three standard streams. It dies with the thread that started
/// it (the kernel sees to that) and, together with its own children, with this object.
class ChildProcess
{
public:
    /// Added to the environment of this process.
    typedef std::map<std::string, std::string> TEnvironment;

    /// @param command      looked up in PATH; the arguments follow.
    /// @param environment  changes to this process's environment.
    explicit ChildProcess(const std::vector<std::string>& command,
                          const TEnvironment& environment = {});
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t Id() const { return m_id; }

    /// Writes to the child's standard input.
    void Write(const std::string& text);

    /// Ends the child's standard input.
    void CloseInput();

    /// What it has written so far.
    std::string Output() const;
    std::string ErrorOutput() const;

    /// Waits until its standard output contains the text.
    bool WaitForOutput(const std::string& text, std::chrono::milliseconds deadline = kDeadline);

    /// Waits for its end and the end of its output: the exit code, 128 + the signal that ended it,
    /// or nothing when it still runs at the deadline.
    std::optional<int> Wait(std::chrono::milliseconds deadline = kDeadline);

    /// Sends a signal to it alone.
    void Signal(int signal);

    /// Ends it and its children, and waits for it.
    void Kill();

private:
    void m_Read();
    void m_Take() const; // what is in the pipes; m_mutex is held
    bool m_Reap(bool block);

    pid_t m_id;
    int m_input;
    int m_stop; // readable: the reader shall end
    std::optional<int> m_exit;

    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    mutable int m_pipes[2] = {-1, -1}; // to read its output and errors; guarded by m_mutex
    mutable std::string m_output;      // guarded by m_mutex
    mutable std::string m_errorOutput; // guarded by m_mutex
    bool m_closed = false;             // no more output; guarded by m_mutex
    std::thread m_reader;
};

/// How often a text contains another.
size_t CountOf(const std::string& text, const std::string& part);

/// How a program that ran to its end has ended.
struct TSFinished
{
    std::optional<int> m_exit; // see ChildProcess::Wait()
    std::string m_output;
    std::string m_errorOutput;
};

/// Runs a program to its end, or ends it at the deadline.
TSFinished RunProgram(const std::vector<std::string>& command,
                      const ChildProcess::TEnvironment& environment = {},
                      const std::string& input = {},
                      std::chrono::milliseconds deadline = kDeadline);

} // namespace kel::test
