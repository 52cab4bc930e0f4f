#include "fs/directories.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/fs/trees.h"
#include "tests/support/log_recording.h"
#include "tests/support/temp_dir.h"

namespace kel::testing {
namespace {

TEST(DirectoriesTest, ListingMatchingAndRotation) {
    const TempDir root;
    makeTree(root.path(),
             "mkdir e m m-1 snap-1 snap-7 snap-x r && touch snap-07 snap-10.tmp r/d-2"
             " && ln -s snap-1 snap-9");
    Tree names;
    fsutil::listDirectory(root.file("e"), names);
    fsutil::listDirectory(root.file("missing"), names);
    EXPECT_THAT(names, ::testing::UnorderedElementsAre(".", ".."));
    EXPECT_TRUE(fsutil::findMatching(root.path(), std::regex("snap-9"), names, true));
    EXPECT_EQ(fsutil::moveAside(root.file("e"), root.file("m")), root.file("m-2"));
    // Links and names that match only in part are not counted.
    EXPECT_EQ(fsutil::highestNumberedPath(root.file("snap")), root.file("snap-7/"));
    EXPECT_EQ(fsutil::highestNumberedPath(root.file("r/d//")), root.file("r/d-2/"));
    EXPECT_EQ(fsutil::highestNumberedPath(root.file("none")), root.file("none"));
    EXPECT_EQ(fsutil::highestNumberedPath("snap"), "snap");

    const CapturedSystemLog log;
    EXPECT_FALSE(fsutil::findMatching("/nonexistent", std::regex(".*"), names, true));
    EXPECT_THAT(log.lines(),
                ::testing::ElementsAre("<3>Error /nonexistent (No such file or directory)"));
}

}  // namespace
}  // namespace kel::testing
