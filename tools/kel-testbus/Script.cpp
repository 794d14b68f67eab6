#include "Script.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include <gio/gio.h>

#include <kel/ICallbacks.h>

#include "common/Text.h"

namespace kel {
namespace testbus {

namespace {

using tools::TCOutcome;

typedef std::vector<std::string> TWords;

constexpr size_t kLongestScript = 64U << 10;
constexpr long kLongestTime = 24L * 60 * 60; // in seconds

std::string Quoted(const std::string& word) { return "'" + tools::PrintableStart(word, 60) + "'"; }

std::optional<long> ReadNumber(const std::string& text, long least, long most)
{
    char* end = nullptr;
    errno = 0;
    const long number = std::strtol(text.c_str(), &end, 10);
    const bool begins = text[0] == '-' || (text[0] >= '0' && text[0] <= '9'); // with no blank
    if (!begins || *end != '\0' || errno != 0 || number < least || number > most) {
        return std::nullopt;
    }
    return number;
}

unsigned int ReadTime(const std::string& word)
{
    const size_t unit = word.find_first_not_of("0123456789");
    const std::string name = unit == std::string::npos ? "" : word.substr(unit);
    const long milliseconds = name == "s" ? 1000 : 1;
    const std::optional<long> number
        = ReadNumber(word.substr(0, unit), 0, kLongestTime * 1000 / milliseconds);
    if (!number || (name != "s" && name != "ms")) {
        throw std::invalid_argument(Quoted(word)
                                    + " is no time such as 500ms or 2s, of a day at most");
    }
    return static_cast<unsigned int>(*number * milliseconds);
}

// A type by its number, or by the name that it has among these.
int ReadType(const std::string& word, const std::map<std::string, int>& names)
{
    const auto named = names.find(word);
    if (named != names.end()) {
        return named->second;
    }
    const std::optional<long> number = ReadNumber(word, INT_MIN, INT_MAX);
    if (number) {
        return static_cast<int>(*number);
    }
    std::string known;
    for (const auto& name : names) {
        known += name.first + ", ";
    }
    throw std::invalid_argument(Quoted(word) + " is none of " + known + "nor a number");
}

int ReadMessage(const std::string& word) { return ReadType(word, {{"set-policy", kSetPolicy}}); }

int ReadEvent(const std::string& word)
{
    return ReadType(word, {{"policy-update", ICallbacks::POLICY_UPDATE},
                           {"process-info-request", ICallbacks::REQUEST_PROCESS_INFO}});
}

// Takes "after TIME" from the end of a line.
unsigned int TakeDelay(TWords& words)
{
    if (words.back() == "after") {
        throw std::invalid_argument("a time is missing behind 'after'");
    }
    if (words.size() < 3 || words[words.size() - 2] != "after") {
        return 0;
    }
    const unsigned int delay = ReadTime(words.back());
    words.resize(words.size() - 2);
    return delay;
}

void NeedWords(const TWords& words, size_t least, size_t most, const char* form)
{
    if (words.size() < least || words.size() > most) {
        throw std::invalid_argument(std::string("this has to be: ") + form);
    }
}

TSAnswer ReadGarbage(const TWords& words)
{
    TSAnswer answer;
    if (words.size() == 3 || words[3] == "junk") {
        answer.m_kind = TSAnswer::EKind::Junk;
    } else if (words[3] == "no-bytes") {
        answer.m_kind = TSAnswer::EKind::NoBytes;
    } else if (words[3] == "other-type") {
        answer.m_kind = TSAnswer::EKind::OtherType;
    } else {
        throw std::invalid_argument(Quoted(words[3]) + " is none of junk, no-bytes, other-type");
    }
    return answer;
}

// Of the words "on MESSAGE ANSWER [DETAIL]".
TSAnswer ReadAnswer(const TWords& words)
{
    const std::string& kind = words[2];
    const bool isDetailed = words.size() > 3;
    TSAnswer answer;
    if (kind == "handled") {
        answer.m_kind = TSAnswer::EKind::Handled;
        if (isDetailed) {
            const std::optional<long> result = ReadNumber(words[3], INT_MIN, INT_MAX);
            if (!result) {
                throw std::invalid_argument(Quoted(words[3]) + " is no number to answer with");
            }
            answer.m_result = static_cast<int>(*result);
        }
    } else if (kind == "error") {
        answer.m_kind = TSAnswer::EKind::Error;
        answer.m_error = isDetailed ? words[3] : "org.freedesktop.DBus.Error.Failed";
        if (!g_dbus_is_interface_name(answer.m_error.c_str())) { // the same rules
            throw std::invalid_argument(Quoted(words[3]) + " is no name of a D-Bus error");
        }
    } else if (kind == "garbage") {
        answer = ReadGarbage(words);
    } else if (kind == "not-handled" || kind == "nothing") {
        answer.m_kind = kind == "nothing" ? TSAnswer::EKind::Nothing : TSAnswer::EKind::NotHandled;
        NeedWords(words, 3, 3, "on MESSAGE not-handled|nothing [after TIME]");
    } else {
        throw std::invalid_argument(Quoted(kind)
                                    + " is none of handled, not-handled, error, garbage, nothing");
    }
    return answer;
}

} // namespace

/// Reads the lines of a script. What is wrong with one is thrown as std::invalid_argument.
class TCScriptReader
{
public:
    void Read(const std::string& line)
    {
        std::istringstream stream(line.substr(0, line.find('#')));
        TWords words;
        for (std::string word; stream >> word;) {
            words.push_back(word);
        }
        if (words.empty()) {
            return;
        }
        const unsigned int delay = TakeDelay(words);
        if (words[0] == "on") {
            m_ReadAnswer(words, delay);
        } else if (words[0] == "wait") {
            m_ReadWait(words, delay);
        } else {
            m_ReadStep(words, delay);
        }
    }

