#include "support/Mount.h"

#include <sys/mount.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include <gtest/gtest.h>

#include "support/Sandbox.h"
#include "support/WaitUntil.h"

namespace kel::test {

namespace {

const std::string& MadeDirectory(const std::string& directory)
{
    Sandbox::Need();
    std::filesystem::create_directories(directory);
    return directory;
}

} // namespace

Mount::Mount(const std::string& directory, const std::string& options)
    : Mount("tmpfs", MadeDirectory(directory), "tmpfs", 0, options)
{}

Mount Mount::Bind(const std::string& source, const std::string& target)
{
    return Mount(source, target, nullptr, MS_BIND, "");
}

Mount::Mount(const std::string& source, const std::string& target, const char* type,
             unsigned long flags, const std::string& options)
    : m_target(target)
{
    Sandbox::Need();
    if (mount(source.c_str(), target.c_str(), type, flags, options.c_str()) != 0) {
        throw std::runtime_error("mounting on " + target + ": " + strerror(errno));
    }
}

Mount::~Mount()
{
    if (umount2(m_target.c_str(), MNT_DETACH) != 0) {
        ADD_FAILURE() << "unmounting " << m_target << ": " << strerror(errno);
    }
}

void Mount::Remount(unsigned long flags) const
{
    EXPECT_TRUE(WaitUntil([&] {
        return mount(nullptr, m_target.c_str(), nullptr, MS_REMOUNT | flags, nullptr) == 0;
    })) << "remounting "
        << m_target << ": " << strerror(errno);
}

} // namespace kel::test
