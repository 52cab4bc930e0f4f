// Opening files in folders that other users may write, as a process that may
// run as root must: no link is followed, no open blocks (a FIFO in a file's
// place), and what was opened is checked before anything is written to it.
//
// Each function returns a descriptor, or why there is none: the errno of the
// call that failed, or a refusal of the checks, as words for a message.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <string>

#include "platform/posix/unique_fd.h"

namespace platform {

struct CheckedFd {
    UniqueFd fd{};
    // What was opened, as fstat saw it; valid with `fd`.
    struct stat status {};
    // The errno of the call that failed; 0 when the checks refused.
    int error = 0;
    // What is wrong, naming the path ("/tmp/x is a symbolic link"); empty
    // when `fd` is valid.
    std::string why;
};

struct FolderRules {
    // Make a missing folder (mode 0700, not its parents) first.
    bool make = false;
    // Take a folder that group or others may write when it has the sticky bit
    // (as /tmp has): they may then add entries, which what opens files in it
    // must check, but not replace this user's.
    bool stickyIsEnough = true;
};

// Opens the folder `path` (a link in its place is refused) and checks that
// nobody but this user and root can replace entries in it: it is owned by one
// of them, and not writable by group or others (see FolderRules).
[[nodiscard]] CheckedFd openTrustedFolder(const std::string& path, FolderRules rules = {});

// Opens this user's private folder `path`, made with mode 0700 when missing
// (its parent must exist), and checks it: a folder, not a link, owned by this
// user, mode 0700. What programs that share /tmp do with their folder there.
[[nodiscard]] CheckedFd openPrivateFolder(const std::string& path);

// Opens `name` in the folder `folderFd` with `flags` (O_RDWR or O_WRONLY),
// created with `mode` (less the umask) when missing and never truncated, and
// checks that it is a regular file of this user.
[[nodiscard]] CheckedFd openRegularFile(int folderFd, const std::string& folderPath,
                                        const std::string& name, int flags, mode_t mode);

// As openRegularFile, for writing at its end, and also checks that the file
// has no other name: a hard link that another user made to a file of this
// user's elsewhere is refused.
[[nodiscard]] CheckedFd openOwnFile(int folderFd, const std::string& folderPath,
                                    const std::string& name, mode_t mode);

// Makes descriptors 0, 1 and 2 open, on /dev/null where they are closed, so
// that no file the process opens later becomes its standard error by chance.
// Returns false when /dev/null cannot be opened.
[[nodiscard]] bool openStandardDescriptors();

}  // namespace platform
