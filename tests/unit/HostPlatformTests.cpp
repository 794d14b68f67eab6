#include <sys/mount.h>
#include <sys/utsname.h>

#include <set>
#include <vector>

#include "HostPlatformTests.h"

// The stand-ins for the device's functions, as a program on a plain host meets them.

namespace {

class HostVconf : public kel::test::SandboxTest
{
protected:
    void SetUp() override
    {
        fs::remove_all(m_root);
        fs::remove_all(m_nobodys);
        setenv("KEL_HOST_VCONF_DIR", m_root.c_str(), 1);
    }
    void TearDown() override
    {
        unsetenv("KEL_HOST_VCONF_DIR");
        fs::remove_all(m_root);
        fs::remove_all(m_nobodys);
    }

    static std::optional<std::string> Get(const std::string& key)
    {
        return Owned(vconf_get_str(key.c_str()));
    }
    static int Set(const std::string& key, const std::string& value)
    {
        return vconf_set_str(key.c_str(), value.c_str());
    }
    // All files of the store, below its root.
    std::set<std::string> Files() const
    {
        std::set<std::string> files;
        if (fs::exists(m_root)) {
            for (const auto& entry : fs::recursive_directory_iterator(m_root)) {
                if (!entry.is_directory()) {
                    files.insert(fs::relative(entry, m_root));
                }
            }
        }
        return files;
    }

