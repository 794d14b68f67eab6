#pragma once

#include <memory>
#include <string>
#include <vector>

#include <kel/IDbusClient.h>

#include "support/ChildProcess.h"

namespace kel::test {

/// Starts this program again, in one of the roles below.
std::unique_ptr<ChildProcess> StartRole(const std::string& option, size_t number);

constexpr char kAgentOption[] = "--agent";
constexpr char kApplicationOption[] = "--application";

/// An agent, until the end of its standard input. Prints "ready" once it can be called. Then it
/// waits until it knows so many applications, tells them all at once, and prints what came of it:
/// "told SUCCESSES FAILURES".
int RunAgent(size_t applications);

/// An application for ever. Prints "ready" once it can be told. Each time an agent has told it, it
/// sends to that agent, and prints "+" when nothing was lost, "-" otherwise.
int RunApplication(size_t number);

/// Sends to the agent without waiting, then once more with an answer; true when the agent has got
/// both, and the answer is the one to this.
bool Converse(IDbusClient& client, const std::vector<unsigned char>& words);

} // namespace kel::test
