#include "platform/posix/file_util.h"

#include <errno.h>
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

}  // namespace platform
