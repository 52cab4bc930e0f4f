// Paths that the environment may move: the built-in locations of the platform
// libraries' files, unless a variable names another folder or file (tests and
// instances side by side use this). An empty variable counts as unset, so that
// `NAME= program` restores the default.
#pragma once

#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

namespace platform {

// `leaf` inside the folder that `variable` names, or the variable's value
// itself when `leaf` is empty; nothing when the variable is unset or empty.
[[nodiscard]] inline std::optional<std::string> pathFromEnvironment(const char* variable,
                                                                    std::string_view leaf = {}) {
    const char* value = std::getenv(variable);
    if (value == nullptr || value[0] == '\0') {
        return std::nullopt;
    }
    std::string path = value;
    if (!leaf.empty()) {
        path.append("/").append(leaf);
    }
    return path;
}

// `leaf` in the folder KEL_HELPER_RUNTIME_DIR names, or that folder itself
// for an empty `leaf`: where an instance keeps all its runtime files (the
// helper server's socket and lock, the trace folders) apart from others.
[[nodiscard]] inline std::optional<std::string> pathInRuntimeDir(std::string_view leaf) {
    return pathFromEnvironment("KEL_HELPER_RUNTIME_DIR", leaf);
}

}  // namespace platform
