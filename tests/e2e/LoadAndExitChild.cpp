// A user's program that exits in the ways its first argument names, while it uses the library.

#include "LoadAndExitTrace.h"

#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

#include <glib.h>

#include <kel/KELControlProxy.h>
#include <kel/KELDbusClient.h>
#include <kel/KELDeactivator.h>
#include <kel/KELDebug.h>
#include <kel/api.h>

namespace {

typedef std::vector<unsigned char> TBytes;

// A flag that one thread raises and others wait for.
class TCEvent
{
public:
    void Raise()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_raised = true;
        m_changed.notify_all();
    }

    void Wait()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [this] { return m_raised; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_raised = false;
};

// Never freed: threads and handlers use them until the process is gone.
TCEvent& deactivating = *new TCEvent;
TCEvent& inCallback = *new TCEvent;

class TCUser : public kel::TIDestroyCallback
{
public:
    void OnDestroy() override
    {
        Trace("user at deactivation");
        deactivating.Raise();
    }
};

void RegisterUser()
{
    static TCUser& user = *new TCUser;
    kel::TCDeactivator::RegisterUser(user);
}

// What the functions at deactivation find: the log, the provider and the holders as ever.
void UseTheLibraryAtDeactivation()
{
    kel::TCDebug::Assert("at deactivation", 1);
    const auto client = kel::TCDbusClientProvider::Get(false);
    Trace(client ? "a client at deactivation" : "no client at deactivation");
    kel::TCControlProxy::Destroy();
    Trace(kel::TCControlProxy::Instance() ? "still a control object" : "no control object");
}

int ReturnFromMain()
{
    RegisterUser();
    kel::TCDeactivator::RegisterDBUS(&UseTheLibraryAtDeactivation);
    kel::TCDebug::m_instance.EnableStdoutLog(true);
    return 3;
}

// The first use of all, when exit has begun.
int UseFirstAtExit()
{
    RegisterUser();
    atexit([] {
        const auto control = kel::api::GetControl();
        Trace(control ? "atexit: a control object" : "atexit: none");
        Trace("atexit: answer " + std::to_string(control->SetPolicy("policy")));
    });
    return 4;
}

void ExitInAnotherThread(int code)
{
    std::thread([code] { exit(code); }).detach();
}

// The main thread waits for an agent that never answers.
int ExitDuringSend()
{
    RegisterUser();
    const auto control = kel::api::GetControl();
    std::thread([] {
        std::string line;
        while (line.empty() || line.back() != '\n') { // the test says when the call is there
            char byte = 0;
            if (read(STDIN_FILENO, &byte, 1) != 1) {
                break;
            }
            line += byte;
        }
        exit(5);
    }).detach();
    Trace("sending");
    Trace("answer " + std::to_string(control->SetPolicy("policy")));
    return 100;
}

// Threads that never stop calling the library.
int ExitUnderLoad()
{
    RegisterUser();
    static std::atomic<int>& rounds = *new std::atomic<int>(0);
    const std::function<void()> uses[] = {
        [] {
            if (const auto control = kel::api::GetControl()) {
                control->SetPolicy("policy");
            }
        },
        [] { kel::TCDbusClientProvider::Get(true); },
        [] {
            static TCUser& user = *new TCUser;
            kel::TCDeactivator::UnregisterUser(user);
            kel::TCDeactivator::RegisterUser(user);
        },
        [] { kel::TCDebug::Assert("under load", 2); },
    };
    for (const auto& use : uses) {
        std::thread([use] {
            for (;;) {
                use();
                ++rounds;
            }
        }).detach();
    }
    std::thread([] {
        while (rounds < 200) {
            std::this_thread::yield();
        }
        exit(6);
    }).detach();
    for (;;) {
        uses[0]();
    }
}

// Runs the main context in the main thread, with a callback for type 2. The control object alone
// holds the client, and the library alone the control object: exit ends both.
int RunHost(const std::function<bool(const TBytes&, TBytes&)>& callback)
{
    RegisterUser();
    if (kel::api::GetControl()) {
        kel::TCDbusClientProvider::Get(false)->SetCallback(2, callback);
    }
    GMainLoop* const loop = g_main_loop_new(nullptr, FALSE);
    g_main_loop_run(loop);
    return 101;
}

// The main thread is inside a callback, and asks for the control object once exit has begun.
int ExitDuringCallback()
{
    std::thread([] {
        inCallback.Wait();
        exit(7);
    }).detach();
    return RunHost([](const TBytes&, TBytes&) {
        Trace("in the callback");
        inCallback.Raise();
        deactivating.Wait();
        Trace(kel::api::GetControl() == nullptr ? "no control object" : "a control object");
        Trace("leaving the callback");
        return true;
    });
}

int ExitFromCallback()
{
    return RunHost([](const TBytes&, TBytes&) -> bool {
        Trace("in the callback");
        exit(8);
    });
}

int ExitWhileTheLoopRuns()
{
    ExitInAnotherThread(9);
    return RunHost([](const TBytes&, TBytes&) { return true; });
}

} // namespace

int main(int argumentCount, char** arguments)
{
    const std::map<std::string, int (*)()> ways{
        {"return-from-main", &ReturnFromMain},
        {"use-first-at-exit", &UseFirstAtExit},
        {"exit-during-send", &ExitDuringSend},
        {"exit-under-load", &ExitUnderLoad},
        {"exit-during-callback", &ExitDuringCallback},
        {"exit-from-callback", &ExitFromCallback},
        {"exit-while-the-loop-runs", &ExitWhileTheLoopRuns},
    };
    const auto way = ways.find(argumentCount == 2 ? arguments[1] : "");
    return way == ways.end() ? 127 : way->second();
}
