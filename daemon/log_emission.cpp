#include "daemon/log_emission.h"

#include <cstdarg>
#include <string>

#include "platform/posix/progname.h"

namespace kel {

void logInfo(const std::shared_ptr<lum::LogServer>& logServer, const char* text) {
    // One logger per half, on purpose: the halves share nothing, so either can
    // be switched off alone, and nothing is cached between calls. The
    // mirror's handle outlives its logger: the logging library keeps
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

void logError(const char* format, ...) {
    va_list args;
    va_start(args, format);
    systemlog::writeV(systemlog::create(systemlog::kSubsystem, getprogname()),
                      systemlog::Level::kError, format, args);
    va_end(args);
}

}  // namespace kel
