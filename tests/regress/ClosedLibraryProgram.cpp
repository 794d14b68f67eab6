// Loads the library by itself, as a plugin host does, uses the callbacks object, closes the
// library, and runs its main loop until standard input has something to say.

#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>

#include <boost/shared_ptr.hpp>

#include <gio/gio.h>

#include <kel/ICallbacks.h>

int main(int argumentCount, char** arguments)
{
    void* const library
        = argumentCount == 2 ? dlopen(arguments[1], RTLD_NOW | RTLD_LOCAL) : nullptr;
    if (library == nullptr) {
        std::fprintf(stderr, "%s\n", dlerror());
        return 1;
    }
    const auto instance = reinterpret_cast<boost::shared_ptr<kel::ICallbacks> (*)()>(
        dlsym(library, "_ZN3kel16TCCallbacksProxy8InstanceEv"));
    if (instance == nullptr || !instance()) {
        return 2;
    }
    dlclose(library);
    std::puts("closed");
    std::fflush(stdout);

    bool isOver = false;
    GIOChannel* const input = g_io_channel_unix_new(STDIN_FILENO);
    g_io_add_watch(
        input, static_cast<GIOCondition>(G_IO_IN | G_IO_HUP),
        [](GIOChannel*, GIOCondition, gpointer over) -> gboolean {
            *static_cast<bool*>(over) = true;
            return G_SOURCE_REMOVE;
        },
        &isOver);
    while (!isOver) {
        g_main_context_iteration(nullptr, TRUE);
    }
    g_io_channel_unref(input);
    return 0;
}
