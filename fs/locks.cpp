#include "fs/locks.h"

#include <fcntl.h>
#include <unistd.h>

#include "fs/watchdog_guard.h"

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

}  // namespace

int lockShared(const std::string& path) {
    WatchdogGuard guard;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    struct flock lock = wholeFile(F_RDLCK);
    if (fcntl(fd, F_SETLKW, &lock) != 0) {
        static_cast<void>(close(fd));
        return -1;
    }
    return fd;
}

bool unlockAndClose(int fd) {
    WatchdogGuard guard;
    struct flock lock = wholeFile(F_UNLCK);
    const bool unlocked = fcntl(fd, F_SETLKW, &lock) == 0;
    static_cast<void>(close(fd));
    return unlocked;
}

}  // namespace fsutil
