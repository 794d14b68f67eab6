// A program that loads the library by itself, as a plugin host does, and lets go of it again.

#include "LoadAndExitTrace.h"

#include <dlfcn.h>

namespace {

void RunAtDeactivation() { Trace("function at deactivation"); }

} // namespace

int main(int argumentCount, char** arguments)
{
    for (int round = 0; argumentCount == 2 && round < 2; ++round) {
        void* const library = dlopen(arguments[1], RTLD_NOW | RTLD_LOCAL);
        if (library == nullptr) {
            Trace(dlerror());
            return 1;
        }
        const auto registerFunction = reinterpret_cast<void (*)(void (*)())>(
            dlsym(library, "_ZN3kel13TCDeactivator12RegisterDBUSEPFvvE"));
        if (registerFunction == nullptr) {
            Trace(dlerror());
            return 2;
        }
        registerFunction(&RunAtDeactivation);
        Trace("closing");
        dlclose(library);
        Trace(dlopen(arguments[1], RTLD_NOW | RTLD_NOLOAD) == nullptr ? "unloaded" : "stays");
    }
    return 0;
}
