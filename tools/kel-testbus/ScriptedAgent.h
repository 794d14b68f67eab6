#pragma once

#include <sys/types.h>

#include <cstddef>
#include <map>
#include <string>

#include "Script.h"

namespace kel {
namespace testbus {

/// How far a script is, in memory that the agent's processes share: one that has vanished leaves it
/// to the next.
class TCProgress
{
public:
    /// @param script  outlives this object.
    /// @throws std::system_error when there is no memory.
    explicit TCProgress(const TCScript& script);
    ~TCProgress();
    TCProgress(const TCProgress&) = delete;
    TCProgress& operator=(const TCProgress&) = delete;

    /// The number of the next step.
    size_t& Step();

    /// How many messages of a type that the script names have come.
    size_t Messages(int type) const;

    /// Counts one that comes now.
    ///
    /// @return how many have taken the same lines of the script before.
    size_t Count(int type);

private:
    const TCScript& m_script;
    std::map<int, size_t> m_places; // in the counts, of the types that the script names
    size_t* m_pCounts;              // mapped, gone with this object
};

/// What an agent's process ends with when its script has it vanish.
constexpr int kVanished = 77;

/// Serves the channel as the script says, from the step on that comes next, and does not return.
/// For a process of its own without threads: it ends by _exit(), as suddenly as a real agent dies.
///
/// @param ready  a descriptor that gets one byte as soon as applications may start.
[[noreturn]] void RunScriptedAgent(const TCScript& script, TCProgress& progress, bool test,
                                   int ready);

} // namespace testbus
} // namespace kel
