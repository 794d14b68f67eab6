// The smallest application that hears from the agent: waits until the policy has changed. With a
// policy as its argument it sets that one first, and hears of it like everybody else.

#include <iostream>

#include <glib.h>

#include <kel/KELCallbacksProxy.h>
#include <kel/api.h>

int main(int argc, char** argv)
{
    GMainLoop* const loop = g_main_loop_new(nullptr, FALSE);
    const auto callbacks = kel::TCCallbacksProxy::Instance();
    callbacks->SetPolicyUpdateCb([loop] {
        std::cout << "the policy has changed" << std::endl;
        g_main_loop_quit(loop);
    });

    if (argc > 1 && kel::api::GetControl()->SetPolicy(argv[1]) != 0) {
        std::cerr << "the agent has not accepted the policy\n";
        return 1;
    }

    // The agent's events arrive in the default main context.
    g_main_loop_run(loop);

    callbacks->ResetPolicyUpdateCb();
    g_main_loop_unref(loop);
}
