#include "KernelLog.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <kel/KELKernelLog.h>

namespace kel {
namespace tools {

namespace {

constexpr char kSnapshot[] = "/tmp/Device_Tracker.log";

// Has an empty file of its own there. Anybody may have been there before: a link would lead what is
// written elsewhere, a FIFO would stop us for good, and a file's content would pass for the
// kernel's. Nobody else can replace what we have made, because /tmp is sticky.
class TCSnapshotPlace
{
public:
    explicit TCSnapshotPlace(std::string& reason)
    {
        unlink(kSnapshot);
        const int file = open(kSnapshot, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        m_ours = file >= 0;
        if (m_ours) {
            close(file);
        } else {
            reason = std::string(kSnapshot) + ": " + std::strerror(errno);
        }
    }
    ~TCSnapshotPlace()
    {
        if (m_ours) {
            unlink(kSnapshot);
        }
    }
    TCSnapshotPlace(const TCSnapshotPlace&) = delete;
    TCSnapshotPlace& operator=(const TCSnapshotPlace&) = delete;

    bool IsOurs() const { return m_ours; }

private:
    bool m_ours;
};

} // namespace

bool ReadKernelLog(std::vector<std::string>& lines, std::string& reason)
{
    const TCSnapshotPlace place(reason);
    return place.IsOurs() && DumpKernelLog(lines, DUMP_CONDITION_NONE);
}

} // namespace tools
} // namespace kel
