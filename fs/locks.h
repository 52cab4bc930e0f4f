// Whole-file shared record locks on existing files.
//
// Taking and releasing a lock each run under one WatchdogGuard, so a lock that
// another process holds for too long leaves a stack report (the wait goes on).
// Failures are results; nothing here logs or throws for a failed system call.
#pragma once

#include <string>

namespace fsutil {

// Opens the existing file at `path` for reading and takes a shared (read)
// record lock on all of it, waiting while another process holds a write lock.
// Returns the descriptor that holds the lock, or -1 (missing file, no read
// permission, lock refused or interrupted) with no descriptor left open. Record
// locks belong to the process: a second lock here succeeds at once, and closing
// any descriptor of the file in this process drops them all.
[[nodiscard]] int lockShared(const std::string& path);

// Releases the record lock held through `fd` and closes it, whatever the
// unlock gave. True when the unlock succeeded (also when nothing was locked).
[[nodiscard]] bool unlockAndClose(int fd);

}  // namespace fsutil
