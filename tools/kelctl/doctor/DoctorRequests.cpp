#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <functional>
#include <limits>
#include <string>

#include "common/Text.h"
#include "doctor/DoctorFiles.h"
#include "requests/Places.h"
#include "requests/Request.h"
#include "requests/TakenName.h"

namespace kel {
namespace ctl {

using tools::GetStatus;
using tools::OpenIn;
using tools::TCDescriptor;

namespace {

typedef std::chrono::steady_clock TClock;

// Anybody may leave more than can be looked at.
constexpr size_t kMostNames = 16384; // as many requests wait at most
constexpr std::chrono::milliseconds kLongest(250);

// An agent takes a request at once, and makes a report of it within seconds; an artefact takes
// longer.
constexpr int64_t kPatience = 10; // s
constexpr int64_t kReportPatience = 60;
constexpr int64_t kNanoseconds = 1'000'000'000;

constexpr char kStart[] = "is an agent running? systemctl start kel-agent; then its log tells: "
                          "journalctl --grep 'kel-agent: '";

// Requests that wait, and since when the oldest.
struct TSQueue
{
    size_t m_count = 0;
    int64_t m_since = std::numeric_limits<int64_t>::max(); // s
    std::string m_oldest;

    void Add(int64_t since, const std::string& where)
    {
        ++m_count;
        if (since < m_since) {
            m_since = since;
            m_oldest = where;
        }
    }
};

void TellAge(const TCCheck& check, const TSQueue& queue, const std::string& words, int64_t age,
             int64_t patience, const std::string& meaning)
{
    if (queue.m_count == 0 || age <= patience) {
        check.Good(words);
    } else {
        check.Warn(words + ", the oldest, " + queue.m_oldest + ", for " + AgeText(age) + ": "
                       + meaning,
                   kStart);
    }
}

// Looks at what is in the directories of requests, and opens none of it. Names are strangers'.
class TCRequestLook
{
public:
    explicit TCRequestLook(int temporary) : m_temporary(temporary) {}

    /// False with errno set when this user may not.
    bool LookInto(const agent::TSDrop& drop);
    bool LookIntoTaken();

    void Tell(TFindings& findings) const;

private:
    bool m_List(const char* name, const std::function<void(int, const std::string&)>& visit);
    void m_Judge(int directory, const std::string& name, const agent::TSDrop& drop);
    void m_TellAges(TFindings& findings) const;
    void m_TellNames(TFindings& findings) const;

