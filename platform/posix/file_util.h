// Small whole-operation helpers on descriptors and folders.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>

namespace platform {

// Writes all `size` bytes of `data` to `fd`, continuing after short writes and
// EINTR. On failure returns false with errno set (ENOSPC for a write that
// makes no progress); how much was written by then is unknown to the caller.
[[nodiscard]] bool writeAll(int fd, const void* data, size_t size);

// Creates `path` and whichever of its parents are missing, each with `mode`
// (less the umask). True when `path` is a directory afterwards, also when it
// already was; false with errno set otherwise. Folders made before a failure
// stay.
[[nodiscard]] bool makeDirectories(const std::string& path, mode_t mode);

}  // namespace platform
