// The files that kelctl trace and replay read: of either byte order, cut, and hostile ones.

#include <cstdint>
#include <filesystem>
#include <fstream>

#include <gmock/gmock.h>

#include "e2e/AgentRoad.h"
#include "support/Archives.h"
#include "trace/Channel.h"
#include "trace/Pcap.h"
#include "trace/TraceText.h"

namespace kel::test {

using testing::EndsWith;
using testing::HasSubstr;

namespace {

typedef ctl::TGlibPtr<GDBusMessage> TMessage;

std::string Blob(GDBusMessage& message)
{
    gsize size = 0;
    unsigned char* const bytes
        = g_dbus_message_to_blob(&message, &size, G_DBUS_CAPABILITY_FLAGS_NONE, nullptr);
    std::string blob(reinterpret_cast<char*>(bytes), size);
    g_free(bytes);
    return blob;
}

TMessage Call(GDBusMessageByteOrder order, const char* method, const TBytes& bytes)
{
    TMessage message(g_dbus_message_new_method_call(kBusName, kObjectPath, kInterface, method));
    g_dbus_message_set_byte_order(message.get(), order);
    g_dbus_message_set_sender(message.get(), ":1.5");
    g_dbus_message_set_serial(message.get(), 7);
    g_dbus_message_set_body(message.get(), Body(bytes).get());
    return message;
}

std::string Record(const std::string& blob, int later = 0)
{
    return ctl::PcapRecord(1'700'000'000'123'456 + ctl::TMicroseconds(later) * 1'000'000,
                           reinterpret_cast<const unsigned char*>(blob.data()), blob.size());
}

std::string BigEndian(std::initializer_list<std::uint32_t> numbers)
{
    std::string text;
    for (const std::uint32_t number : numbers) {
        for (int shift = 24; shift >= 0; shift -= 8) {
            text += static_cast<char>(number >> shift & 0xffU);
        }
    }
    return text;
}

// A whole file with a policy, its answer and a hello.
std::string WholeFile()
{
    const TMessage call = Call(G_DBUS_MESSAGE_BYTE_ORDER_LITTLE_ENDIAN, "Send",
                               SendBytes(4, 0, ArchiveOf(std::string("<policy/>"))));
    const TMessage hello
        = Call(G_DBUS_MESSAGE_BYTE_ORDER_LITTLE_ENDIAN, "Hello", HelloBytes({2, 4}));
    const TMessage answer(g_dbus_message_new_method_reply(call.get()));
    g_dbus_message_set_sender(answer.get(), ":1.2");
    g_dbus_message_set_destination(answer.get(), ":1.5");
    g_dbus_message_set_serial(answer.get(), 9);
    g_dbus_message_set_body(answer.get(), Body({1, 2, 3}).get());
    return ctl::PcapHead() + Record(Blob(*call)) + Record(Blob(*answer)) + Record(Blob(*hello));
}

// Keeps what would be printed.
struct TSPrinted : ctl::IChannelListener
{
    void OnCall(const ctl::TSChannelCall& call) override { m_text += ctl::TSTraceText::Call(call); }
    void OnAnswer(const ctl::TSChannelCall& call, const ctl::TSChannelAnswer& answer) override
    {
        m_text += ctl::TSTraceText::Answer(call, answer);
    }
    void OnUnanswered(const ctl::TSChannelCall& call, ctl::TMicroseconds time) override
    {
        m_text += ctl::TSTraceText::Unanswered(call, time);
    }
    void OnAgent(ctl::TMicroseconds time, const std::string& agent) override
    {
        m_text += ctl::TSTraceText::Agent(time, agent);
    }

    void OnFlood(ctl::TMicroseconds time, const ctl::TSFlood& flood) override
    {
        m_text += ctl::TSTraceText::Flood(time, flood);
    }

    std::string m_text;
};

} // namespace

class TraceFile : public SandboxTest
{
protected:
    const std::string m_path = "/tmp/trace.pcap";

    void Write(const std::string& text) const { std::ofstream(m_path) << text; }

