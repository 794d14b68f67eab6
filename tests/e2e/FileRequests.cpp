// An application in distress: files many requests, from several threads at once. Each has a thread
// name and an upload path of its own: "THREAD.NUMBER" and "/nowhere/PROCESS/THREAD.NUMBER".
//
//   file-requests PROCESS THREADS REQUESTS_PER_THREAD [MILLISECONDS_BETWEEN_THEM]

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <kel/KELIssueReport.h>

int main(int argumentCount, char** arguments)
{
    if (argumentCount != 4 && argumentCount != 5) {
        return 2;
    }
    std::string process = arguments[1];
    const int threads = std::atoi(arguments[2]);
    const int requests = std::atoi(arguments[3]);
    const std::chrono::milliseconds pause(argumentCount == 5 ? std::atoi(arguments[4]) : 0);

    std::atomic<bool> ok{true};
    std::vector<std::thread> running;
    for (int i = 0; i < threads; ++i) {
        running.emplace_back([&, i] {
            for (int j = 0; j < requests; ++j) {
                std::string name = std::to_string(i) + "." + std::to_string(j);
                const std::string path = "/nowhere/" + process + "/" + name;
                ok = Request_NDF(ONCE_ONLY, process.data(), name.data(), path) == 1 && ok;
                std::this_thread::sleep_for(pause);
            }
        });
    }
    for (std::thread& thread : running) {
        thread.join();
    }
    return ok ? EXIT_SUCCESS : EXIT_FAILURE;
}
