#include "platform/trace/trace.h"

#include <cstring>
#include <optional>
#include <string>

#include "platform/posix/environment.h"

namespace kel::trace {

namespace {

// `leaf` under KEL_HELPER_RUNTIME_DIR when it is set, else `fallback`.
// Intentionally never freed: the constants must stay valid through static
// destruction.
const char* folder(const char* leaf, const char* fallback) {
    const std::optional<std::string> path = platform::pathInRuntimeDir(leaf);
    if (!path) {
        return fallback;
    }
    char* copy = new char[path->size() + 1];
    memcpy(copy, path->c_str(), path->size() + 1);
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
