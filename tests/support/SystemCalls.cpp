#include "support/SystemCalls.h"

#include <fcntl.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>

namespace kel::test {

namespace fs = std::filesystem;

namespace {

constexpr int kSystemCall = SIGTRAP | 0x80; // see PTRACE_O_TRACESYSGOOD

size_t SleepsOf(pid_t process)
{
    size_t sleeps = 0;
    for (const auto& thread :
         fs::directory_iterator("/proc/" + std::to_string(process) + "/task")) {
        std::ifstream status(thread.path() / "status");
        for (std::string word; status >> word;) {
            size_t count = 0;
            sleeps += word == "voluntary_ctxt_switches:" && status >> count ? count : 0;
        }
    }
    return sleeps;
}

} // namespace

size_t CountSystemCalls(pid_t process, std::chrono::milliseconds time)
{
    std::map<pid_t, bool> inside; // of each thread: it is in a system call
    for (const auto& thread :
         fs::directory_iterator("/proc/" + std::to_string(process) + "/task")) {
        const pid_t id = std::stoi(thread.path().filename());
        if (ptrace(PTRACE_SEIZE, id, nullptr, PTRACE_O_TRACESYSGOOD) != 0
            || ptrace(PTRACE_INTERRUPT, id, nullptr, nullptr) != 0) {
            throw std::runtime_error("the agent cannot be traced");
        }
        inside[id] = true; // they sleep
    }
    size_t count = 0;
    const auto handle = [&](int options) {
        int status = 0;
        bool any = false;
        for (auto& [id, in] : inside) {
            if (waitpid(id, &status, options | __WALL) != id || !WIFSTOPPED(status)) {
                continue;
            }
            any = true;
            if (WSTOPSIG(status) == kSystemCall) {
                in = !in;
                count += in ? 1 : 0;
            }
            ptrace(PTRACE_SYSCALL, id, nullptr, nullptr);
        }
        return any;
    };
    handle(0); // the interruption
    count = 0;
    const auto end = std::chrono::steady_clock::now() + time;
    while (std::chrono::steady_clock::now() < end) {
        if (!handle(WNOHANG)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    for (const auto& [id, in] : inside) { // detached where they stop next
        ptrace(PTRACE_INTERRUPT, id, nullptr, nullptr);
        int status = 0;
        waitpid(id, &status, __WALL);
        ptrace(PTRACE_DETACH, id, nullptr, nullptr);
    }
    return count;
}

size_t CountSystemCallsOf(const std::vector<std::string>& command)
{
    std::vector<char*> arguments;
    for (const std::string& argument : command) {
        arguments.push_back(const_cast<char*>(argument.c_str()));
    }
    arguments.push_back(nullptr);
    const pid_t process = fork();
    if (process == 0) {
        const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(nowhere, STDOUT_FILENO);
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        execv(arguments[0], arguments.data());
        _exit(127);
    }
    size_t stops = 0;
    int status = 0;
    while (waitpid(process, &status, 0) == process && WIFSTOPPED(status)) {
        ptrace(PTRACE_SETOPTIONS, process, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
        stops += WSTOPSIG(status) == kSystemCall ? 1 : 0;
        ptrace(PTRACE_SYSCALL, process, nullptr, nullptr);
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        throw std::runtime_error(command[0] + " has failed, or cannot be traced");
    }
    return stops / 2; // where one begins, and where it ends
}

size_t CountSleeps(pid_t process, std::chrono::milliseconds time)
{
    const size_t before = SleepsOf(process);
    std::this_thread::sleep_for(time);
    return SleepsOf(process) - before;
}

} // namespace kel::test
