#include "fs/volume.h"

#include <unistd.h>

#include <fstream>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/temp_dir.h"
#include "tests/support/test_child.h"

namespace {

// Runs itself again in a child over a fresh 256 KiB tmpfs.
TEST(VolumeStatsTest, GivesTheFiguresOfASmallTmpfs) {
    const char* const mountPoint = kel::testing::childArgument();
    if (mountPoint == nullptr) {
        const kel::testing::TempDir dir;
        EXPECT_EQ(kel::testing::runTestAgainOnTmpfs(dir.path(), "256k"), 0);
        return;
    }
    const uint64_t page = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    std::vector<uint64_t> figures(3);
    ASSERT_TRUE(fsutil::getVolumeStats(mountPoint, figures[0], figures[1], figures[2]));
    EXPECT_EQ(figures, (std::vector<uint64_t>{256 * 1024 / page, 256 * 1024 / page, page}));
    std::ofstream(mountPoint + std::string("/three-pages")) << std::string(3 * page, 'p');
    ASSERT_TRUE(fsutil::getVolumeStats(mountPoint, figures[0], figures[1], figures[2]));
    EXPECT_EQ(figures[1], figures[0] - 3);
    EXPECT_FALSE(fsutil::getVolumeStats("/nonexistent", figures[0], figures[1], figures[2]));
}

}  // namespace
