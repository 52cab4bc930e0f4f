#include "fs/tree_walk.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cstddef>
#include <optional>

#include "fs/watchdog_guard.h"

namespace fsutil::internal {

namespace {

// Whether `entry` needs the open that tells whether it is a directory.
bool mayBeDirectory(const OpenDirectory& directory, const ListedEntry& entry, bool followLinks) {
    if (entry.type == DT_DIR) {
        return true;
    }
    if (entry.type != DT_UNKNOWN && !(followLinks && entry.type == DT_LNK)) {
        return false;
    }
    struct stat status;
    WatchdogGuard guard;
    return fstatat(directory.fd(), entry.name.c_str(), &status,
                   followLinks ? 0 : AT_SYMLINK_NOFOLLOW) == 0 &&
           S_ISDIR(status.st_mode);
}

}  // namespace

std::string_view entryName(const dirent& entry) {
    const size_t room = entry.d_reclen - offsetof(dirent, d_name);
    return {entry.d_name, strnlen(entry.d_name, room)};
}

OpenDirectory::OpenDirectory(const std::string& path, bool followLinks) {
    WatchdogGuard guard;
    list(openat(AT_FDCWD, path.c_str(),
                O_RDONLY | O_DIRECTORY | O_CLOEXEC | (followLinks ? 0 : O_NOFOLLOW)));
}

OpenDirectory::OpenDirectory(const OpenDirectory& parent, const char* name, bool followLinks)
    : parent_(&parent) {
    WatchdogGuard guard;
    list(openat(parent.fd(), name,
                O_RDONLY | O_DIRECTORY | O_CLOEXEC | (followLinks ? 0 : O_NOFOLLOW)));
}

OpenDirectory::~OpenDirectory() = default;

void OpenDirectory::list(int fd) {
    if (fd < 0) {
        error_ = errno;
        return;
    }
    DIR* stream = fdopendir(fd);
    if (stream == nullptr) {
        error_ = errno;
        static_cast<void>(::close(fd));
        return;
    }
    stream_.reset(stream);
    // A level whose identity is unknown cannot be told from its ancestors or
    // from a mount point: it counts as unreadable.
    struct statx status;
    if (statx(fd, "", AT_EMPTY_PATH, STATX_INO | STATX_MNT_ID, &status) != 0) {
        error_ = errno;
        return;
    }
    device_ = makedev(status.stx_dev_major, status.stx_dev_minor);
    inode_ = status.stx_ino;
    mount_ = (status.stx_mask & STATX_MNT_ID) != 0 ? status.stx_mnt_id : 0;
    // readdir tells its end from a failure only by errno.
    for (errno = 0; const dirent* entry = readdir(stream); errno = 0) {
        entries_.push_back({std::string(entryName(*entry)), entry->d_type});
    }
    if (errno != 0) {
        error_ = errno;
        entries_.clear();
    }
}

bool OpenDirectory::isUnreadableDirectory() const {
    return error_ != 0 && error_ != ENOTDIR && error_ != ELOOP && error_ != ENOENT;
}

int OpenDirectory::fd() const {
    return dirfd(stream_.get());
}

bool OpenDirectory::repeatsAnAncestor() const {
    for (const OpenDirectory* above = parent_; above != nullptr; above = above->parent_) {
        if (above->device_ == device_ && above->inode_ == inode_) {
            return true;
        }
    }
    return false;
}

bool OpenDirectory::isMountPoint() const {
    return parent_ != nullptr && (parent_->device_ != device_ || parent_->mount_ != mount_);
}

void OpenDirectory::close() {
    stream_.reset();
}

bool walkEntry(const OpenDirectory& directory, const ListedEntry& entry, TreeVisitor& visitor) {
    const char* name = entry.name.c_str();
    if (isDotOrDotDot(entry.name)) {
        return visitor.visitDot(directory, name);
    }
    const bool followLinks = !visitor.staysInTree();
    if (!mayBeDirectory(directory, entry, followLinks)) {
        return visitor.visitEntry(directory, name);
    }
    std::optional<WatchdogGuard> levelGuard;
    if (visitor.guardsEachLevel()) {
        levelGuard.emplace();
    }
    OpenDirectory child(directory, name, followLinks);
    if (!child.isDirectory()) {
        child.close();
        levelGuard.reset();
        return child.isUnreadableDirectory() ? visitor.visitUnreadableDirectory(directory, name)
                                             : visitor.visitEntry(directory, name);
    }
    const bool walked = !child.repeatsAnAncestor() &&
                        !(visitor.staysInTree() && child.isMountPoint()) &&
                        walkTree(child, visitor);
    child.close();
    return visitor.leaveDirectory(directory, name, walked);
}

bool walkTree(const OpenDirectory& directory, TreeVisitor& visitor) {
    for (const ListedEntry& entry : directory.entries()) {
        if (!walkEntry(directory, entry, visitor)) {
            return false;
        }
    }
    return true;
}

}  // namespace fsutil::internal
