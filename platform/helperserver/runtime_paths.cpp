#include "platform/helperserver/runtime_paths.h"

#include <errno.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "platform/logserver/log.h"
#include "platform/posix/environment.h"
#include "platform/posix/file_util.h"

namespace kel::runtime_paths {

namespace {

std::string pathUnderRuntimeDir(const char* leaf, const char* fallback) {
    return platform::pathFromEnvironment("KEL_HELPER_RUNTIME_DIR", leaf).value_or(fallback);
}

}  // namespace

std::string socketPath() {
    return pathUnderRuntimeDir("helper-server.sock", KEL_HELPER_SOCKET_PATH);
}

std::string lockPath() {
    return pathUnderRuntimeDir("helper-server.lock", KEL_HELPER_LOCK_PATH);
}

bool ensureRuntimeDir() {
    const std::optional<std::string> dir = platform::pathFromEnvironment("KEL_HELPER_RUNTIME_DIR");
    if (!dir || platform::makeDirectories(*dir, 0755)) {
        return true;
    }
    reportError("cannot make the runtime folder %s: %s", dir->c_str(), strerror(errno));
    return false;
}

void reportError(const char* format, ...) {
    static const systemlog::Handle sLog = systemlog::create(systemlog::kSubsystem, "HelperServer");
    va_list args;
    va_start(args, format);
    systemlog::writeV(sLog, systemlog::Level::kError, format, args);
    va_end(args);
}

}  // namespace kel::runtime_paths
