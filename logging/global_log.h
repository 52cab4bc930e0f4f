// The process-wide "global" log context and the logger bound to it, shared by
// the daemon and the libraries (the file-system support writes its error
// messages through the context).
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
