#pragma once

#include <signal.h>

#include <memory>
#include <string>
#include <vector>

#include "e2e/AgentRoad.h"

namespace kel::test {

/// A bus, an agent where one is wanted, and a trace of what they say.
class TraceRoad : public AgentRoad
{
protected:
    explicit TraceRoad(const PrivateBus::TSOptions& options = {})
        : AgentRoad(options), m_file(m_bus.Directory() + "/channel.pcap")
    {}

    /// One that watches when this returns.
    static std::unique_ptr<ChildProcess> Trace(const std::vector<std::string>& arguments = {})
    {
        std::vector<std::string> command{KEL_CTL, "trace"};
        command.insert(command.end(), arguments.begin(), arguments.end());
        auto trace = std::make_unique<ChildProcess>(command);
        EXPECT_TRUE(trace->WaitForOutput(" agent")) << trace->ErrorOutput();
        return trace;
    }

    /// Ends it as a user does; what it has printed.
    static std::string End(ChildProcess& trace)
    {
        trace.Signal(SIGINT);
        EXPECT_EQ(trace.Wait(), 0);
        EXPECT_EQ(trace.ErrorOutput(), "");
        return trace.Output();
    }

    const std::string m_file;
};

} // namespace kel::test
