#pragma once

namespace kel {
namespace tools {

/// Messages to the reference agent, beside the one of the channel that sets a policy. An agent that
/// does not know them declines them.
enum EAgentMessage : int {
    AskVersion = 100, ///< Without data; the response is the text of the agent's version.
    /// Without data; the response is a JSON object, whose member "clients" has an object for each
    /// application, by unique name.
    AskClients = 101,
    /// Without data; the response is the archive of an int, in the form of the agent's machine and
    /// of its Boost, as the answer to a policy is.
    AskArchive = 102
};

} // namespace tools
} // namespace kel
