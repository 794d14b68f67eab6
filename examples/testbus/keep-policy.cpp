// An application that wants its policy in force whatever becomes of the agent: it sets the policy
// until an agent accepts it, and ends when it hears that the policy has changed. What it does when
// the agent is slow, wrong, late or dying is tested by the scripts beside it.

#include <exception>
#include <iostream>

#include <glib.h>

#include <kel/KELCallbacksProxy.h>
#include <kel/api.h>

namespace {

constexpr unsigned int kPause = 100; // in milliseconds

// -1 also for an answer that nobody can read, which is told by an exception.
int SetPolicy()
{
    try {
        return kel::api::GetControl()->SetPolicy("<policy/>");
    } catch (const std::exception& failure) {
        std::cout << "no answer that can be read: " << failure.what() << std::endl;
        return -1;
    }
}

// Called by the main loop, and not in a loop of its own: without the main loop nobody learns that
// there is another agent.
int TryPolicy(void*)
{
    const int answer = SetPolicy();
    std::cout << "the agent answers " << answer << std::endl;
    return answer == 0 ? G_SOURCE_REMOVE : G_SOURCE_CONTINUE;
}

} // namespace

int main()
{
    GMainLoop* const loop = g_main_loop_new(nullptr, FALSE);
    const auto callbacks = kel::TCCallbacksProxy::Instance();
    callbacks->SetPolicyUpdateCb([loop] {
        std::cout << "the policy has changed" << std::endl;
        g_main_loop_quit(loop);
    });
    g_timeout_add(kPause, &TryPolicy, nullptr);

    g_main_loop_run(loop);

    callbacks->ResetPolicyUpdateCb();
    g_main_loop_unref(loop);
}
