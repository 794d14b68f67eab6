#pragma once

#include <sched.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include <system_info.h>
#include <usb_device.h>
#include <vconf.h>

#include "support/Mount.h"
#include "support/Sandbox.h"

// What the tests of the host's platform share. They have the platform without the library.

namespace fs = std::filesystem;

struct TSFree
{
    void operator()(char* text) const { free(text); }
};

inline std::optional<std::string> Owned(char* text)
{
    const std::unique_ptr<char, TSFree> owned(text);
    return text != nullptr ? std::make_optional(std::string(text)) : std::nullopt;
}

inline void Write(const fs::path& file, const std::string& text)
{
    fs::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << text;
}

// The exit code of a child process that runs a function.
inline int InChild(const std::function<int()>& function)
{
    const pid_t child = fork();
    if (child == 0) {
        try {
            _exit(function());
        } catch (const std::exception& error) { // the tests that follow are not the child's
            fprintf(stderr, "%s\n", error.what());
            _exit(99);
        }
    }
    int status = -1;
    return waitpid(child, &status, 0) == child && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Ends being root; where there is no other user to become, the user of a namespace without users.
inline bool BecomeNobody()
{
    return setresuid(65534, 65534, 65534) == 0 || (unshare(CLONE_NEWUSER) == 0 && geteuid() != 0);
}

// Mounted file systems of memory, with an entry in sysfs that says where their "device" hangs.
class HostUsb : public kel::test::SandboxTest
{
protected:
    void SetUp() override { ASSERT_EQ(usb_device_init(), 0); }
    void TearDown() override
    {
        EXPECT_EQ(usb_device_fini(), 0);
        fs::remove_all("/tmp/devices");
    }

    void Mount(const fs::path& path, const fs::path& device)
    {
        m_mounted.emplace_back(path);
        fs::create_directories("/tmp/devices" / device);
        struct stat status;
        ASSERT_EQ(stat(path.c_str(), &status), 0);
        fs::create_symlink("/tmp/devices" / device, "/sys/dev/block/"
                                                        + std::to_string(major(status.st_dev)) + ":"
                                                        + std::to_string(minor(status.st_dev)));
    }

    static usb_device_list_h List(int filter = USB_DEVICE_CLASS_MASS_STORAGE)
    {
        usb_device_list_h list = nullptr;
        EXPECT_EQ(usb_device_get_device_list(filter, &list), 0);
        return list;
    }

    static std::string FirstMountPath(usb_device_list_h list)
    {
        usb_device_h device = nullptr;
        EXPECT_EQ(usb_device_list_get_first(list, &device), 0);
        return usb_device_get_mountpath(device);
    }

private:
    const kel::test::Mount m_block{"/sys/dev/block", "mode=755"};
    std::list<kel::test::Mount> m_mounted;
};
