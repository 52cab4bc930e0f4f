#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <mutex>

#include "platform/helperserver/helper_server.h"
#include "platform/helperserver/report_error.h"
#include "platform/helperserver/runtime_paths.h"
#include "platform/posix/eintr.h"
#include "platform/posix/safe_open.h"

namespace {

std::mutex sHostingMutex;
int sHostingLockFd = -1;  // guarded by sHostingMutex; kept open until exit

}  // namespace

// The lock belongs to the open file description: it lasts as long as this
// process keeps the descriptor (O_CLOEXEC, so programs we exec never inherit
// it) and the kernel drops it when the process exits, however it exits. A
// lock that another process holds is the ordinary refusal and goes unsaid.
// Nobody but this user may open the file: flock needs no more than a
// descriptor open for reading, so a lock file others can read would let any
// of them stop this service from ever hosting.
extern "C" int sCanHostHelperServer() {
    using kel::reportError;
    std::lock_guard lock(sHostingMutex);
    if (sHostingLockFd >= 0) {
        return 1;
    }
    const kel::runtime_paths::RuntimeFolder folder = kel::runtime_paths::openRuntimeFolder();
    if (!folder.fd.valid()) {
        return 0;
    }
    // A lock file left open to others (by an older installation) is closed to
    // them; it is this user's, as openRegularFile checks.
    platform::CheckedFd file = platform::openRegularFile(
        folder.fd.get(), folder.path, kel::runtime_paths::kLockName, O_RDWR, 0600);
    if (file.fd.valid() && (file.status.st_mode & 077) != 0 && fchmod(file.fd.get(), 0600) != 0) {
        file.why = folder.path + "/" + kel::runtime_paths::kLockName + ": " + strerror(errno);
        file.fd.reset();
    }
    if (!file.fd.valid()) {
        reportError("cannot open the hosting lock: %s", file.why.c_str());
        return 0;
    }
    if (platform::retryOnEintr([&] { return flock(file.fd.get(), LOCK_EX | LOCK_NB); }) != 0) {
        if (errno != EWOULDBLOCK) {
            reportError("cannot lock %s/%s: %s", folder.path.c_str(), kel::runtime_paths::kLockName,
                        strerror(errno));
        }
        return 0;
    }
    sHostingLockFd = file.fd.release();
    return 1;
}
