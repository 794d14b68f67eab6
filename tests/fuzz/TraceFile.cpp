// A file of messages of the bus, as kelctl trace shows it and kelctl replay reads it.

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>

#include "Fuzz.h"
#include "trace/Channel.h"
#include "trace/Recording.h"
#include "trace/TraceText.h"

using kel::ctl::TMicroseconds;
using kel::ctl::TSChannelAnswer;
using kel::ctl::TSChannelCall;
using kel::ctl::TSTraceText;
using kel::fuzz::Require;

namespace {

class TCPrinter : public kel::ctl::IChannelListener
{
public:
    void OnCall(const TSChannelCall& call) override { m_Check(TSTraceText::Call(call)); }
    void OnAnswer(const TSChannelCall& call, const TSChannelAnswer& answer) override
    {
        m_Check(TSTraceText::Answer(call, answer));
    }
    void OnUnanswered(const TSChannelCall& call, TMicroseconds time) override
    {
        m_Check(TSTraceText::Unanswered(call, time));
    }
    void OnAgent(TMicroseconds time, const std::string& agent) override
    {
        m_Check(TSTraceText::Agent(time, agent));
    }
    void OnFlood(TMicroseconds time, const kel::ctl::TSFlood& flood) override
    {
        m_Check(TSTraceText::Flood(time, flood));
    }

private:
    // A line of ours begins with a digit, and a policy's, which may have tabs, with a space.
    static void m_Check(std::string text)
    {
        std::replace(text.begin(), text.end(), '\t', ' ');
        Require(kel::fuzz::IsPlain(text), "what is shown is plain text");
        Require(!text.empty() && text.back() == '\n', "a line has its end");
        size_t end = text.find('\n');
        for (; end + 1 < text.size(); end = text.find('\n', end + 1)) {
            Require(text[end + 1] == ' ', "a stranger's text begins no line of ours");
        }
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const int file = memfd_create("trace", 0);
    static const std::string path = "/proc/self/fd/" + std::to_string(file);
    Require(ftruncate(file, 0) == 0 && pwrite(file, data, size, 0) == static_cast<ssize_t>(size),
            "there is room for a file");

    kel::ctl::TCPcapReader reader;
    TCPrinter printer;
    kel::ctl::TCChannel channel(false, printer);
    kel::ctl::TSPcapRecord record;
    kel::tools::TCOutcome outcome = reader.Open(path);
    size_t messages = 0;
    while (outcome && reader.Next(record, outcome)) {
        Require(record.m_bytes.size() <= size, "no message is larger than its file");
        const auto message = kel::ctl::MessageOf(record);
        if (message) {
            channel.Take(record.m_time, *message);
            ++messages;
        }
    }
    channel.End(record.m_time);

    kel::ctl::TCRecording recording(false);
    Require(static_cast<bool>(recording.Read(path)) == static_cast<bool>(outcome),
            "both read the same");
    Require(recording.Calls().size() <= messages, "a call is a message");
    return 0;
}
