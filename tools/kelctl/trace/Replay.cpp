#include <algorithm>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Commands.h"
#include "Numbers.h"
#include "common/Text.h"
#include "trace/Recording.h"
#include "trace/ReplayEnd.h"
#include "trace/TraceText.h"

namespace kel {
namespace ctl {

namespace {

constexpr TMicroseconds kPatience = 10'000'000; // for an application that is still to come
constexpr size_t kMostApplications = 200;       // of the 256 connections that a user has
constexpr TMicroseconds kLongestSleep = 60'000'000;

struct TSOptions
{
    std::string m_file;
    double m_speed = 1;
    std::string m_as = "applications";
};

int Wake(void* isOver)
{
    *static_cast<bool*>(isOver) = true;
    return G_SOURCE_REMOVE;
}

// Lets things happen until this is so; false when it was not until then.
bool IterateUntil(const std::function<bool()>& isSo, TMicroseconds end)
{
    while (!isSo()) {
        const TMicroseconds left = end - g_get_monotonic_time();
        if (left <= 0) {
            return false;
        }
        bool isOver = false;
        const unsigned int timer = g_timeout_add(
            static_cast<unsigned int>(std::min(left, kLongestSleep) / 1000 + 1), &Wake, &isOver);
        g_main_context_iteration(nullptr, TRUE);
        if (!isOver) {
            g_source_remove(timer);
        }
    }
    return true;
}

// Sends what was recorded, at its pace, and compares what comes back.
class TCReplay
{
public:
    TCReplay(const TSOptions& options, const TCRecording& recording, bool test)
        : m_options(options), m_recording(recording), m_channel(test ? kTestChannel : kChannel)
    {}

    EStatus Run();

private:
    bool m_AsApplications();
    bool m_AsAgent();
    TCReplayEnd* m_Application(const std::string& name);
    size_t m_PlaceOf(const std::string& name);
    void m_WaitFor(const TSRecordedCall& recorded) const;
    void m_Send(TCReplayEnd& end, const TSRecordedCall& recorded, const std::string& to);
    void m_Compare(const TSRecordedCall& recorded, const std::optional<TSChannelAnswer>& answer);
    void m_Tell(const TSRecordedCall& recorded, bool same, const std::string& text);

