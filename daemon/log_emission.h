// How the daemon's messages leave the process.
//
// Every lifecycle message goes two ways through logInfo: a mirror into the
// system log marked "#I ", and a forced record of level 40 to the log server,
// whose writers get the text without the mark.
#pragma once

#include <memory>

#include "platform/logserver/log.h"

namespace kel {

// Level of every lifecycle record sent to the log server.
inline constexpr lum::LogLevel kLifecycleLevel = static_cast<lum::LogLevel>(40);

// The lifecycle's messages.
inline constexpr const char* kNotAllowedMessage = "Not allowed to host kel helper server!";
inline constexpr const char* kSignalReceivedMessage = "Signal received";
inline constexpr const char* kServerBusyMessage = "Server is busy";
inline constexpr const char* kServerIdleMessage = "Server is idle";
inline constexpr const char* kExitMessage = "Exit!";

// Mirrors `text` to the system log at the default level as "#I " + text, then
// sends it as a forced record of level 40 to `logServer`. Either half may be
// off on its own (a disabled system-log level, a logger level filter).
// `logServer` must not be empty: callers emit nothing without a log server.
// Safe from any thread.
void logInfo(const std::shared_ptr<lum::LogServer>& logServer, const char* text);

// Writes one line at the error level of the system log, under the program's
// name: what the daemon found wrong around it, and works around or ends on.
// Formats like printf. Safe from any thread.
void logError(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace kel