    const fs::path m_root = "/tmp/store";
    const fs::path m_nobodys = "/tmp/kel-vconf-65534";
};

TEST_F(HostVconf, AKeyKeepsItsLastValue)
{
    EXPECT_EQ(Get("db/key"), std::nullopt);

    EXPECT_EQ(Set("db/key", "a longer value"), 0);
    EXPECT_EQ(Get("db/key"), "a longer value");

    EXPECT_EQ(Set("db/key", "%s\n\xff"), 0);
    EXPECT_EQ(Get("db/key"), "%s\n\xff");

    EXPECT_EQ(Set("db/key", ""), 0);
    EXPECT_EQ(Get("db/key"), "");
}

TEST_F(HostVconf, EveryKeyIsAFileBelowTheRootOfItsKind)
{
    EXPECT_EQ(Set("memory/kel/ndf_one", "a"), 0);
    EXPECT_EQ(Set("db/a b/c", "b"), 0);
    EXPECT_EQ(Set("memory", "c"), 0) << "a key like any other";
    EXPECT_EQ(Set("single", std::string(100000, 'x')), 0);

    EXPECT_EQ(Files(), (std::set<std::string>{"run/memory/kel/ndf_one", "lib/db/a b/c",
                                              "lib/memory", "lib/single"}));
    EXPECT_EQ(Get("memory/kel/ndf_one"), "a");
    EXPECT_EQ(Get("db/a b/c"), "b");
    EXPECT_EQ(Get("memory"), "c");
    EXPECT_EQ(Get("single"), std::string(100000, 'x'));
}

TEST_F(HostVconf, AKeyThatCouldLeaveTheStoreIsRefused)
{
    for (const std::string key :
         {"", "/", "/etc/debug", "..", "../key", "db/../key", "db/..", ".", "./key", "db/./key",
          ".key", "db/.key", "db/..key", "db//key", "db/", "memory/", "memory/../../key"}) {
        EXPECT_NE(Set(key, "value"), 0) << key;
        EXPECT_EQ(Get(key), std::nullopt) << key;
    }
    EXPECT_EQ(Files(), std::set<std::string>());

    EXPECT_EQ(Set("db/key..", "value"), 0);
}

TEST_F(HostVconf, MissingTextsAreRefused)
{
    EXPECT_NE(vconf_set_str(nullptr, "value"), 0);
    EXPECT_NE(vconf_set_str("db/key", nullptr), 0);
    EXPECT_EQ(vconf_get_str(nullptr), nullptr);
    EXPECT_EQ(Files(), std::set<std::string>());
}

TEST_F(HostVconf, AKeyIsEitherAValueOrAPrefixOfOthers)
{
    EXPECT_EQ(Set("db/a/b", "value"), 0);
    EXPECT_NE(Set("db/a", "value"), 0);
    EXPECT_EQ(Get("db/a"), std::nullopt);
    EXPECT_EQ(Get("db/a/b"), "value");

    EXPECT_EQ(Set("db/c", "value"), 0);
    EXPECT_NE(Set("db/c/d", "value"), 0);
    EXPECT_EQ(Get("db/c/d"), std::nullopt);
    EXPECT_EQ(Get("db/c"), "value");

    EXPECT_EQ(Files(), (std::set<std::string>{"lib/db/a/b", "lib/db/c"}))
        << "a refused value leaves nothing behind";
}

TEST_F(HostVconf, ANameThatTheFileSystemRefusesIsAFailure)
{
    const std::string tooLong = "db/" + std::string(300, 'k');
    EXPECT_NE(Set(tooLong, "value"), 0);
    EXPECT_EQ(Get(tooLong), std::nullopt);

    fs::remove_all(m_root);
    Write(m_root, "a file in place of the root");
    EXPECT_NE(Set("db/key", "value"), 0);
    EXPECT_EQ(Get("db/key"), std::nullopt);
}

TEST_F(HostVconf, WhatIsNotAFileIsNotRead)
{
    fs::create_directories(m_root / "lib/db");
    ASSERT_EQ(mkfifo((m_root / "lib/db/key").c_str(), 0600), 0);

    EXPECT_EQ(Get("db/key"), std::nullopt) << "reading would wait for a writer";
}

TEST_F(HostVconf, AnUnwritableStoreKeepsItsValuesAndTakesNone)
{
    EXPECT_EQ(Set("db/key", "value"), 0);
    const kel::test::Mount mount = kel::test::Mount::Bind(m_root, m_root);
    mount.Remount(MS_BIND | MS_RDONLY | MS_NOSUID | MS_NODEV);

    EXPECT_NE(Set("db/key", "other"), 0);
    EXPECT_NE(Set("db/new", "other"), 0);
    EXPECT_NE(Set("db/new/key", "other"), 0);
    EXPECT_EQ(Get("db/key"), "value");
    EXPECT_EQ(Files(), std::set<std::string>{"lib/db/key"});
}

TEST_F(HostVconf, AFullStoreKeepsTheOldValueWhole)
{
    const kel::test::Mount mount(m_root, "size=16k");
    EXPECT_EQ(Set("db/key", "value"), 0);

    EXPECT_NE(Set("db/key", std::string(32768, 'x')), 0);

    EXPECT_EQ(Get("db/key"), "value");
    EXPECT_EQ(Files(), std::set<std::string>{"lib/db/key"});
}

TEST_F(HostVconf, ProcessesNeverReadHalfAValue)
{
    // A value is one letter, as often as it may be: a mixture is a torn value, an empty one, too.
    const auto isWhole = [](const std::string& value) {
        return !value.empty() && value.find_first_not_of(value[0]) == std::string::npos;
    };
    ASSERT_EQ(Set("db/key", "0"), 0);

    std::vector<pid_t> writers;
    for (char letter = 'a'; letter < 'e'; ++letter) {
        const pid_t child = fork();
        if (child == 0) {
            int failures = 0;
            for (size_t i = 1; i <= 200; ++i) {
                failures += Set("db/key", std::string(i * 97, letter)) != 0;
            }
            _exit(failures != 0);
        }
        writers.push_back(child);
    }
    int torn = 0;
    for (size_t running = writers.size(); running != 0;) {
        const auto value = Get("db/key");
        torn += !value || !isWhole(*value);
        int status = 0;
        if (waitpid(-1, &status, WNOHANG) > 0) {
            --running;
            EXPECT_EQ(status, 0);
        }
    }

    EXPECT_EQ(torn, 0);
    EXPECT_EQ(Get("db/key").value_or("").size(), 200u * 97);
    EXPECT_EQ(Files(), std::set<std::string>{"lib/db/key"});
}

TEST_F(HostVconf, RootsStoreIsTheSystems)
{
    unsetenv("KEL_HOST_VCONF_DIR");
    const kel::test::Mount mount("/var/lib");

    EXPECT_EQ(Set("memory/key", "volatile"), 0);
    EXPECT_EQ(Set("db/key", "lasting"), 0);

    EXPECT_TRUE(fs::exists("/run/kel-vconf/memory/key"));
    EXPECT_TRUE(fs::exists("/var/lib/kel-vconf/db/key"));
    EXPECT_EQ(Get("memory/key"), "volatile");
    EXPECT_EQ(Get("db/key"), "lasting");
    fs::remove_all("/run/kel-vconf");
}

TEST_F(HostVconf, AnotherUsersStoreIsTheUsersOwn)
{
    unsetenv("KEL_HOST_VCONF_DIR");
    fs::create_directory(m_root);
    fs::permissions(m_root, fs::perms::all);
    const auto storesIn = [](const fs::path& volatileRoot, const fs::path& lastingRoot) {
        return Set("memory/key", "volatile") == 0 && Set("db/key", "lasting") == 0
               && fs::exists(volatileRoot / "memory/key") && fs::exists(lastingRoot / "db/key")
               && Get("memory/key") == "volatile" && Get("db/key") == "lasting";
    };

    EXPECT_EQ(InChild([&] {
                  unsetenv("XDG_RUNTIME_DIR");
                  unsetenv("XDG_STATE_HOME");
                  unsetenv("HOME");
                  if (!BecomeNobody()) {
                      return 1;
                  }
                  if (!storesIn(m_nobodys / "run", m_nobodys / "lib")) {
                      return 2;
                  }
                  if ((fs::status(m_nobodys).permissions() & ~fs::perms::owner_all)
                      != fs::perms::none) {
                      return 3;
                  }
                  fs::remove_all(m_nobodys);
                  setenv("HOME", (m_root / "home").c_str(), 1);
                  if (!storesIn(m_nobodys / "run", m_root / "home/.local/state/kel-vconf")) {
                      return 4;
                  }
                  setenv("XDG_RUNTIME_DIR", (m_root / "runtime").c_str(), 1);
                  setenv("XDG_STATE_HOME", (m_root / "state").c_str(), 1);
                  return storesIn(m_root / "runtime/kel-vconf", m_root / "state/kel-vconf") ? 0 : 5;
              }),
              0);
}

class HostSystemInfo : public kel::test::SandboxTest
{
protected:
    void SetUp() override
    {
        fs::remove("/etc/os-release"); // the sandbox's link
    }
    void TearDown() override
    {
        fs::remove_all("/etc/os-release");
        fs::create_symlink(".host/os-release", "/etc/os-release");
    }

