// The file-system library's error messages: one line in the system log at the
// error level, through the process-wide "global" context. Not part of the
// library's interface.
#pragma once

#include <cstdarg>
#include <string>

#include "logging/global_log.h"
#include "platform/strings/format.h"
#include "platform/systemlog/system_log.h"

namespace fsutil::internal {

// Formats like printf only when the error level is enabled.
inline __attribute__((format(printf, 1, 2))) void logError(const char* format, ...) {
    const systemlog::Handle log = kel::globalLogContext().handle();
    if (!systemlog::isEnabled(log, systemlog::Level::kError)) {
        return;
    }
    va_list args;
    va_start(args, format);
    const std::string text = platform::stringPrintfV(format, args);
    va_end(args);
    systemlog::write(log, systemlog::Level::kError, "%s", text.c_str());
}

}  // namespace fsutil::internal
