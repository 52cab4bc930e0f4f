// How the helper-server library says why it refused or failed: one line at
// the error level of the system log, in words a user can act on. Not part of
// the library's interface.
#pragma once

#include <cstdarg>

#include "platform/systemlog/system_log.h"

namespace kel {

inline __attribute__((format(printf, 1, 2))) void reportError(const char* format, ...) {
    static const systemlog::Handle sLog = systemlog::create(systemlog::kSubsystem, "HelperServer");
    va_list args;
    va_start(args, format);
    systemlog::writeV(sLog, systemlog::Level::kError, format, args);
    va_end(args);
}

}  // namespace kel