    static std::optional<std::string> Text(system_info_key_e key)
    {
        char* text = nullptr;
        const int result = system_info_get_value_string(key, &text);
        EXPECT_EQ(result == 0, text != nullptr);
        return Owned(text);
    }
    static std::optional<int> Number(system_info_key_e key)
    {
        int number = 0;
        return system_info_get_value_int(key, &number) == 0 ? std::make_optional(number)
                                                            : std::nullopt;
    }
};

TEST_F(HostSystemInfo, ThePlatformIsWhatOsReleaseSays)
{
    Write("/etc/os-release", "# NAME=no\nPRETTY_NAME=\"A \\\"fine\\\" system\"\n\nNAME='Fine\\'\n"
                             "VERSION_ID=12.5\nVERSION_ID_2=13\n");

    EXPECT_EQ(Text(SYSTEM_INFO_KEY_PLATFORM_NAME), "Fine\\");
    EXPECT_EQ(Text(SYSTEM_INFO_KEY_PLATFORM_VERSION), "12.5");
    EXPECT_EQ(Text(SYSTEM_INFO_KEY_BUILD_STRING), "A \"fine\" system");
}

TEST_F(HostSystemInfo, WhatOsReleaseDoesNotSayIsAFailure)
{
    Write("/etc/os-release", "VERSION_ID=\nNAMES=x\nPRETTY_NAME=\"\"");

    EXPECT_EQ(Text(SYSTEM_INFO_KEY_PLATFORM_NAME), std::nullopt);
    EXPECT_EQ(Text(SYSTEM_INFO_KEY_PLATFORM_VERSION), std::nullopt);
    EXPECT_EQ(Text(SYSTEM_INFO_KEY_BUILD_STRING), std::nullopt);
}

TEST_F(HostSystemInfo, WithoutTheAdministratorsOsReleaseTheVendorsCounts)
{
    Write("/tmp/os-release", "NAME=\"Vendor's\"\n");
    const kel::test::Mount mount = kel::test::Mount::Bind("/tmp/os-release", "/usr/lib/os-release");

    EXPECT_EQ(Text(SYSTEM_INFO_KEY_PLATFORM_NAME), "Vendor's");
}

TEST_F(HostSystemInfo, TheKernelIsWhatUnameSays)
{
    utsname names;
    ASSERT_EQ(uname(&names), 0);

    EXPECT_EQ(Text(SYSTEM_INFO_KEY_KERNEL_NAME), names.sysname);
    EXPECT_EQ(Text(SYSTEM_INFO_KEY_KERNEL_RELEASE), names.release);
    EXPECT_EQ(Text(SYSTEM_INFO_KEY_MACHINE), names.machine);
}

TEST_F(HostSystemInfo, TheModelIsTheFirmwaresOrElseTheMachine)
{
    // Nobody adds to what the kernel shows there: empty file systems take its place.
    const kel::test::Mount sys("/sys");
    const kel::test::Mount proc("/proc");
    EXPECT_EQ(Text(SYSTEM_INFO_KEY_MODEL), Text(SYSTEM_INFO_KEY_MACHINE));

    Write("/sys/devices/virtual/dmi/id/product_name", "A board\n");
    EXPECT_EQ(Text(SYSTEM_INFO_KEY_MODEL), "A board");
    Write("/proc/device-tree/model", std::string("A tree\0", 7));
    EXPECT_EQ(Text(SYSTEM_INFO_KEY_MODEL), "A tree");
}

TEST_F(HostSystemInfo, TheNumbersAreSysconfs)
{
    EXPECT_EQ(Number(SYSTEM_INFO_KEY_CORES), sysconf(_SC_NPROCESSORS_ONLN));
    EXPECT_EQ(Number(SYSTEM_INFO_KEY_PAGE_SIZE), sysconf(_SC_PAGESIZE));
    EXPECT_EQ(Number(SYSTEM_INFO_KEY_MEMORY_MIB),
              static_cast<long long>(sysconf(_SC_PHYS_PAGES)) * sysconf(_SC_PAGESIZE) >> 20);
}

TEST_F(HostSystemInfo, AKeyOfAnotherTypeOrOfNoneIsAFailureThatLeavesTheOutput)
{
    for (const auto key :
         {SYSTEM_INFO_KEY_UNKNOWN, SYSTEM_INFO_KEY_MODEL, static_cast<system_info_key_e>(4711)}) {
        int number = 5;
        EXPECT_NE(system_info_get_value_int(key, &number), 0);
        EXPECT_EQ(number, 5);
    }
    for (const auto key :
         {SYSTEM_INFO_KEY_UNKNOWN, SYSTEM_INFO_KEY_CORES, static_cast<system_info_key_e>(4711)}) {
        EXPECT_EQ(Text(key), std::nullopt);
    }
    EXPECT_NE(system_info_get_value_int(SYSTEM_INFO_KEY_CORES, nullptr), 0);
    EXPECT_NE(system_info_get_value_string(SYSTEM_INFO_KEY_MACHINE, nullptr), 0);
}

TEST_F(HostUsb, ListsOnlyWhileItIsOpen)
{
    usb_device_list_h list = nullptr;
    Mount("/tmp/stick", "usb1/1-1/block/sda");
    ASSERT_EQ(usb_device_init(), 0);
    const usb_device_list_h kept = List();

    EXPECT_EQ(usb_device_fini(), 0);
    EXPECT_EQ(FirstMountPath(kept), "/tmp/stick");
    EXPECT_EQ(usb_device_get_device_list(USB_DEVICE_CLASS_MASS_STORAGE, &list), 0)
        << "somebody has it open still";

    EXPECT_EQ(usb_device_fini(), 0);
    EXPECT_NE(usb_device_get_device_list(USB_DEVICE_CLASS_MASS_STORAGE, &list), 0);
    EXPECT_NE(usb_device_fini(), 0) << "more often closed than opened";
    ASSERT_EQ(usb_device_init(), 0);
}

TEST_F(HostUsb, MissingHandlesAreFailures)
{
    usb_device_h device = nullptr;

    EXPECT_NE(usb_device_get_device_list(USB_DEVICE_CLASS_MASS_STORAGE, nullptr), 0);
    EXPECT_EQ(usb_device_list_get_count(nullptr), 0);
    EXPECT_NE(usb_device_list_get_first(nullptr, &device), 0);
    EXPECT_EQ(usb_device_get_mountpath(nullptr), nullptr);
}

} // namespace
