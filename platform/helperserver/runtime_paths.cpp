#include "platform/helperserver/runtime_paths.h"

#include <errno.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "platform/logserver/log.h"
#include "platform/posix/file_util.h"

namespace kel::runtime_paths {

namespace {

const char* runtimeDir() {
    const char* dir = getenv("KEL_HELPER_RUNTIME_DIR");
    return dir != nullptr && dir[0] != '\0' ? dir : nullptr;
}

std::string pathUnderRuntimeDir(const char* leaf, const char* fallback) {
    const char* dir = runtimeDir();
    return dir != nullptr ? std::string(dir) + "/" + leaf : std::string(fallback);
}

}  // namespace

std::string socketPath() {
    return pathUnderRuntimeDir("helper-server.sock", KEL_HELPER_SOCKET_PATH);
}

std::string lockPath() {
    return pathUnderRuntimeDir("helper-server.lock", KEL_HELPER_LOCK_PATH);
}

bool ensureRuntimeDir() {
    const char* dir = runtimeDir();
    if (dir == nullptr || platform::makeDirectories(dir, 0755)) {
        return true;
    }
    reportError("cannot make the runtime folder %s: %s", dir, strerror(errno));
    return false;
}

void reportError(const char* format, ...) {
    static const systemlog::Handle sLog =
        systemlog::create(lum::kTelephonySubsystem, "HelperServer");
    va_list args;
    va_start(args, format);
    systemlog::writeV(sLog, systemlog::Level::kError, format, args);
    va_end(args);
}

}  // namespace kel::runtime_paths
