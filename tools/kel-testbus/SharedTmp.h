#pragma once

#include <sys/types.h>

#include <set>
#include <string>
#include <utility>

namespace kel {
namespace testbus {

/// Where "/tmp" is the machine's: with this object what this user's agents and applications have
/// made there meanwhile is gone. What was there before stays, and what others have put into it.
class TCSharedTmp
{
public:
    /// @param withAgent  an agent is going to work there, which takes the requests that wait.
    /// @throws std::runtime_error when it would take what is not meant for it.
    explicit TCSharedTmp(bool withAgent);
    ~TCSharedTmp();
    TCSharedTmp(const TCSharedTmp&) = delete;
    TCSharedTmp& operator=(const TCSharedTmp&) = delete;

private:
    // Names with their numbers: what takes another's place has another one.
    typedef std::set<std::pair<std::string, ino_t>> TEntries;

    static TEntries m_Entries();

    const TEntries m_earlier;
};

} // namespace testbus
} // namespace kel
