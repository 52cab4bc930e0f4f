#include "platform/posix/file_util.h"

#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/posix/eintr.h"

namespace platform {

bool writeAll(int fd, const void* data, size_t size) {
    const char* next = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t written = retryOnEintr([&] { return ::write(fd, next, size); });
        if (written < 0) {
            return false;
        }
        if (written == 0) {
            errno = ENOSPC;
            return false;
        }
        next += written;
        size -= static_cast<size_t>(written);
    }
    return true;
}

bool makeDirectories(const std::string& path, mode_t mode) {
    // Parents first, skipping the leading '/' and empty components; a parent
    // that already exists gives EEXIST, which is no failure.
    for (size_t slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
        if (path[slash - 1] != '/' && mkdir(path.substr(0, slash).c_str(), mode) != 0 &&
            errno != EEXIST) {
            return false;
        }
    }
    if (mkdir(path.c_str(), mode) == 0) {
        return true;
    }
    struct stat status;
    if (errno != EEXIST || stat(path.c_str(), &status) != 0) {
        return false;
    }
    if (!S_ISDIR(status.st_mode)) {
        errno = ENOTDIR;
        return false;
    }
    return true;
}

}  // namespace platform
