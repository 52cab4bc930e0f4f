#include "daemon/log_emission.h"

#include <string>

#include "platform/posix/progname.h"

namespace kel {

void logInfo(const std::shared_ptr<lum::LogServer>& logServer, const char* text) {
    // The handle outlives the logger it came from: the logging library keeps
    // system-log handles for the life of the process.
    systemlog::Handle handle;
    {
        const lum::StaticLogger mirror(std::string(getprogname()), logServer);
        handle = mirror.handle();
    }
    if (systemlog::isEnabled(handle, systemlog::Level::kDefault)) {
        systemlog::write(handle, systemlog::Level::kDefault, "#I %s", text);
    }

    const lum::StaticLogger logger(std::string(getprogname()), logServer);
    if (logger.shouldLog(kLifecycleLevel)) {
        logger.forceLog(kLifecycleLevel, lum::LogMessageBuffer::createWithFormat("%s", text));
    }
}

}  // namespace kel
