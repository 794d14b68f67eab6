// Applications with a fault each: the tools name them as docs/when-it-does-not-work.md tells.

#include <algorithm>
#include <iterator>
#include <map>
#include <set>

#include <gmock/gmock.h>

#include "e2e/TraceRoad.h"

namespace kel::test {

namespace {

typedef std::vector<std::string> TWords;

constexpr char kTrace[] = "kelctl trace";
constexpr char kTestTrace[] = "kelctl --test trace";
constexpr char kClients[] = "kelctl status --clients --watch";
constexpr char kReports[] = "kelctl reports";
constexpr char kLog[] = "journalctl";
constexpr char kItsName[] = ":1.7"; // of the application, in the document

// What a tool shows of a fault.
struct TSPromise
{
    std::string m_tool;
    TWords m_words; // in this order in one line
};

// The parts of a text between these.
TWords Split(const std::string& text, const std::string& separator)
{
    TWords parts;
    size_t at = 0;
    for (size_t end = 0; (end = text.find(separator, at)) != std::string::npos;) {
        parts.push_back(text.substr(at, end - at));
        at = end + separator.size();
    }
    parts.push_back(text.substr(at));
    return parts;
}

std::string Joined(const TWords& parts, const std::string& separator)
{
    std::string text = parts[0];
    for (size_t i = 1; i < parts.size(); ++i) {
        text += separator + parts[i];
    }
    return text;
}

// The texts between backticks.
TWords Quoted(const std::string& text)
{
    const TWords parts = Split(text, "`");
    TWords quoted;
    for (size_t i = 1; i < parts.size(); i += 2) {
        quoted.push_back(parts[i]);
    }
    return quoted;
}

std::vector<TSPromise> PromisesIn(const std::string& cell)
{
    std::vector<TSPromise> promises;
    std::string tool;
    for (const std::string& quoted : Quoted(cell)) {
        if (quoted.rfind("kelctl ", 0) == 0 || quoted == kLog) {
            tool = quoted;
        } else {
            promises.push_back({tool, Split(quoted, "...")});
        }
    }
    return promises;
}

// The document's table, by fault.
std::map<std::string, std::vector<TSPromise>> Table()
{
    const std::string document = ReadFile(KEL_DOCS "/when-it-does-not-work.md");
    const std::string section
        = Split(Split(document, "\n## Faulty applications\n").back(), "\n## ")[0];
    std::map<std::string, std::vector<TSPromise>> table;
    for (const std::string& line : Split(section, "\n")) {
        const TWords cells = Split(line, " | ");
        if (cells.size() == 3 && cells[0].rfind("| `", 0) == 0) {
            table[Quoted(cells[0])[0]] = PromisesIn(cells[1]);
        }
    }
    return table;
}

bool HasInOrder(const std::string& line, const TWords& words)
{
    size_t at = 0;
    for (const std::string& word : words) {
        at = line.find(word, at);
        if (at == std::string::npos) {
            return false;
        }
        at += word.size();
    }
    return true;
}

// The policy of a bus that nobody has told of applications: the agent may have its name.
PrivateBus::TSOptions BusFor(const std::string& fault)
{
    PrivateBus::TSOptions options;
    if (fault == "no-bus-policy") {
        options.m_projectPolicy = false;
        options.m_thisUserIsAgent = false;
        options.m_config = "<policy context=\"mandatory\">"
                           "<allow own=\"com.norvale.kel.IControl\"/></policy>";
    }
    return options;
}

} // namespace

class FaultyApplication : public TraceRoad
{
protected:
    explicit FaultyApplication(const std::string& fault)
        : TraceRoad(BusFor(fault)), m_fault(fault), m_agent(StartAgent())
    {
        EXPECT_TRUE(Says(*m_agent, "kel-agent: ready\n"));
    }

    // Has these tools look, and then starts the application.
    void Start(const std::set<std::string>& tools)
    {
        for (const std::string& tool : tools) {
            if (tool == kReports || tool == kLog) {
                continue;
            }
            TWords command = Split(tool, " ");
            command[0] = KEL_CTL;
            m_tools[tool] = std::make_unique<ChildProcess>(command);
            const char* const first = tool == kClients ? "running: " : " agent";
            ASSERT_TRUE(m_tools[tool]->WaitForOutput(first)) << m_tools[tool]->ErrorOutput();
        }
        m_application = std::make_unique<ChildProcess>(
            TWords{KEL_FAULTY_APPLICATION, m_fault},
            ChildProcess::TEnvironment{{"KEL_HOST_LOG", "stderr"}});
        ASSERT_TRUE(m_application->WaitForOutput("\n")) << m_application->ErrorOutput();
        m_name = Split(m_application->Output(), "\n")[0];
    }

