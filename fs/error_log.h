// The file-system library's error messages: one line in the system log at the
// error level, under the "global" category that the daemon's global log
// context also names. Not part of the library's interface.
#pragma once

#include <cstdarg>

#include "platform/systemlog/system_log.h"

namespace fsutil::internal {

// Formats like printf; nothing when the error level is disabled.
inline __attribute__((format(printf, 1, 2))) void logError(const char* format, ...) {
    va_list args;
    va_start(args, format);
    static const systemlog::Handle sLog = systemlog::create(systemlog::kSubsystem, "global");
    systemlog::writeV(sLog, systemlog::Level::kError, format, args);
    va_end(args);
}

}  // namespace fsutil::internal
