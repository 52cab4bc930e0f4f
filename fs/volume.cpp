#include "fs/volume.h"

#include <sys/statvfs.h>

namespace fsutil {

bool getVolumeStats(const std::string& path, uint64_t& totalBlocks, uint64_t& availableBlocks,
                    uint64_t& fragmentSize) {
    if (path.empty()) {
        return false;
    }
    struct statvfs figures {};
    if (statvfs(path.c_str(), &figures) != 0) {
        return false;
    }
    fragmentSize = figures.f_frsize;
    totalBlocks = figures.f_blocks;
    availableBlocks = figures.f_bavail;
    return true;
}

}  // namespace fsutil
