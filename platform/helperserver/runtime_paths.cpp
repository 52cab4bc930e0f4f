#include "platform/helperserver/runtime_paths.h"

#include <unistd.h>

#include <optional>

#include "platform/helperserver/report_error.h"
#include "platform/posix/environment.h"
#include "platform/posix/safe_open.h"

namespace kel::runtime_paths {

RuntimeFolder openRuntimeFolder() {
    RuntimeFolder folder;
    platform::CheckedFd opened;
    if (std::optional<std::string> dir = platform::pathInRuntimeDir({})) {
        folder.path = std::move(*dir);
        opened = platform::openTrustedFolder(folder.path, /*make=*/true);
    } else if (KEL_HELPER_RUNTIME_FOLDER[0] != '\0') {
        folder.path = KEL_HELPER_RUNTIME_FOLDER;
        opened = platform::openTrustedFolder(folder.path, /*make=*/true);
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
