// Operations on the contents of single files: whole-range writes, guarded
// opens and closes, copying, whole-file reads and sizes.
//
// Failures are results only: nothing here logs or throws for a failed system
// call, and errno is whatever the failing call left. Opens, closes and
// whole-file reads run under a WatchdogGuard; writes and the data transfer of
// a copy do not.
#pragma once

#include <stdint.h>
#include <stdio.h>
#include <sys/types.h>

#include <cstddef>
#include <fstream>
#include <string>
#include <vector>

namespace fsutil {

// Writes all `count` bytes to `fd`, continuing after short writes. A count of
// 0 makes no call. An interrupted write is a failure, and so is a write that
// reports no progress, which would otherwise repeat forever. Unlike
// platform::writeAll, which the platform layers use for files of their own
// and which retries EINTR, this one hands an interrupted write back: a caller
// that breaks off a blocking write (to a pipe or a socket) with a signal gets
// control back at once.
[[nodiscard]] bool writeAll(int fd, const void* bytes, size_t count);

// Writes all `count` bytes to `stream`, then flushes it (the flush's result is
// not looked at; a count of 0 just flushes). A write that takes nothing fails
// at once, without the flush.
[[nodiscard]] bool writeAllAndFlush(FILE* stream, const void* bytes, size_t count);

// open(2) under a guard: the descriptor, or -1. An interrupted open is not
// retried.
[[nodiscard]] int openFile(const std::string& path, int flags, mode_t mode);

// Closes `fd` under a guard: true when the descriptor is gone, false when it
// was not open or the close failed (EIO and the like). An interrupted close
// counts as done.
[[nodiscard]] bool closeFile(int fd);

// Copies the bytes of `source` into `destination`, creating it with mode 0644
// (less the umask) or truncating it (an existing destination keeps its
// permissions unless `copyMode`, which gives it the source's mode afterwards).
// A missing source creates no destination; a destination that is the source
// itself (the same file under any name, or through a link) gives false and
// changes nothing; a failure part-way leaves the destination as far as it was
// written. Both descriptors are closed on every path, the destination first.
[[nodiscard]] bool copyFile(const std::string& source, const std::string& destination,
                            bool copyMode);

// Reads the whole file at `path` into `bytes`, resized to the file's size,
// all under one guard. False, with `bytes` as it was, when the file cannot be
// opened, is empty, cannot be measured or holds 2 GiB or more; false after a
// short read, with `bytes` holding what was read followed by zeros.
[[nodiscard]] bool readFile(const std::string& path, std::vector<uint8_t>& bytes);

// The end position of `stream` into `size`, leaving its read position where
// it was; -1 when it cannot be found (a failed seek), which still returns
// true. False, with `size` untouched, when the stream has no open file.
[[nodiscard]] bool streamSize(std::ifstream& stream, int64_t& size);

// The size of the file at `path` into `size`, as streamSize finds it. False,
// with `size` untouched, for an empty path or a file that cannot be opened.
[[nodiscard]] bool fileSize(const std::string& path, int64_t& size);

}  // namespace fsutil
