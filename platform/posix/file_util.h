// Writing a whole buffer to a descriptor.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>

namespace platform {

// Writes all `size` bytes of `data` to `fd`, continuing after short writes and
// EINTR. On failure returns false with errno set (ENOSPC for a write that
// makes no progress); how much was written by then is unknown to the caller.
[[nodiscard]] bool writeAll(int fd, const void* data, size_t size);

}  // namespace platform
