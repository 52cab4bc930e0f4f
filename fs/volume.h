// The block figures of the volume that holds a path, read without a watchdog
// guard.
#pragma once

#include <stdint.h>

#include <string>

namespace fsutil {

// The volume holding `path`: total blocks, blocks available to unprivileged
// users, and the fragment size that is the unit of both. False, with the
// outputs untouched, for an empty path or when statvfs(3) fails.
[[nodiscard]] bool getVolumeStats(const std::string& path, uint64_t& totalBlocks,
                                  uint64_t& availableBlocks, uint64_t& fragmentSize);

}  // namespace fsutil
