// Where the helper server's socket and hosting lock live: under
// KEL_HELPER_RUNTIME_DIR when it is set, at the build-time defaults otherwise.
// Read at call time, so that a process can point them elsewhere before use.
#pragma once

#include <string>

namespace kel::runtime_paths {

[[nodiscard]] std::string socketPath();
[[nodiscard]] std::string lockPath();

// Creates KEL_HELPER_RUNTIME_DIR and its parents when it is set and missing.
// Returns false, having said why in the system log, when the folder is not
// there and cannot be made.
[[nodiscard]] bool ensureRuntimeDir();

// Writes one line at the error level of the system log: how the helper-server
// library says why it refused or failed, in words a user can act on.
void reportError(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace kel::runtime_paths
