#pragma once

#include <string>

#include <kel/KELExport.h>

// Requests for an issue report. A request is left where the agent looks for it; the library does
// not talk to the agent. Progress goes to standard output, in lines that begin "[kel_courier] ".
//
// In all of them, a null name is replaced by the other one. Every call returns 1 on success and
// -1 on failure: both names null, or the request could not be left. Calls from several threads or
// processes do not wait for one another; of two requests in the same place the later one stays.

/// The send mode of a request file: the last field of its name. Any other value counts as POLICY.
enum artifactSendFlag : int { OQC_ALWAYS = 0, ALWAYS = 1, ONCE_ONLY = 2, POLICY = 3 };

/// Leaves "process|thread|reboot", of 511 characters at most, in the key "memory/kel/ndf_one" of
/// the key-value store, in place of the request before.
KEL_EXPORT int Request_NDF(char* processName, char* threadName, int requestReboot);

/// The same without a reboot.
KEL_EXPORT int Request_NDF(char* processName, char* threadName);

/// Leaves the file "process-thread-mode.log" in "/tmp/kel_NDF", or in "/tmp/kel_NDF_reboot" for a
/// request with a reboot. The directory must exist. The path is cut at 126 characters. No link of
/// that name is followed and no FIFO waited for: either is a failure.
///
/// @param flag           the send mode.
/// @param uploadPath     the artefact to upload: the content of the file.
/// @param requestReboot  0: no reboot.
KEL_EXPORT int Request_NDF(artifactSendFlag flag, char* processName, char* threadName,
                           std::string uploadPath, int requestReboot);

/// The same without an artefact: the content is "NO_PATH".
KEL_EXPORT int Request_NDF(artifactSendFlag flag, char* processName, char* threadName,
                           int requestReboot);

/// The same without a reboot.
KEL_EXPORT int Request_NDF(artifactSendFlag flag, char* processName, char* threadName,
                           std::string uploadPath);

/// The same without an artefact and without a reboot.
KEL_EXPORT int Request_NDF(artifactSendFlag flag, char* processName, char* threadName);
