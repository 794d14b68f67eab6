// The key-value store in /tmp was used whoever had put its directory there.

#include "HostPlatformTests.h"

namespace {

const fs::path kNobodys = "/tmp/kel-vconf-65534";
const fs::path kElsewhere = "/tmp/store";

int Set() { return vconf_set_str("memory/key", "value"); }

// What becomes of a key of nobody's, who has no other place for it.
int AsNobody(const std::function<int()>& function)
{
    return InChild([&] {
        unsetenv("XDG_RUNTIME_DIR");
        unsetenv("KEL_HOST_VCONF_DIR");
        return BecomeNobody() ? function() : 1;
    });
}

TEST(StoreOfSomebodyElse, IsNotUsed)
{
    kel::test::Sandbox::Need();
    const auto refuses = [] { return Set() != 0 && !Owned(vconf_get_str("memory/key")) ? 0 : 2; };

    fs::create_symlink(kElsewhere, kNobodys);
    EXPECT_EQ(AsNobody(refuses), 0);
    fs::remove(kNobodys);
    Write(kNobodys, "");
    EXPECT_EQ(AsNobody(refuses), 0);
    fs::remove(kNobodys);

    // Root's, unless this user is only called nobody and the directory is its own.
    fs::create_directory(kNobodys);
    fs::permissions(kNobodys, fs::perms::all);
    EXPECT_EQ(AsNobody([] {
                  struct stat status;
                  if (lstat(kNobodys.c_str(), &status) != 0) {
                      return 1;
                  }
                  const bool own = status.st_uid == geteuid();
                  return (Set() == 0) == own ? 0 : 2;
              }),
              0);

    EXPECT_FALSE(fs::exists(kElsewhere));
    fs::remove_all(kNobodys);
}

} // namespace
