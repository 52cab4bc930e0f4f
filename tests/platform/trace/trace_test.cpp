#include "platform/trace/trace.h"

#include <stdlib.h>

#include <string>

#include <gtest/gtest.h>

namespace {

// CTest starts this test with KEL_HELPER_RUNTIME_DIR set.
TEST(TraceFoldersTest, FollowTheRuntimeFolderSetAtStart) {
    const char* runtimeDir = getenv("KEL_HELPER_RUNTIME_DIR");
    ASSERT_NE(runtimeDir, nullptr);
    EXPECT_EQ(kel::trace::kScratchFolder, std::string(runtimeDir) + "/scratch/");
    EXPECT_EQ(kel::trace::kSnapshotFolder, std::string(runtimeDir) + "/snapshots/");
}

}  // namespace
