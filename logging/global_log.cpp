#include "logging/global_log.h"

#include <mutex>

namespace kel {

lum::OsLogContext& globalLogContext() {
    static lum::OsLogContext sContext;
    static std::once_flag sOnce;
    std::call_once(sOnce, [] { sContext = lum::OsLogContext(systemlog::kSubsystem, "global"); });
    return sContext;
}

lum::StaticLogger& globalLogger(const std::shared_ptr<lum::LogServer>& logServer) {
    static lum::StaticLogger sLogger;
    static std::once_flag sOnce;
    std::call_once(sOnce, [server = logServer] {
        const lum::StaticLogger bound(globalLogContext(), server);
        static_cast<lum::LoggerCommonBase&>(sLogger) = bound;
        sLogger.setSink(bound.sink());
    });
    return sLogger;
}

}  // namespace kel