    const TSOptions& m_options;
    const TCRecording& m_recording;
    const TSChannel& m_channel;
    TMicroseconds m_start = 0;
    std::map<std::string, std::unique_ptr<TCReplayEnd>> m_applications; // by recorded names
    std::vector<std::string> m_recorded; // who wants events, in the order in which they came
    std::vector<std::string> m_present;  // the same of those that are here
    bool m_isPatient = true;
    size_t m_waiting = 0; // calls
    size_t m_sent = 0;
    size_t m_different = 0;
};

EStatus TCReplay::Run()
{
    m_start = g_get_monotonic_time();
    if (!(m_options.m_as == "agent" ? m_AsAgent() : m_AsApplications())) {
        return EStatus::NoAnswer;
    }
    if (m_sent == 0 && m_different == 0) {
        std::fprintf(stderr, "kelctl: the recording has nothing that %s sent\n",
                     m_options.m_as == "agent" ? "an agent has" : "applications have");
        return EStatus::Negative;
    }
    std::printf("sent: %zu, different: %zu\n", m_sent, m_different);
    if (m_different > 0) {
        std::fprintf(stderr, "kelctl: not all is as it was recorded\n");
        return EStatus::Negative;
    }
    return EStatus::Success;
}

bool TCReplay::m_AsApplications()
{
    for (const TSRecordedCall& recorded : m_recording.Calls()) {
        if (!recorded.m_call.m_toAgent) {
            continue;
        }
        m_WaitFor(recorded);
        TCReplayEnd* const application = m_Application(recorded.m_call.m_from);
        if (application == nullptr) {
            return false;
        }
        m_Send(*application, recorded, m_channel.m_agent);
    }
    IterateUntil([this] { return m_waiting == 0; }, g_get_monotonic_time() + 2 * kPatience);
    return true;
}

bool TCReplay::m_AsAgent()
{
    TCReplayEnd agent(
        m_channel,
        [this](int type, const TBytes& data) { return m_recording.AnswerTo(true, "", type, data); },
        [this](const std::string& from) {
            if (std::find(m_present.begin(), m_present.end(), from) == m_present.end()
                && m_present.size() < kMostApplications) {
                m_present.push_back(from);
            }
        });
    if (!agent.Connect() || !agent.OwnName()) {
        return false;
    }
    for (const TSRecordedCall& recorded : m_recording.Calls()) {
        const TSChannelCall& call = recorded.m_call;
        m_WaitFor(recorded);
        if (call.m_toAgent) {
            if (!call.m_types.empty()) {
                m_PlaceOf(call.m_from);
            }
            continue;
        }
        const size_t place = m_PlaceOf(call.m_to);
        const auto isThere = [this, place] { return m_present.size() > place; };
        if (m_isPatient && !IterateUntil(isThere, g_get_monotonic_time() + kPatience)) {
            m_isPatient = false;
        }
        if (isThere()) {
            m_Send(agent, recorded, m_present[place]);
        } else {
            m_Tell(recorded, false, "no such application is here");
        }
    }
    IterateUntil([this] { return m_waiting == 0; }, g_get_monotonic_time() + 2 * kPatience);
    return true;
}

TCReplayEnd* TCReplay::m_Application(const std::string& name)
{
    const auto found = m_applications.find(name);
    if (found != m_applications.end()) {
        return found->second.get();
    }
    if (m_applications.size() >= kMostApplications) {
        std::fprintf(stderr, "kelctl: the recording has more than %zu applications\n",
                     kMostApplications);
        return nullptr;
    }
    auto application
        = std::make_unique<TCReplayEnd>(m_channel, [this, name](int type, const TBytes& data) {
              return m_recording.AnswerTo(false, name, type, data);
          });
    if (!application->Connect()) {
        return nullptr;
    }
    return (m_applications[name] = std::move(application)).get();
}

// Which of the recorded applications it is: those that are here take their places as they come.
size_t TCReplay::m_PlaceOf(const std::string& name)
{
    const auto found = std::find(m_recorded.begin(), m_recorded.end(), name);
    const size_t place = static_cast<size_t>(found - m_recorded.begin());
    if (found == m_recorded.end()) {
        m_recorded.push_back(name);
    }
    return place;
}

void TCReplay::m_WaitFor(const TSRecordedCall& recorded) const
{
    const TMicroseconds since = recorded.m_call.m_time - m_recording.Calls().front().m_call.m_time;
    const double scaled = static_cast<double>(since) / m_options.m_speed;
    IterateUntil([] { return false; }, m_start + static_cast<TMicroseconds>(scaled));
}

void TCReplay::m_Send(TCReplayEnd& end, const TSRecordedCall& recorded, const std::string& to)
{
    if (recorded.m_call.m_kind == TSChannelCall::EKind::Other) {
        m_Tell(recorded, false, "none of the channel, and not sent");
        return;
    }
    ++m_sent;
    m_waiting += recorded.m_call.m_isAnswered ? 1 : 0;
    end.Send(recorded.m_call, to, [this, &recorded](const std::optional<TSChannelAnswer>& answer) {
        --m_waiting;
        m_Compare(recorded, answer);
    });
}

void TCReplay::m_Compare(const TSRecordedCall& recorded,
                         const std::optional<TSChannelAnswer>& answer)
{
    const auto text = [&recorded](const std::optional<TSChannelAnswer>& one) {
        return one ? TSTraceText::Outcome(recorded.m_call, *one) : "UNANSWERED";
    };
    const bool same = IsSame(recorded.m_call, recorded.m_answer, answer);
    m_Tell(recorded, same,
           same ? text(answer) : text(answer) + "; recorded: " + text(recorded.m_answer));
}

void TCReplay::m_Tell(const TSRecordedCall& recorded, bool same, const std::string& text)
{
    m_different += same ? 0 : 1;
    std::printf("%s: %s: %s\n", TSTraceText::About(recorded.m_call).c_str(),
                same ? "same" : "DIFFERENT", text.c_str());
    std::fflush(stdout); // whether that works is told at the end
}

EStatus Replay(const TSOptions& options, bool test)
{
    TCRecording recording(test);
    const tools::TCOutcome read = recording.Read(options.m_file);
    if (!read) {
        std::fprintf(stderr, "kelctl: %s\n", read.Reason().c_str());
        return EStatus::WrongUsage;
    }
    return TCReplay(options, recording, test).Run();
}

} // namespace

void AddReplay(CLI::App& program, const TSCommon& common, EStatus& status)
{
    CLI::App* const command = program.add_subcommand("replay", "Send again what a trace has kept");
    const auto options = std::make_shared<TSOptions>();
    command->add_option("FILE", options->m_file, "A pcap; - reads standard input")->required();
    command->add_option("--speed", options->m_speed, "So many times as fast as it was")
        ->type_name("N")
        ->check(&CheckFactor);
    command->add_option("--as", options->m_as, "What to be: agent or applications")
        ->type_name("PART")
        ->check(CLI::IsMember({"agent", "applications"}));
    command->callback([options, &common, &status] { status = Replay(*options, common.m_test); });
}

} // namespace ctl
} // namespace kel
