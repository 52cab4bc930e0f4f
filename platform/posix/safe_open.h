// Opening files in folders that other users may write, as a process that may
// run as root must: no link is followed, no open blocks (a FIFO in a file's
// place), and what was opened is checked before anything is written to it.
//
// Each function returns a descriptor, or why there is none: the errno of the
// call that failed, or a refusal of the checks, as words for a message.
#pragma once

#include <sys/types.h>

#include <string>

#include "platform/posix/unique_fd.h"

namespace platform {

struct CheckedFd {
    UniqueFd fd;
    // The errno of the call that failed; 0 when the checks refused.
    int error = 0;
    // What is wrong, naming the path ("/tmp/x is a symbolic link"); empty
    // when `fd` is valid.
    std::string why;
};

// Opens the folder `path` (a link in its place is refused) and checks that
// nobody but this user and root can add or replace entries in it: it is owned
// by one of them, and not writable by group or others unless it has the
// sticky bit (as /tmp has). With `make`, a missing folder is made first with
// mode 0700 (not its parents).
[[nodiscard]] CheckedFd openTrustedFolder(const std::string& path, bool make = false);

// Opens this user's private folder `path`, made with mode 0700 when missing
// (its parent must exist), and checks it: a folder, not a link, owned by this
// user, mode 0700. What programs that share /tmp do with their folder there.
[[nodiscard]] CheckedFd openPrivateFolder(const std::string& path);

// Opens `name` in the folder `folderFd` with `flags` (O_RDWR or O_WRONLY),
// created with `mode` (less the umask) when missing and never truncated, and
// checks that it is a regular file.
[[nodiscard]] CheckedFd openRegularFile(int folderFd, const std::string& folderPath,
                                        const std::string& name, int flags, mode_t mode);

// As openRegularFile, for writing, and also checks that the file is this
// user's and has no other name: a hard link that another user made to a file
// elsewhere is refused, as is any file of theirs.
[[nodiscard]] CheckedFd openOwnFile(int folderFd, const std::string& folderPath,
                                    const std::string& name, mode_t mode);

// Makes descriptors 0, 1 and 2 open, on /dev/null where they are closed, so
// that no file the process opens later becomes its standard error by chance.
// Returns false when /dev/null cannot be opened.
[[nodiscard]] bool openStandardDescriptors();

}  // namespace platform
