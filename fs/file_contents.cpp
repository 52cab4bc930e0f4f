#include "fs/file_contents.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>

#include "fs/watchdog_guard.h"

namespace fsutil {

namespace {

// Upper bound of one in-kernel copy request; the kernel moves less at a time
// anyway and reports how much.
constexpr size_t kKernelCopyChunk = size_t{1} << 30;

// copy_file_range(2) refuses pairs it cannot copy between (other file system
// types, pipes, special files, old kernels) with these; the buffer loop can.
bool kernelRefused(int error) {
    return error == EXDEV || error == EINVAL || error == ENOSYS || error == EOPNOTSUPP;
}

// Moves what it can of `from` into `to` inside the kernel, from their current
// offsets. True when the kernel reports the end or refuses the pair, false on
// a failure of the copy itself. The buffer loop always runs afterwards from the
// offsets reached: it confirms the end, since some file systems (procfs and the
// like) report nothing to copy for files that do have contents.
bool copyInKernel(int from, int to) {
    for (;;) {
        const ssize_t copied = copy_file_range(from, nullptr, to, nullptr, kKernelCopyChunk, 0);
        if (copied <= 0) {
            return copied == 0 || kernelRefused(errno);
        }
    }
}

// Empties the destination of a copy. Only a regular file has anything to
// truncate (a device or a pipe does not); the truncation runs under a guard,
// as the open that would otherwise have done it.
bool truncateForCopy(int fd, const struct stat& status) {
    if (!S_ISREG(status.st_mode)) {
        return true;
    }
    WatchdogGuard guard;
    return ftruncate(fd, 0) == 0;
}

bool copyThroughBuffer(int from, int to) {
    char buffer[1024];
    for (;;) {
        const ssize_t got = read(from, buffer, sizeof buffer);
        if (got <= 0) {
            return got == 0;
        }
        if (!writeAll(to, buffer, static_cast<size_t>(got))) {
            return false;
        }
    }
}

}  // namespace

bool writeAll(int fd, const void* bytes, size_t count) {
    const char* next = static_cast<const char*>(bytes);
    while (count > 0) {
        const ssize_t written = write(fd, next, count);
        if (written <= 0) {
            return false;
        }
        next += written;
        count -= static_cast<size_t>(written);
    }
    return true;
}

bool writeAllAndFlush(FILE* stream, const void* bytes, size_t count) {
    const char* next = static_cast<const char*>(bytes);
    while (count > 0) {
        const size_t written = fwrite(next, 1, count, stream);
        if (written == 0) {
            return false;
        }
        next += written;
        count -= written;
    }
    fflush(stream);
    return true;
}

int openFile(const std::string& path, int flags, mode_t mode) {
    WatchdogGuard guard;
    return open(path.c_str(), flags, mode);
}

bool closeFile(int fd) {
    WatchdogGuard guard;
    // Linux releases the descriptor before close(2) can be interrupted, so a
    // close that reports EINTR has completed. Closing again could close a
    // descriptor that another thread has just been given.
    return close(fd) == 0 || errno == EINTR;
}

bool copyFile(const std::string& source, const std::string& destination, bool copyMode) {
    const int from = openFile(source, O_RDONLY | O_CLOEXEC, 0644);
    if (from < 0) {
        return false;
    }
    // Opened without O_TRUNC: a destination that is the source itself, under
    // any name, is found before anything of it is lost.
    const int to = openFile(destination, O_WRONLY | O_CREAT | O_NONBLOCK | O_CLOEXEC, 0644);
    if (to < 0) {
        static_cast<void>(closeFile(from));
        return false;
    }
    struct stat sourceStatus;
    struct stat destinationStatus;
    bool copied = fstat(from, &sourceStatus) == 0 && fstat(to, &destinationStatus) == 0 &&
                  (sourceStatus.st_dev != destinationStatus.st_dev ||
                   sourceStatus.st_ino != destinationStatus.st_ino) &&
                  truncateForCopy(to, destinationStatus) && copyInKernel(from, to) &&
                  copyThroughBuffer(from, to);
    if (copied && copyMode) {
        copied = fchmod(to, sourceStatus.st_mode & 07777) == 0;
    }
    static_cast<void>(closeFile(to));
    static_cast<void>(closeFile(from));
    return copied;
}

bool readFile(const std::string& path, std::vector<uint8_t>& bytes) {
    WatchdogGuard guard;
    std::ifstream stream(path, std::ios::binary);
    int64_t size = 0;
    if (!streamSize(stream, size) || size <= 0 || size > INT32_MAX || !stream.good()) {
        return false;
    }
    bytes.resize(static_cast<size_t>(size));
    stream.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(size));
    const bool whole = stream.gcount() == size;
    // A failing close has released the file all the same; the result stands.
    stream.close();
    return whole;
}

bool streamSize(std::ifstream& stream, int64_t& size) {
    if (!stream.is_open()) {
        return false;
    }
    const std::streampos position = stream.tellg();
    stream.seekg(0, std::ios::end);
    size = stream.tellg();
    stream.seekg(position);
    return true;
}

bool fileSize(const std::string& path, int64_t& size) {
    if (path.empty()) {
        return false;
    }
    std::ifstream stream(path);
    if (!streamSize(stream, size)) {
        return false;
    }
    stream.close();
    return true;
}

}  // namespace fsutil
