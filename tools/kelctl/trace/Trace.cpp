#include "trace/Trace.h"

#include <cstdio>
#include <memory>

#include "Bus.h"
#include "Commands.h"
#include "common/Text.h"
#include "trace/Pcap.h"
#include "trace/TraceText.h"

namespace kel {
namespace ctl {

bool TCTrace::KeepIn(const std::string& path)
{
    const tools::TCOutcome opened = m_file.Open(path);
    if (!opened) {
        std::fprintf(stderr, "kelctl: the trace cannot be kept: %s\n", opened.Reason().c_str());
        return false;
    }
    m_isKept = true;
    m_file.Write(PcapHead());
    return true;
}

void TCTrace::Begin(const std::string& agent)
{
    m_channel.SetAgent(agent);
    OnAgent(NowInMicroseconds(), agent);
}

void TCTrace::Take(TMicroseconds time, GDBusMessage& message, const TBytes& bytes)
{
    if (m_channel.Take(time, message) && m_isKept) {
        m_Keep(time, message, bytes);
    }
}

EStatus TCTrace::End(TMicroseconds time, EStatus status)
{
    m_channel.End(time);
    if (m_isKept) {
        const tools::TCOutcome finished = m_file.Finish();
        if (!finished) {
            std::fprintf(stderr, "kelctl: the trace cannot be kept: %s\n",
                         finished.Reason().c_str());
            return EStatus::NoOutput;
        }
    }
    return m_output.Status().value_or(status);
}

void TCTrace::OnCall(const TSChannelCall& call) { m_output.Print(TSTraceText::Call(call)); }

void TCTrace::OnAnswer(const TSChannelCall& call, const TSChannelAnswer& answer)
{
    m_output.Print(TSTraceText::Answer(call, answer));
}

void TCTrace::OnUnanswered(const TSChannelCall& call, TMicroseconds time)
{
    m_output.Print(TSTraceText::Unanswered(call, time));
}

void TCTrace::OnAgent(TMicroseconds time, const std::string& agent)
{
    m_output.Print(TSTraceText::Agent(time, agent));
}

void TCTrace::OnFlood(TMicroseconds time, const TSFlood& flood)
{
    m_output.Print(TSTraceText::Flood(time, flood));
}

void TCTrace::m_Keep(TMicroseconds time, GDBusMessage& message, const TBytes& bytes)
{
    std::string record;
    if (bytes.empty()) {
        gsize size = 0;
        unsigned char* const made = g_dbus_message_to_blob(
            &message, &size, G_DBUS_CAPABILITY_FLAGS_UNIX_FD_PASSING, nullptr);
        record = made == nullptr ? "" : PcapRecord(time, made, size);
        g_free(made);
    } else {
        record = PcapRecord(time, bytes.data(), bytes.size());
    }
    m_file.Write(record); // whether that works is told at the end
}

namespace {

struct TSOptions
{
    std::string m_input;
    std::string m_output;
};

EStatus TraceFile(TCTrace& trace, const std::string& path)
{
    TCPcapReader reader;
    tools::TCOutcome outcome = reader.Open(path);
    TSPcapRecord record;
    size_t unreadable = 0;
    while (outcome && !trace.Output().Status() && reader.Next(record, outcome)) {
        const TGlibPtr<GDBusMessage> message = MessageOf(record);
        if (message) {
            trace.Take(record.m_time, *message, record.m_bytes);
        } else {
            ++unreadable;
        }
    }
    EStatus status = EStatus::Success;
    if (!outcome) {
        std::fprintf(stderr, "kelctl: %s\n", outcome.Reason().c_str());
        status = EStatus::Negative;
    }
    if (unreadable > 0) {
        std::fprintf(stderr, "kelctl: messages that cannot be read, or are cut: %zu\n", unreadable);
        status = EStatus::Negative;
    }
    return trace.End(record.m_time, status);
}

EStatus Trace(const TSOptions& options, bool test)
{
    TCTrace trace(test, options.m_input.empty());
    if (!options.m_output.empty() && !trace.KeepIn(options.m_output)) {
        return EStatus::NoOutput;
    }
    return options.m_input.empty() ? TraceBus(trace, test) : TraceFile(trace, options.m_input);
}

} // namespace

void AddTrace(CLI::App& program, const TSCommon& common, EStatus& status)
{
    CLI::App* const command = program.add_subcommand("trace", "Show what the channel carries");
    const auto options = std::make_shared<TSOptions>();
    command->add_option("--input", options->m_input, "Show a file's messages, not the bus's")
        ->type_name("FILE");
    command->add_option("--output", options->m_output, "Keep the messages in a file, a pcap")
        ->type_name("FILE");
    command->callback([options, &common, &status] { status = Trace(*options, common.m_test); });
}

} // namespace ctl
} // namespace kel
