#include "platform/helperserver/runtime_paths.h"

#include <unistd.h>

#include <optional>

#include "platform/helperserver/report_error.h"
#include "platform/posix/environment.h"
#include "platform/posix/safe_open.h"

namespace kel::runtime_paths {

namespace {

// Nobody else may add anything here: a lock file of another user's would keep
// this one from ever hosting.
constexpr platform::FolderRules kRules{.make = true, .stickyIsEnough = false};

}  // namespace

RuntimeFolder openRuntimeFolder() {
    RuntimeFolder folder;
    platform::CheckedFd opened;
    if (std::optional<std::string> dir = platform::pathInRuntimeDir({})) {
        folder.path = std::move(*dir);
        opened = platform::openTrustedFolder(folder.path, kRules);
    } else if (KEL_HELPER_RUNTIME_FOLDER[0] != '\0') {
        folder.path = KEL_HELPER_RUNTIME_FOLDER;
        opened = platform::openTrustedFolder(folder.path, kRules);
    } else {
        folder.path = "/tmp/kel-" + std::to_string(geteuid());
        opened = platform::openPrivateFolder(folder.path);
    }
    if (!opened.fd.valid()) {
        reportError("cannot use the runtime folder: %s", opened.why.c_str());
    }
    folder.fd = std::move(opened.fd);
    return folder;
}

}  // namespace kel::runtime_paths
