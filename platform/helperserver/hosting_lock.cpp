#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstring>
#include <mutex>

#include "platform/helperserver/helper_server.h"
#include "platform/helperserver/runtime_paths.h"
#include "platform/posix/eintr.h"
#include "platform/posix/unique_fd.h"

namespace {

std::mutex sHostingMutex;
int sHostingLockFd = -1;  // guarded by sHostingMutex; kept open until exit

}  // namespace

// The lock belongs to the open file description: it lasts as long as this
// process keeps the descriptor (O_CLOEXEC, so programs we exec never inherit
// it) and the kernel drops it when the process exits, however it exits. A
// lock that another process holds is the ordinary refusal and goes unsaid.
extern "C" int sCanHostHelperServer() {
    std::lock_guard lock(sHostingMutex);
    if (sHostingLockFd >= 0) {
        return 1;
    }
    if (!kel::runtime_paths::ensureRuntimeDir()) {
        return 0;
    }
    const std::string path = kel::runtime_paths::lockPath();
    platform::UniqueFd fd(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    if (!fd.valid()) {
        kel::runtime_paths::reportError("cannot open the hosting lock %s: %s", path.c_str(),
                                        strerror(errno));
        return 0;
    }
    if (platform::retryOnEintr([&] { return flock(fd.get(), LOCK_EX | LOCK_NB); }) != 0) {
        if (errno != EWOULDBLOCK) {
            kel::runtime_paths::reportError("cannot lock %s: %s", path.c_str(), strerror(errno));
        }
        return 0;
    }
    sHostingLockFd = fd.release();
    return 1;
}