    TCScript m_script;

private:
    void m_ReadAnswer(const TWords& words, unsigned int delay)
    {
        NeedWords(words, 3, 4, "on MESSAGE ANSWER [after TIME]");
        std::optional<int> type;
        if (words[1] != "any") {
            type = ReadMessage(words[1]);
        }
        TSAnswer answer = ReadAnswer(words);
        answer.m_delay = delay;
        if (delay != 0 && answer.m_kind == TSAnswer::EKind::Nothing) {
            throw std::invalid_argument("nothing has no time after which it is answered");
        }
        auto& answers = type ? m_script.m_answers[*type] : m_script.m_otherAnswers;
        answers.push_back(answer);
    }

    void m_ReadWait(const TWords& words, unsigned int delay)
    {
        NeedWords(words, 2, 3, "wait MESSAGE, or wait client [EVENT]");
        TSStep step{TSStep::EKind::WaitForClient, 0, {}, 0};
        if (delay != 0) {
            throw std::invalid_argument("what waits has no time: give it to the next line");
        }
        if (words[1] != "client") {
            NeedWords(words, 2, 2, "wait MESSAGE");
            step.m_kind = TSStep::EKind::WaitForMessage;
            step.m_type = ReadMessage(words[1]);
            step.m_number = ++m_waits[*step.m_type];
        } else if (words.size() == 3) {
            step.m_type = ReadEvent(words[2]);
        }
        m_Add(step);
    }

    void m_ReadStep(const TWords& words, unsigned int delay)
    {
        TSStep step{TSStep::EKind::Send, delay, {}, 0};
        if (words[0] == "send") {
            NeedWords(words, 2, 2, "send EVENT [after TIME]");
            step.m_type = ReadEvent(words[1]);
        } else if (words[0] == "vanish" || words[0] == "return") {
            NeedWords(words, 1, 1, "vanish|return [after TIME]");
            step.m_kind = words[0] == "vanish" ? TSStep::EKind::Vanish : TSStep::EKind::Return;
        } else {
            throw std::invalid_argument(Quoted(words[0])
                                        + " is none of on, send, vanish, return, wait");
        }
        m_Add(step);
    }

    // Nobody is told to do what he cannot: the agent is there or away.
    void m_Add(const TSStep& step)
    {
        const bool isReturn = step.m_kind == TSStep::EKind::Return;
        // As the first step it tells that the script begins without the agent.
        if (isReturn && !m_isAway && !m_script.m_steps.empty()) {
            throw std::invalid_argument("the agent is there already");
        }
        if (!isReturn && m_isAway) {
            throw std::invalid_argument("the agent is away: it has to return first");
        }
        m_isAway = step.m_kind == TSStep::EKind::Vanish;
        m_script.m_steps.push_back(step);
    }

    std::map<int, size_t> m_waits; // for messages of each type, so far
    bool m_isAway = false;
};

TCOutcome TCScript::Read(const std::string& path, TCScript& script)
{
    std::ifstream file(path);
    std::string text;
    // A directory opens, and cannot be read.
    if (!file || (file.peek(), file.bad())) {
        return TCOutcome::Failed(path + ": " + std::strerror(errno));
    }
    TCScriptReader reader;
    size_t number = 0;
    size_t size = 0;
    while (std::getline(file, text)) {
        ++number;
        size += text.size() + 1;
        try {
            if (size > kLongestScript) {
                throw std::invalid_argument("a script ends before 64 KiB");
            }
            reader.Read(text);
        } catch (const std::invalid_argument& fault) {
            return TCOutcome::Failed(path + ":" + std::to_string(number) + ": " + fault.what());
        }
    }
    script = reader.m_script;
    return TCOutcome();
}

TSAnswer TCScript::Answer(int type, size_t earlier) const
{
    const auto found = m_answers.find(type);
    const std::vector<TSAnswer>& answers
        = found != m_answers.end() ? found->second : m_otherAnswers;
    return answers.empty() ? TSAnswer() : answers[std::min(earlier, answers.size() - 1)];
}

std::set<int> TCScript::Types() const
{
    std::set<int> types;
    for (const auto& answers : m_answers) {
        types.insert(answers.first);
    }
    for (const TSStep& step : m_steps) {
        if (step.m_kind == TSStep::EKind::WaitForMessage) {
            types.insert(*step.m_type);
        }
    }
    return types;
}

bool TCScript::IsAwayAt(size_t step) const
{
    const auto isTurn = [](const TSStep& other) {
        return other.m_kind == TSStep::EKind::Vanish || other.m_kind == TSStep::EKind::Return;
    };
    const auto here = m_steps.begin() + static_cast<std::ptrdiff_t>(step);
    const auto next = std::find_if(here, m_steps.end(), isTurn);
    if (next != m_steps.end()) {
        return next->m_kind == TSStep::EKind::Return;
    }
    const auto last = std::find_if(std::make_reverse_iterator(here), m_steps.rend(), isTurn);
    return last != m_steps.rend() && last->m_kind == TSStep::EKind::Vanish;
}

} // namespace testbus
} // namespace kel