    // What is shown of a file, and in the end why it cannot be read.
    std::string Shown(const std::string& file) const
    {
        Write(file);
        ctl::TCPcapReader reader;
        ctl::TSPcapRecord record;
        TSPrinted printed;
        ctl::TCChannel channel(false, printed);
        tools::TCOutcome outcome = reader.Open(m_path);
        while (outcome && reader.Next(record, outcome)) {
            const TMessage message = ctl::MessageOf(record);
            if (message) {
                channel.Take(record.m_time, *message);
            }
        }
        channel.End(record.m_time);
        return printed.m_text + outcome.Reason();
    }
};

TEST_F(TraceFile, IsShown)
{
    EXPECT_EQ(Shown(WholeFile()),
              "2023-11-14T22:13:20.123Z :1.5 -> agent set-policy (4), flag 0, "
                  + std::to_string(ArchiveOf(std::string("<policy/>")).size())
                  + " bytes\n    <policy/>\n"
                    "2023-11-14T22:13:20.123Z :1.2 -> :1.5 set-policy (4): handled, NO answer in "
                    "it, 2 bytes, 0.000 ms\n"
                    "2023-11-14T22:13:20.123Z :1.5 -> agent hello, types 2 4\n"
                    "2023-11-14T22:13:20.123Z :1.5 -> agent hello: UNANSWERED for 0.000 ms\n");
}

TEST_F(TraceFile, OfTheOtherByteOrderAndWordSizeIsShownAlike)
{
    // The archive of "<a/>" by a big-endian machine of 32 bits, in a message of type 4.
    std::string archive = BigEndian({22}) + "serialization::archive" + std::string("\0\x13", 2)
                          + "\4\4\4\x8" + BigEndian({1, 4}) + "<a/>";
    const std::string bytes = BigEndian({4}) + std::string(1, '\0') + archive;
    const TMessage call
        = Call(G_DBUS_MESSAGE_BYTE_ORDER_BIG_ENDIAN, "Send", TBytes(bytes.begin(), bytes.end()));
    const std::string blob = Blob(*call);
    const std::uint32_t size = static_cast<std::uint32_t>(blob.size());

    const std::string shown = Shown(BigEndian({0xa1b23c4d, 0x00020004, 0, 0, 0x08000000, 231})
                                    + BigEndian({1'700'000'000, 123'456'789, size, size}) + blob);

    EXPECT_THAT(shown, HasSubstr("2023-11-14T22:13:20.123Z :1.5 -> agent set-policy (4), flag 0, "
                                 + std::to_string(archive.size()) + " bytes\n    <a/>\n"));
}

TEST_F(TraceFile, ACallThatHasWaitedForLongIsMarkedAndItsLateAnswerShown)
{
    const TMessage call = Call(G_DBUS_MESSAGE_BYTE_ORDER_LITTLE_ENDIAN, "Send", SendBytes(100, 0));
    const TMessage other(g_dbus_message_new_signal("/a", "a.b", "C"));
    g_dbus_message_set_serial(other.get(), 1);
    const TMessage answer(g_dbus_message_new_method_reply(call.get()));
    g_dbus_message_set_sender(answer.get(), ":1.2");
    g_dbus_message_set_destination(answer.get(), ":1.5");
    g_dbus_message_set_serial(answer.get(), 9);
    g_dbus_message_set_body(answer.get(), Body({0}).get());

    const std::string shown = Shown(ctl::PcapHead() + Record(Blob(*call)) + Record(Blob(*other), 9)
                                    + Record(Blob(*other), 11) + Record(Blob(*answer), 12));

    EXPECT_EQ(shown, "2023-11-14T22:13:20.123Z :1.5 -> agent version (100), flag 0, 0 bytes\n"
                     "2023-11-14T22:13:31.123Z :1.5 -> agent version (100): UNANSWERED for "
                     "11000.000 ms\n"
                     "2023-11-14T22:13:32.123Z :1.2 -> :1.5 version (100): NOT HANDLED, 0 bytes, "
                     "12000.000 ms, LATE\n");
}

TEST_F(TraceFile, AnEventIsWaitedForAsLongAsTheAgentDoes)
{
    const TMessage event = Call(G_DBUS_MESSAGE_BYTE_ORDER_LITTLE_ENDIAN, "Send", SendBytes(2, 0));
    g_dbus_message_set_destination(event.get(), ":1.7");
    const TMessage answer(g_dbus_message_new_method_reply(event.get()));
    g_dbus_message_set_sender(answer.get(), ":1.7");
    g_dbus_message_set_destination(answer.get(), ":1.5");
    g_dbus_message_set_serial(answer.get(), 9);
    g_dbus_message_set_body(answer.get(), Body({1}).get());

    const std::string file = ctl::PcapHead() + Record(Blob(*event));

    EXPECT_THAT(Shown(file + Record(Blob(*answer), 4)), EndsWith(" ms\n"));
    EXPECT_THAT(Shown(file + Record(Blob(*answer), 6)),
                EndsWith(" :1.5 -> :1.7 policy-update (2): UNANSWERED for 6000.000 ms\n"
                         "2023-11-14T22:13:26.123Z :1.7 -> :1.5 policy-update (2): handled, "
                         "0 bytes, 6000.000 ms, LATE\n"));
}

TEST_F(TraceFile, WhoCallsAnotherTooOftenWithinASecondIsTold)
{
    const TMessage call = Call(G_DBUS_MESSAGE_BYTE_ORDER_LITTLE_ENDIAN, "Hello", HelloBytes({}));
    const auto calls = [&call](int count, int later) {
        std::string records;
        for (int i = 0; i < count; ++i) {
            records += Record(Blob(*call), later);
        }
        return records;
    };

    const std::string none = Shown(ctl::PcapHead() + calls(100, 0) + calls(100, 1) + calls(1, 0));
    const std::string two = Shown(ctl::PcapHead() + calls(101, 0) + calls(1, 3) + calls(101, 5));

    EXPECT_EQ(CountOf(none, "FLOOD"), 0U);
    EXPECT_THAT(two, HasSubstr("\n2023-11-14T22:13:23.123Z :1.5 -> agent FLOOD: 101 calls within a "
                               "second\n2023-11-14T22:13:23.123Z :1.5 -> agent hello, no types\n"));
    EXPECT_THAT(two, EndsWith("\n2023-11-14T22:13:25.123Z :1.5 -> agent FLOOD: 101 calls within a "
                              "second\n"));
}

TEST_F(TraceFile, ThatIsNoneOrIsCutIsTold)
{
    const std::string head = ctl::PcapHead();
    const std::string ether = head.substr(0, 20) + std::string("\1\0\0\0", 4);
    const std::string huge = head + std::string(8, '\0') + std::string(8, '\xff');
    const std::string longer = head + std::string(8, '\0') + std::string("\0\0\0\1\0\0\0\1", 8);
    const std::pair<std::string, std::string> files[]
        = {{"", "it is no pcap"},
           {"x", "it is no pcap"},
           {std::string(100, 'x'), "it is no pcap"},
           {"\n\r\r\nxxxx", "a pcapng"},
           {head.substr(0, 23), "it ends within its head"},
           {ether, "a pcap of link type 1, not of D-Bus, which is 231"},
           {head + "x", "behind 0 messages: it ends within the head of a message"},
           {huge, "a message of 4294967295 bytes, which D-Bus has not"},
           {longer, "it ends within a message of 16777216 bytes"}};
    for (const auto& [file, reason] : files) {
        Write(file);

        const TSFinished ended = RunProgram({KEL_CTL, "trace", "--input", m_path});

        EXPECT_EQ(ended.m_exit, 1) << Text(ended);
        EXPECT_EQ(ended.m_output, "");
        EXPECT_TRUE(IsOneLine(ended.m_errorOutput, "kelctl: " + m_path + ": ")) << Text(ended);
        EXPECT_THAT(ended.m_errorOutput, HasSubstr(reason));
    }
    EXPECT_EQ(RunProgram({KEL_CTL, "trace", "--input", "/tmp"}).m_exit, 1);
    EXPECT_EQ(RunProgram({KEL_CTL, "trace", "--input", "-"}, {}, WholeFile()).m_exit, 0);
}

TEST_F(TraceFile, MessagesThatCannotBeReadAreCounted)
{
    Write(ctl::PcapHead() + Record("l no message") + Record(""));

    const TSFinished ended = RunProgram({KEL_CTL, "trace", "--input", m_path});

    EXPECT_EQ(ended.m_exit, 1) << Text(ended);
    EXPECT_EQ(ended.m_errorOutput, "kelctl: messages that cannot be read, or are cut: 2\n");
}

TEST_F(TraceFile, EveryPartAndEveryChangeOfAByteIsRead)
{
    const std::string whole = WholeFile();
    for (size_t at = 0; at < whole.size(); ++at) {
        Shown(whole.substr(0, at));
        for (const char change : {'\x01', '\x80', '\xff'}) {
            std::string changed = whole;
            changed[at] = static_cast<char>(changed[at] ^ change);
            const std::string shown = Shown(changed);
            EXPECT_EQ(shown.find('\x1b'), std::string::npos);
            EXPECT_TRUE(g_utf8_validate(shown.data(), static_cast<gssize>(shown.size()), nullptr));
        }
    }
}

} // namespace kel::test
