// Where the helper server keeps its socket and its hosting lock: one runtime
// folder, checked before every use, so that no other user can put anything of
// theirs in place of either (another user's lock would stop this one from ever
// hosting; another user's socket would receive its clients).
//
// The folder is KEL_HELPER_RUNTIME_DIR when that is set (tests, instances side
// by side); else the build's KEL_HELPER_RUNTIME_FOLDER (the installed
// service's folder under /run); else this user's private folder under /tmp,
// /tmp/kel-UID, kept the way programs that share /tmp keep theirs: made with
// mode 0700, and refused unless it is this user's, has mode 0700 and is no
// link. Any other runtime folder is made with mode 0700 when missing (not its
// parents) and refused when it is a link, or when anybody but this user and
// root owns it or may write in it, sticky bit or not. The lock file in it
// must be this user's.
#pragma once

#include <string>

#include "platform/posix/unique_fd.h"

namespace kel::runtime_paths {

inline constexpr const char* kSocketName = "helper-server.sock";
inline constexpr const char* kLockName = "helper-server.lock";

struct RuntimeFolder {
    std::string path;
    // Invalid when the folder could not be made or was refused.
    platform::UniqueFd fd;
};

// The runtime folder, made when missing and checked. When it is unusable, says
// why at the error level of the system log and leaves `fd` invalid.
[[nodiscard]] RuntimeFolder openRuntimeFolder();

}  // namespace kel::runtime_paths
