// The process-wide "global" log context and the logger bound to it, for the
// daemon and the libraries. The file-system library writes its error messages
// under the same category with a handle of its own (fs/error_log.h), so that
// it needs neither the log server nor dispatch.
#pragma once

#include <memory>

#include "platform/logserver/log.h"

namespace kel {

// The process-wide system-log context of the telephony subsystem and category
// "global", made on first use and kept until exit. Thread-safe.
lum::OsLogContext& globalLogContext();

// The process-wide logger on the "global" context. The first call binds it to
// its `logServer`; later calls return the same logger and ignore theirs.
// Thread-safe.
lum::StaticLogger& globalLogger(const std::shared_ptr<lum::LogServer>& logServer);

}  // namespace kel
