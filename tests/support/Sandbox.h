#pragma once

#include <string>

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
    /// already, or when the machine permits no namespaces.
    static void Enter(char** arguments);

    /// Whether this process is inside. A test that writes to one of those directories asserts it.
    static bool IsEntered();
};

/// Runs the program's GoogleTest tests, in a sandbox.
int RunTestsInSandbox(int argumentCount, char** arguments);

/// Runs them outside, for a program that needs the machine's users.
int RunTests(int argumentCount, char** arguments);

} // namespace kel::test
