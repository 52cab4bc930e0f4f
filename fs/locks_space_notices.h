// Whole-file shared record locks, the block figures of a volume, and a user
// notice shown at most once per title.
//
// Taking and releasing a lock each run under one WatchdogGuard, so a lock
// that another process holds for too long leaves a stack report (the wait
// goes on). Volume figures and notices run unguarded. Failures are results;
// nothing here logs or throws for a failed system call.
#pragma once

#include <stdint.h>

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
bool unlockAndClose(int fd);

// The volume holding `path`: total blocks, blocks available to unprivileged
// users, and the fragment size that is the unit of both. False, with the
// outputs untouched, for an empty path or when statvfs(3) fails.
[[nodiscard]] bool getVolumeStats(const std::string& path, uint64_t& totalBlocks,
                                  uint64_t& availableBlocks, uint64_t& fragmentSize);

// Shows `title` and `message` to the user for `timeoutSeconds`, on carrier and
// internal builds only. Unless `allowRepeat` is non-zero, a title (by its hash)
// is shown once per process: it is recorded before it is shown, so one whose
// texts cannot be shown (neither is ASCII) still counts. Thread-safe.
void displayNotice(const std::string& title, const std::string& message, int32_t allowRepeat,
                   double timeoutSeconds);

}  // namespace fsutil
