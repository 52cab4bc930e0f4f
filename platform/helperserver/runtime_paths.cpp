#include "platform/helperserver/runtime_paths.h"

#include <cstdlib>

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
    return dir == nullptr || platform::makeDirectories(dir, 0755);
}

}  // namespace kel::runtime_paths
