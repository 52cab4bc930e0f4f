#include "platform/helperserver/runtime_paths.h"

#include <errno.h>
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>

#include "platform/helperserver/helper_server.h"

namespace kel {

namespace {

const char* runtimeDir() {
    const char* dir = getenv("KEL_HELPER_RUNTIME_DIR");
    return dir != nullptr && dir[0] != '\0' ? dir : nullptr;
}

std::string pathUnderRuntimeDir(const char* leaf, const char* fallback) {
    const char* dir = runtimeDir();
    return dir != nullptr ? std::string(dir) + "/" + leaf : std::string(fallback);
}

// Intentionally never freed: the constants must stay valid through static
// destruction.
const char* tracePath(const char* leaf, const char* fallback) {
    if (runtimeDir() == nullptr) {
        return fallback;
    }
    const std::string path = pathUnderRuntimeDir(leaf, fallback);
    char* copy = new char[path.size() + 1];
    memcpy(copy, path.c_str(), path.size() + 1);
    return copy;
}

}  // namespace

namespace runtime_paths {

std::string socketPath() {
    return pathUnderRuntimeDir("helper-server.sock", KEL_HELPER_SOCKET_PATH);
}

std::string lockPath() {
    return pathUnderRuntimeDir("helper-server.lock", KEL_HELPER_LOCK_PATH);
}

bool ensureRuntimeDir() {
    const char* dir = runtimeDir();
    return dir == nullptr || mkdir(dir, 0755) == 0 || errno == EEXIST;
}

}  // namespace runtime_paths

namespace trace {

// Set during static initialisation from the environment of the process as it
// started. Code running in the static initialisers of other files must not
// read them (their order is unspecified; they may still be null).
const char* const kScratchFolder = tracePath("scratch/", KEL_TRACE_SCRATCH_FOLDER);
const char* const kSnapshotFolder = tracePath("snapshots/", KEL_TRACE_SNAPSHOT_FOLDER);

bool isAllowed() {
    return KEL_TRACE_ALLOWED;
}

}  // namespace trace
}  // namespace kel
