#include "fs/directories.h"

#include <sys/mount.h>
#include <sys/stat.h>

#include <filesystem>

#include <gmock/gmock.h>

#include "fs/paths.h"
#include "tests/fs/trees.h"
#include "tests/support/call_recorder.h"
#include "tests/support/log_recording.h"
#include "tests/support/temp_dir.h"
#include "tests/support/test_child.h"

static time_t sHeldTime = 0;

// The clock removeOlderThan reads: sHeldTime when set.
extern "C" time_t time(time_t* result) noexcept {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const time_t seconds = sHeldTime != 0 ? sHeldTime : now.tv_sec;
    return result != nullptr ? *result = seconds : seconds;
}

namespace kel::testing {
namespace {

using ::testing::ElementsAre;

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
    EXPECT_EQ(fsutil::moveAside(root.file("e"), root.file("missing/m")), "");
    EXPECT_EQ(fsutil::moveAside(root.file("e"), root.file("m")), root.file("m-2"));
    // Links and names that match only in part are not counted.
    EXPECT_EQ(fsutil::highestNumberedPath(root.file("snap")), root.file("snap-7/"));
    EXPECT_EQ(fsutil::highestNumberedPath(root.file("r/d//")), root.file("r/d-2/"));
    EXPECT_EQ(fsutil::highestNumberedPath(root.file("none")), root.file("none"));
    EXPECT_EQ(fsutil::highestNumberedPath("snap"), "snap");

    const CapturedSystemLog log;
    EXPECT_FALSE(fsutil::findMatching("/nonexistent", std::regex(".*"), names, true));
    EXPECT_THAT(log.lines(), ElementsAre("<3>Error /nonexistent (No such file or directory)"));
}

// removeOlderThan: a folder goes whole once its own status is old enough, and
// age 0 takes every entry, links as links. removeRecursive: a plain file goes,
// and a missing path is no failure. A link given as the tree is not followed:
// it goes as a link. A folder mounted inside the tree (o bound onto m/o) is a
// failure, and stays whole. Runs again in a child, over a tmpfs in a mount
// namespace of its own where it may bind mount.
TEST(DirectoriesTest, RemovalEdgeCases) {
    if (childArgument() == nullptr) {
        const TempDir dir;
        EXPECT_EQ(runTestAgainOnTmpfs(dir.path(), "1m"), 0);
        return;
    }
    const std::string root = childArgument();
    makeTree(root, "mkdir -p t/d o m/o && touch t/d/inner o/k f && ln -s ../o t/l && ln -s o l");
    ASSERT_EQ(mount((root + "/o").c_str(), (root + "/m/o").c_str(), nullptr, MS_BIND, nullptr), 0);
    struct stat status;
    ASSERT_EQ(stat((root + "/t/d").c_str(), &status), 0);
    for (const time_t age : {3599, 3600}) {
        sHeldTime = status.st_ctime + age;
        EXPECT_TRUE(fsutil::removeOlderThan(root + "/t", 3600));
        EXPECT_EQ(fsutil::exists(root + "/t/d"), age < 3600) << age;
    }
    sHeldTime = 0;
    EXPECT_TRUE(fsutil::removeOlderThan(root + "/t", 0));
    EXPECT_TRUE(fsutil::removeRecursive(root + "/f"));
    EXPECT_TRUE(fsutil::removeRecursive(root + "/missing"));
    EXPECT_TRUE(fsutil::removeOlderThan(root + "/l", 0));
    EXPECT_TRUE(fsutil::removeRecursive(root + "/l"));
    EXPECT_FALSE(fsutil::removeRecursive(root + "/m"));
    EXPECT_FALSE(fsutil::removeOlderThan(root + "/m", 0));
    EXPECT_THAT(treeContents(root), ElementsAre("m", "m/o", "m/o/k", "o", "o/k", "t"));
}

// A folder swapped for a link to a folder outside, after the listing and
// before the walk opens it, goes as the link: nothing outside is touched.
TEST(DirectoriesTest, AFolderSwappedForALinkMidRemovalGoesAsALink) {
    const TempDir root;
    makeTree(root.path(), "mkdir -p o t/d && touch o/k t/d/f");
    const CallRecorder swap(InjectedFailure{
        .function = "openat", .nth = 2, .runFirst = [&] {
            std::filesystem::rename(root.file("t/d"), root.file("d"));
            std::filesystem::create_directory_symlink(root.file("o"), root.file("t/d"));
        }});
    EXPECT_TRUE(fsutil::removeRecursive(root.file("t")));
    EXPECT_THAT(treeContents(root.path()), ElementsAre("d", "d/f", "o", "o/k"));
}

}  // namespace
}  // namespace kel::testing
