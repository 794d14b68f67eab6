#pragma once

#include <string>

#include <kel/KELExport.h>

/// @file
/// Requests for an issue report. A request is left where the agent looks for it; the library does
/// not talk to the agent. Progress goes to standard output, in lines that begin "[kel_courier] ".
///
/// In all of them, a null name is replaced by the other one. Every call returns 1 on success and
/// -1 on failure: both names null, or the request could not be left. Calls from several threads or
/// processes do not wait for one another; of two requests in the same place the later one stays.
///
/// @snippet class-examples.cpp Request_NDF

/// The send mode of a request file: the last field of its name. Any other value counts as POLICY.
/// The library writes the word; what it means is the agent's business.
enum artifactSendFlag : int {
    OQC_ALWAYS = 0, ///< "OQC_ALWAYS"
    ALWAYS = 1,     ///< "ALWAYS"
    ONCE_ONLY = 2,  ///< "ONCE_ONLY"
    POLICY = 3      ///< "POLICY": as the agent's policy has it
};

/// Leaves "process|thread|reboot", of 511 characters at most, in the key "memory/kel/ndf_one" of
/// the key-value store, in place of the request before.
///
/// @param processName    what the report is about; null for the thread's name.
/// @param threadName     null for the process's name.
/// @param requestReboot  0: no reboot.
/// @return 1; -1 when both names are null, or the store has refused the value.
KEL_EXPORT int Request_NDF(char* processName, char* threadName, int requestReboot);

/// The same without a reboot.
KEL_EXPORT int Request_NDF(char* processName, char* threadName);

/// Leaves the file "process-thread-mode.log" in "/tmp/kel_NDF", or in "/tmp/kel_NDF_reboot" for a
/// request with a reboot. The directory must exist. The path is cut at 126 characters. No link of
/// that name is followed and no FIFO waited for: either is a failure.
///
/// @param flag           the send mode.
/// @param processName    what the report is about; null for the thread's name.
/// @param threadName     null for the process's name.
/// @param uploadPath     the artefact to upload: the content of the file.
/// @param requestReboot  0: no reboot.
/// @return 1; -1 when both names are null, or the file could not be opened.
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
