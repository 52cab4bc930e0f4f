#include "fs/locks_space_notices.h"

#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <functional>
#include <mutex>
#include <optional>
#include <unordered_set>

#include "fs/watchdog_guard.h"
#include "platform/notice/notice.h"
#include "platform/telephony/build_kind.h"

namespace fsutil {

namespace {

struct flock wholeFile(short type) {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = 0;
    lock.l_len = 0;  // to the end, however far the file grows
    lock.l_pid = getpid();
    return lock;
}

struct BuildKind {
    bool carrier;
    bool internal;
};

// Asked once: the build does not change while the process runs.
const BuildKind& buildKind() {
    static const BuildKind sBuildKind{TelephonyUtilIsCarrierBuild(),
                                      TelephonyUtilIsInternalBuild()};
    return sBuildKind;
}

std::mutex sShownTitlesMutex;

// Hashes of the titles shown so far, under sShownTitlesMutex; only grows.
std::unordered_set<uint64_t>& shownTitles() {
    static std::unordered_set<uint64_t> sShownTitles;
    return sShownTitles;
}

// Records `title` as shown; false when it already was.
bool recordFirstShowing(const std::string& title) {
    const uint64_t hash = std::hash<std::string>{}(title);
    const std::lock_guard lock(sShownTitlesMutex);
    return shownTitles().insert(hash).second;
}

}  // namespace

int lockShared(const std::string& path) {
    WatchdogGuard guard;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    struct flock lock = wholeFile(F_RDLCK);
    if (fcntl(fd, F_SETLKW, &lock) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

bool unlockAndClose(int fd) {
    WatchdogGuard guard;
    struct flock lock = wholeFile(F_UNLCK);
    const bool unlocked = fcntl(fd, F_SETLKW, &lock) == 0;
    close(fd);
    return unlocked;
}

bool getVolumeStats(const std::string& path, uint64_t& totalBlocks, uint64_t& availableBlocks,
                    uint64_t& fragmentSize) {
    if (path.empty()) {
        return false;
    }
    struct statvfs figures {};
    if (statvfs(path.c_str(), &figures) != 0) {
        return false;
    }
    fragmentSize = figures.f_frsize;
    totalBlocks = figures.f_blocks;
    availableBlocks = figures.f_bavail;
    return true;
}

void displayNotice(const std::string& title, const std::string& message, int32_t allowRepeat,
                   double timeoutSeconds) {
    const BuildKind& kind = buildKind();
    if (!kind.carrier && !kind.internal) {
        return;
    }
    if (allowRepeat == 0 && !recordFirstShowing(title)) {
        return;
    }
    const std::optional<std::string> header = notice::asciiText(title);
    const std::optional<std::string> body = notice::asciiText(message);
    if (header || body) {
        notice::showAlert(header.value_or(""), body.value_or(""), timeoutSeconds);
    }
}

}  // namespace fsutil
