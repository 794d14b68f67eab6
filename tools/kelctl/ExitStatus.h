#pragma once

namespace kel {
namespace ctl {

/// The program's exit statuses. They are an interface: scripts look at them.
enum class EStatus {
    Success = 0,
    Negative = 1, // the agent refused the policy; no agent owns the name; the request could not be
                  // left; a report, or the kernel log, cannot be read; the machine has a fault
    WrongUsage = 2,
    NoAnswer = 3,     // from the agent, or from the bus
    TooFewEvents = 4, // in time, or no report
    NoOutput = 5      // what there is to say cannot be written
};

} // namespace ctl
} // namespace kel