    std::string ShownBy(const std::string& tool)
    {
        if (tool == kLog) {
            return m_agent->ErrorOutput() + m_application->ErrorOutput();
        }
        return tool == kReports ? Kelctl({"reports", "--state-dir", m_stateDir}).m_output
                                : m_tools.at(tool)->Output();
    }

    // Whether a line that tells of the application has the words. A log need not name it.
    bool IsShown(TSPromise promise)
    {
        for (std::string& word : promise.m_words) {
            word = Joined(Split(word, kItsName), m_name);
        }
        const TWords lines = Split(ShownBy(promise.m_tool), "\n");
        return std::any_of(lines.begin(), lines.end(), [&](const std::string& line) {
            return HasInOrder(line, promise.m_words)
                   && (promise.m_tool == kLog || HasInOrder(line, {m_name + " "})
                       || HasInOrder(line, {"faulty"}));
        });
    }

    const std::string m_fault;
    const std::unique_ptr<ChildProcess> m_agent;
    std::map<std::string, std::unique_ptr<ChildProcess>> m_tools;
    std::unique_ptr<ChildProcess> m_application;
    std::string m_name; // on the bus
};

class FaultNamedByATool : public FaultyApplication, public testing::WithParamInterface<const char*>
{
protected:
    FaultNamedByATool() : FaultyApplication(GetParam()) {}
};

TEST_P(FaultNamedByATool, AsTheDocumentTells)
{
    const std::vector<TSPromise> promises = Table()[GetParam()];
    std::set<std::string> tools;
    for (const TSPromise& promise : promises) {
        tools.insert(promise.m_tool);
    }
    ASSERT_FALSE(tools.empty());
    ASSERT_NO_FATAL_FAILURE(Start(tools));

    for (const TSPromise& promise : promises) {
        EXPECT_TRUE(WaitUntil([&] { return IsShown(promise); }))
            << promise.m_tool << " does not show of " << m_name << ": "
            << testing::PrintToString(promise.m_words) << "\n"
            << ShownBy(promise.m_tool);
    }
}

const char* const kFaults[]
    = {"no-loop",          "throws",      "slow",         "ends",          "declines",
       "another-type",     "no-function", "no-xml",       "large-policy",  "no-archive",
       "unknown-type",     "flood",       "test-channel", "no-bus-policy", "no-artefact",
       "private-artefact", "no-method",   "odd-answer",   "large-message"};
INSTANTIATE_TEST_SUITE_P(Application, FaultNamedByATool, testing::ValuesIn(kFaults),
                         [](const auto& fault) {
                             std::string name = fault.param;
                             std::replace(name.begin(), name.end(), '-', '_');
                             return name;
                         });

TEST(FaultsOfApplications, AllHaveARowInTheDocumentAndATest)
{
    std::set<std::string> told;
    for (const auto& [fault, promises] : Table()) {
        told.insert(fault);
    }
    const TWords listed = Split(RunProgram({KEL_FAULTY_APPLICATION, "--list"}).m_output, "\n");
    std::set<std::string> made(listed.begin(), listed.end());
    made.erase(""); // behind the last line
    made.erase("none");

    EXPECT_EQ(told, std::set<std::string>(std::begin(kFaults), std::end(kFaults)));
    EXPECT_EQ(made, told);
}

class ApplicationWithoutAFault : public FaultyApplication
{
protected:
    ApplicationWithoutAFault() : FaultyApplication("none") {}
};

TEST_F(ApplicationWithoutAFault, ShowsNoneOfTheSigns)
{
    ASSERT_NO_FATAL_FAILURE(Start({kTrace, kTestTrace, kClients}));
    ASSERT_TRUE(WaitUntil([this] { return IsShown({kClients, {" SENT 1 HANDLED 1 "}}); }));

    for (const auto& [fault, promises] : Table()) {
        for (const TSPromise& promise : promises) {
            EXPECT_FALSE(IsShown(promise)) << fault << ": " << promise.m_tool;
        }
    }
}

} // namespace kel::test