    const int m_temporary;
    const int64_t m_now = tools::Now().tv_sec;
    bool m_isCut = false; // there is more than was looked at
    TSQueue m_requests;
    TSQueue m_taken;
    TSTally m_junk;
    TSTally m_cut;      // names
    TSTally m_occupied; // names of requests that something else has
    TSTally m_shared;   // names that other requests would have, too
    TSTally m_future;
};

// What cannot be opened for another reason than rights is told of by the check of the directories.
bool TCRequestLook::m_List(const char* name,
                           const std::function<void(int, const std::string&)>& visit)
{
    const TCDescriptor directory = OpenIn(m_temporary, name, O_RDONLY | O_DIRECTORY);
    if (!directory.IsOpen()) {
        return errno != EACCES && errno != EPERM;
    }
    const TClock::time_point end = TClock::now() + kLongest;
    size_t count = 0;
    tools::ForEachName(directory.Get(), [&](const std::string& entry, unsigned char) {
        if (++count > kMostNames || TClock::now() > end) {
            m_isCut = true;
            return false;
        }
        visit(directory.Get(), entry);
        return true;
    });
    return true;
}

bool TCRequestLook::LookInto(const agent::TSDrop& drop)
{
    return m_List(drop.Name(),
                  [&](int directory, const std::string& name) { m_Judge(directory, name, drop); });
}

bool TCRequestLook::LookIntoTaken()
{
    return m_List(agent::kTakenName, [this](int, const std::string& name) {
        agent::TSTakenName taken;
        if (agent::TSTakenName::Read(name, taken)) {
            m_taken.Add(static_cast<int64_t>(taken.m_filed / kNanoseconds), taken.m_name);
        }
    });
}

void TCRequestLook::m_Judge(int directory, const std::string& name, const agent::TSDrop& drop)
{
    const std::string where = name + " in " + drop.m_path;
    agent::TSRequest request;
    if (!agent::ReadFileName(name, drop.NameSize(), request)) {
        m_junk.Add(where);
        return;
    }
    // As a place alone: nothing that is mounted or waited for there answers.
    const TCDescriptor file = OpenIn(directory, name, O_PATH);
    struct stat status = {};
    if (!file.IsOpen() && errno == ENOENT) {
        return; // it has just been taken
    }
    if (!file.IsOpen() || !GetStatus(file.Get(), status) || !S_ISREG(status.st_mode)
        || status.st_nlink > 1) {
        m_occupied.Add(where);
        return;
    }
    m_requests.Add(status.st_ctim.tv_sec, where); // which nobody can set
    if (request.m_cut) {
        m_cut.Add(where);
    } else if (request.m_process != request.m_thread
               && request.m_process.find(tools::kRequestNameSeparator) != std::string::npos) {
        m_shared.Add(where);
    }
    if (IsOfTheFuture(status.st_mtim.tv_sec, m_now)) {
        m_future.Add(where + ", of " + tools::IsoTime(status.st_mtim));
    }
}

void TCRequestLook::Tell(TFindings& findings) const
{
    m_TellAges(findings);
    m_TellNames(findings);
    TCCheck("clock", findings)
        .Judge(m_future, "no request that waits is of the future",
               "request that waits is of the future", "requests that wait are of the future",
               "the clock was set back, or its owner has dated it",
               "is the clock right? timedatectl");
}

void TCRequestLook::m_TellAges(TFindings& findings) const
{
    const std::string more = m_isCut ? ", of those that were looked at" : "";
    TellAge(TCCheck("requests", findings), m_requests,
            CountText(m_requests.m_count, "request waits", "requests wait")
                + " in the drop directories" + more,
            m_now - m_requests.m_since, kPatience, "no agent takes them");
    TellAge(TCCheck("taken", findings), m_taken,
            CountText(m_taken.m_count, "request that was taken waits for its report",
                      "requests that were taken wait for their reports")
                + more,
            m_now - m_taken.m_since, kReportPatience, "no agent runs, or it cannot store reports");
}

void TCRequestLook::m_TellNames(TFindings& findings) const
{
    TCCheck("junk", findings)
        .Judge(m_junk, "nothing in the drop directories has a name that no request has",
               "thing in the drop directories is no request",
               "things in the drop directories are no requests", "an agent removes them",
               "requests are left by the library, or by kelctl report; their form is in "
               "docs/request-format.md");
    TCCheck("cut names", findings)
        .Judge(m_cut, "no request that waits has a name that was cut",
               "request has a name that was too long, and was cut",
               "requests have names that were too long, and were cut",
               "such a name has lost its mode, and others are cut to the same",
               "give process and thread shorter names");
    const TCCheck collisions("collisions", findings);
    if (m_occupied.m_count > 0) {
        collisions.Fail(
            CountText(m_occupied.m_count, "name of a request is", "names of requests are")
                + " taken by what is none, such as " + m_occupied.m_example
                + ": a directory, a link, a FIFO or a file with several names, which "
                  "keeps the request out",
            "start an agent, which removes it: systemctl start kel-agent");
    }
    if (m_shared.m_count > 0) {
        collisions.Warn(CountText(m_shared.m_count, "request has", "requests have")
                            + " a name that is another's, too, such as " + m_shared.m_example
                            + ": a hyphen may be the process's or the thread's, and the later of "
                              "two requests replaces the other",
                        "give threads names without a hyphen");
    }
    if (m_occupied.m_count == 0 && m_shared.m_count == 0) {
        collisions.Good("no request that waits is in another's way");
    }
}

} // namespace

void CheckRequests(TFindings& findings)
{
    const TCDescriptor temporary = OpenTemporary();
    TCRequestLook look(temporary.Get());
    bool mayLook = look.LookIntoTaken();
    for (const agent::TSDrop& drop : agent::kDrops) {
        mayLook = look.LookInto(drop) && mayLook;
    }
    if (mayLook) {
        look.Tell(findings);
    } else {
        TCCheck("requests", findings)
            .OnlyRoot("what waits in the drop directories: its age, junk, cut names, collisions "
                      "and times");
    }
}

} // namespace ctl
} // namespace kel
