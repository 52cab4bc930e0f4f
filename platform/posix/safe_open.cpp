#include "platform/posix/safe_open.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "platform/posix/eintr.h"
#include "platform/strings/format.h"

namespace platform {

namespace {

bool isLink(const std::string& path) {
    struct stat status;
    return lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
}

// O_NOFOLLOW makes a link fail with ELOOP, or with ENOTDIR where a folder was
// asked for.
CheckedFd failed(const std::string& path, int error) {
    CheckedFd result;
    result.error = error;
    if ((error == ELOOP || error == ENOTDIR) && isLink(path)) {
        result.error = 0;
        result.why = path + " is a symbolic link";
    } else if (error == ENXIO) {
        result.why = path + " is a FIFO or socket, not a regular file";
    } else {
        result.why = path + ": " + strerror(error);
    }
    return result;
}

CheckedFd refused(std::string why) {
    CheckedFd result;
    result.why = std::move(why);
    return result;
}

const char* kindOf(mode_t mode) {
    if (S_ISDIR(mode)) {
        return "a folder";
    }
    if (S_ISFIFO(mode)) {
        return "a FIFO";
    }
    if (S_ISSOCK(mode)) {
        return "a socket";
    }
    return S_ISCHR(mode) || S_ISBLK(mode) ? "a device" : "not a regular file";
}

// O_NOFOLLOW looks at the last component only, and a trailing '/' would make
// the kernel follow a link there.
std::string withoutTrailingSlashes(const std::string& path) {
    const size_t end = path.find_last_not_of('/');
    return end == std::string::npos ? path.substr(0, 1) : path.substr(0, end + 1);
}

CheckedFd opened(UniqueFd fd, const std::string& path) {
    CheckedFd result;
    if (fstat(fd.get(), &result.status) != 0) {
        return failed(path, errno);
    }
    result.fd = std::move(fd);
    return result;
}

CheckedFd openFolder(const std::string& path) {
    const std::string folder = withoutTrailingSlashes(path);
    UniqueFd fd(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    return fd.valid() ? opened(std::move(fd), folder) : failed(folder, errno);
}

}  // namespace

CheckedFd openTrustedFolder(const std::string& path, FolderRules rules) {
    if (rules.make && mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
        return failed(path, errno);
    }
    CheckedFd folder = openFolder(path);
    const struct stat& status = folder.status;
    if (!folder.fd.valid()) {
        return folder;
    }
    if (status.st_uid != geteuid() && status.st_uid != 0) {
        return refused(stringPrintf("%s belongs to uid %u, neither this user nor root",
                                    path.c_str(), static_cast<unsigned>(status.st_uid)));
    }
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0 &&
        !(rules.stickyIsEnough && (status.st_mode & S_ISVTX) != 0)) {
        return refused(stringPrintf("%s is writable by other users (mode %04o)", path.c_str(),
                                    status.st_mode & 07777));
    }
    return folder;
}

CheckedFd openPrivateFolder(const std::string& path) {
    const bool made = mkdir(path.c_str(), 0700) == 0;
    if (!made && errno != EEXIST) {
        return failed(path, errno);
    }
    CheckedFd folder = openFolder(path);
    struct stat& status = folder.status;
    if (folder.fd.valid() && made && fchmod(folder.fd.get(), 0700) == 0) {
        status.st_mode = S_IFDIR | 0700;  // the umask may have taken more
    }
    if (folder.fd.valid() && (status.st_uid != geteuid() || (status.st_mode & 07777) != 0700)) {
        return refused(stringPrintf(
            "%s is not this user's private folder (owner uid %u, mode %04o; it must be "
            "this user's with mode 0700): remove it",
            path.c_str(), static_cast<unsigned>(status.st_uid), status.st_mode & 07777));
    }
    return folder;
}

CheckedFd openRegularFile(int folderFd, const std::string& folderPath, const std::string& name,
                          int flags, mode_t mode) {
    const std::string path = withoutTrailingSlashes(folderPath) + "/" + name;
    UniqueFd fd(retryOnEintr([&] {
        return openat(folderFd, name.c_str(),
                      flags | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, mode);
    }));
    CheckedFd file = fd.valid() ? opened(std::move(fd), path) : failed(path, errno);
    if (!file.fd.valid()) {
        return file;
    }
    if (!S_ISREG(file.status.st_mode)) {
        return refused(path + " is " + kindOf(file.status.st_mode));
    }
    if (file.status.st_uid != geteuid()) {
        return refused(stringPrintf("%s belongs to uid %u, not to this user", path.c_str(),
                                    static_cast<unsigned>(file.status.st_uid)));
    }
    return file;
}

CheckedFd openOwnFile(int folderFd, const std::string& folderPath, const std::string& name,
                      mode_t mode) {
    CheckedFd file = openRegularFile(folderFd, folderPath, name, O_WRONLY | O_APPEND, mode);
    if (file.fd.valid() && file.status.st_nlink != 1) {
        return refused(withoutTrailingSlashes(folderPath) + "/" + name +
                       " has other names (hard links)");
    }
    return file;
}

bool openStandardDescriptors() {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (fcntl(fd, F_GETFD) != -1 || errno != EBADF) {
            continue;
        }
        // The lowest free descriptor is this one: those below it are open.
        if (open("/dev/null", O_RDWR) != fd) {
            return false;
        }
    }
    return true;
}

}  // namespace platform
