// Where the helper server's socket and hosting lock live: under
// KEL_HELPER_RUNTIME_DIR when it is set, at the build-time defaults otherwise.
// Read at call time, so that a process can point them elsewhere before use.
#pragma once

#include <string>

namespace kel::runtime_paths {

[[nodiscard]] std::string socketPath();
[[nodiscard]] std::string lockPath();

// Creates KEL_HELPER_RUNTIME_DIR and its parents when it is set and missing.
// Returns false when the folder is not there and cannot be made.
[[nodiscard]] bool ensureRuntimeDir();

}  // namespace kel::runtime_paths
