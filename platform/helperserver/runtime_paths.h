// Where the helper server's socket and hosting lock live: under
// KEL_HELPER_RUNTIME_DIR when it is set, at the build-time defaults otherwise.
// Read at call time, so that a process can point them elsewhere before use.
#pragma once

#include <string>

namespace kel::runtime_paths {

std::string socketPath();
std::string lockPath();

// Creates KEL_HELPER_RUNTIME_DIR (one level) when it is set and missing.
// Returns false when the folder is not there and cannot be made.
bool ensureRuntimeDir();

}  // namespace kel::runtime_paths
