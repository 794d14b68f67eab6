// Resolves policy and mode, on a platform without a USB service.

#include <dlfcn.h>

#include <cstdio>

#include <kel/KELDirsManager.h>

int main()
{
    if (dlsym(RTLD_DEFAULT, "usb_device_init") != nullptr) {
        fprintf(stderr, "this platform has a USB service\n");
        return 1;
    }
    kel::TCDirsManager::Initialize();
    return 0;
}
