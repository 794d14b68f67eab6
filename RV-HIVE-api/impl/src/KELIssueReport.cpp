#include <kel/KELIssueReport.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <utility>

#include <vconf.h>

#include "KELDescriptor.h"

namespace {

constexpr char kRequestKey[] = "memory/kel/ndf_one";
constexpr char kNoArtefact[] = "NO_PATH";
constexpr size_t kValueSize = 512; // these three with the terminator
constexpr size_t kFileNameSize = 511;
constexpr size_t kPathSize = 127;

constexpr int kDone = 1;
constexpr int kFailed = -1;

const char* ModeWord(int flag)
{
    switch (flag) {
    case OQC_ALWAYS:
        return "OQC_ALWAYS";
    case ALWAYS:
        return "ALWAYS";
    case ONCE_ONLY:
        return "ONCE_ONLY";
    default:
        return "POLICY";
    }
}

// Puts one name in the place of the other where it is missing; false when both are.
bool CompleteNames(const char*& processName, const char*& threadName)
{
    if (processName == nullptr) {
        processName = threadName;
    } else if (threadName == nullptr) {
        threadName = processName;
    }
    return processName != nullptr;
}

} // namespace

int Request_NDF(char* processName, char* threadName, int requestReboot)
{
    const char* process = processName;
    const char* thread = threadName;
    if (!CompleteNames(process, thread)) {
        return kFailed;
    }

    char value[kValueSize];
    snprintf(value, sizeof(value), "%s|%s|%d", process, thread, requestReboot);

    // Without a newline, on purpose: who reads the output knows it so.
    printf(
        "[kel_courier] NDF request recieved. Process Name = %s, Thread Name = %s, requestReboot = "
        "%d",
        process, thread, requestReboot);
    if (vconf_set_str(kRequestKey, value) != 0) {
        printf("[kel_courier] VCONF NDF NOT SET\n");
        return kFailed;
    }
    return kDone;
}

int Request_NDF(char* processName, char* threadName)
{
    return Request_NDF(processName, threadName, 0);
}

// The signature is fixed: the path comes by value.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
int Request_NDF(artifactSendFlag flag, char* processName, char* threadName, std::string uploadPath,
                int requestReboot)
{
    const char* process = processName;
    const char* thread = threadName;
    if (!CompleteNames(process, thread)) {
        return kFailed;
    }

    char fileName[kFileNameSize];
    snprintf(fileName, sizeof(fileName), "%s-%s-%s.log", process, thread, ModeWord(flag));

    char path[kPathSize];
    const char* const format = requestReboot != 0 ? "/tmp/kel_NDF_reboot/%s" : "/tmp/kel_NDF/%s";
    snprintf(path, sizeof(path), format, fileName);

    printf("[kel_courier] NDF2 api request = %s, uploadPath = %s\n", path, uploadPath.c_str());

    // Truncated once it is certain to be a request's: the drop may be anybody's to write to.
    const kel::TCDescriptor request(kel::OpenOwnFile(path, O_WRONLY | O_CLOEXEC));
    if (request.Get() < 0 || ftruncate(request.Get(), 0) != 0) {
        printf("[kel_courier] FILE OPEN FAILED \n");
        return kFailed;
    }
    kel::WriteAll(request.Get(), uploadPath.data(), uploadPath.size());
    return kDone;
}

int Request_NDF(artifactSendFlag flag, char* processName, char* threadName, int requestReboot)
{
    return Request_NDF(flag, processName, threadName, kNoArtefact, requestReboot);
}

int Request_NDF(artifactSendFlag flag, char* processName, char* threadName, std::string uploadPath)
{
    return Request_NDF(flag, processName, threadName, std::move(uploadPath), 0);
}

int Request_NDF(artifactSendFlag flag, char* processName, char* threadName)
{
    return Request_NDF(flag, processName, threadName, kNoArtefact, 0);
}
