#pragma once

#include <string>

#include <gtest/gtest.h>

namespace kel::test {

/// A test program's private view of the file system: a mount namespace of its own in which "/etc",
/// "/opt", "/run" and "/tmp" can be written without anybody else noticing. "/etc" shows the host's
/// entries, except for the marker files of a device image; the other three are empty, but for the
/// source and build trees should they be in there.
///
/// Runs as root in it, if need be through a user namespace.
class Sandbox
{
public:
    /// Starts this program again inside a sandbox and does not return; returns when it is inside
    /// already, or when nobody may make a namespace here: then it runs the tests that need none.
    static void Enter(char** arguments);

    /// Whether this process is inside.
    static bool IsEntered();

    /// Skips the running test where this process is not inside.
    static void Need();

    /// The same where it has no user but root, as in a namespace that an ordinary user has made.
    static void NeedOtherUsers();
};

/// Ends the running test as a skipped one, by an exception: here it cannot run.
[[noreturn]] void Skip(const std::string& reason);

/// What tests derive from that write to one of those directories, or start an agent, which does.
/// Where there is no sandbox such a test is skipped before anything of it runs, also its
/// TearDown(): what that removes would be the machine's.
class SandboxTest : public testing::Test
{
protected:
    SandboxTest() { Sandbox::Need(); }
};

/// Runs the program's GoogleTest tests, in a sandbox.
int RunTestsInSandbox(int argumentCount, char** arguments);

/// Runs them outside, for a program that needs the machine's users.
int RunTests(int argumentCount, char** arguments);

} // namespace kel::test
