#pragma once

// The processes of a benchmark, besides those of tests/support: its peers are this very program,
// started again in another role.

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gio/gio.h>

#include "support/ChildProcess.h"

namespace kel::bench {

typedef std::vector<unsigned char> TBytes;

// The test channel, as a peer without the library knows it.
constexpr char kBusName[] = "com.norvale.kel.IControlTest";
constexpr char kObjectPath[] = "/com/norvale/kel/CommunicationChannelTest";
constexpr char kInterface[] = "com.norvale.kel.IControl";
constexpr int kTimeout = 10000; // milliseconds, for every call

/// Starts this program in another role, and waits for the line that it gives to Serve().
std::unique_ptr<test::ChildProcess> StartPeer(const std::vector<std::string>& role,
                                              const test::ChildProcess::TEnvironment& environment
                                              = {});

/// What a peer does once it is prepared: gives the benchmark a line, and serves its default main
/// context until it is killed.
[[noreturn]] void Serve(const std::string& line);

/// Ends the program with a message: a figure that rests on a failed call is worth nothing.
[[noreturn]] void Fail(const std::string& what);

/// Waits for a fact; ends the program when it does not come true in time.
void Await(const std::function<bool()>& fact, const std::string& what);

/// The bytes of a synchronous "Send" request.
TBytes RequestBytes(int type, const TBytes& data);

/// A "(ay)" of bytes that stay where they are, floating.
GVariant* Borrow(const TBytes& bytes);

/// The bytes of a "(ay)", where they are.
std::pair<const unsigned char*, size_t> BytesOf(GVariant* tuple);

} // namespace kel::bench
