#include "platform/trace/trace.h"

#include <cstdlib>
#include <cstring>
#include <string>

namespace kel::trace {

namespace {

// `leaf` under KEL_HELPER_RUNTIME_DIR when it is set, else `fallback`.
// Intentionally never freed: the constants must stay valid through static
// destruction.
const char* folder(const char* leaf, const char* fallback) {
    const char* runtimeDir = getenv("KEL_HELPER_RUNTIME_DIR");
    if (runtimeDir == nullptr || runtimeDir[0] == '\0') {
        return fallback;
    }
    const std::string path = std::string(runtimeDir) + "/" + leaf;
    char* copy = new char[path.size() + 1];
    memcpy(copy, path.c_str(), path.size() + 1);
    return copy;
}

}  // namespace

// Set during static initialisation. Code running in the static initialisers
// of other files must not read them (their order is unspecified; they may
// still be null).
const char* const kScratchFolder = folder("scratch/", KEL_TRACE_SCRATCH_FOLDER);
const char* const kSnapshotFolder = folder("snapshots/", KEL_TRACE_SNAPSHOT_FOLDER);

bool isAllowed() {
    return KEL_TRACE_ALLOWED;
}

}  // namespace kel::trace
