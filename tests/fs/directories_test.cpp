#include "fs/directories.h"

#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fs/paths.h"
#include "tests/fs/trees.h"
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
// it goes as a link.
TEST(DirectoriesTest, RemovalEdgeCases) {
    const TempDir root;
    makeTree(root.path(), "mkdir -p t/d o && touch t/d/inner o/k f && ln -s ../o t/l && ln -s o l");
    struct stat status;
    ASSERT_EQ(stat(root.file("t/d").c_str(), &status), 0);
    for (const time_t age : {3599, 3600}) {
        sHeldTime = status.st_ctime + age;
        EXPECT_TRUE(fsutil::removeOlderThan(root.file("t"), 3600));
        EXPECT_EQ(fsutil::exists(root.file("t/d")), age < 3600) << age;
    }
    sHeldTime = 0;
    EXPECT_TRUE(fsutil::removeOlderThan(root.file("t"), 0));
    EXPECT_TRUE(fsutil::removeRecursive(root.file("f")));
    EXPECT_TRUE(fsutil::removeRecursive(root.file("missing")));
    EXPECT_TRUE(fsutil::removeOlderThan(root.file("l"), 0));
    EXPECT_TRUE(fsutil::removeRecursive(root.file("l")));
    EXPECT_THAT(treeContents(root.path()), ElementsAre("o", "o/k", "t"));
}

// A folder mounted inside the tree (o bound onto t/m, in a mount namespace of
// the test's own) is a failure, and stays whole.
TEST(DirectoriesTest, RemovalNeverEntersAMountPoint) {
    if (childArgument() == nullptr) {
        if (geteuid() != 0) {
            GTEST_SKIP() << "bind mounts need root";
        }
        EXPECT_EQ(runTestAgain("mounted", "unshare --mount"), 0);
        return;
    }
    const TempDir root;
    makeTree(root.path(), "mkdir -p o t/m && touch o/k");
    const std::string mountPoint = root.file("t/m");
    ASSERT_EQ(mount(root.file("o").c_str(), mountPoint.c_str(), nullptr, MS_BIND, nullptr), 0);
    EXPECT_FALSE(fsutil::removeRecursive(root.file("t")));
    EXPECT_FALSE(fsutil::removeOlderThan(root.file("t"), 0));
    EXPECT_THAT(treeContents(root.path()), ElementsAre("o", "o/k", "t", "t/m", "t/m/k"));
    umount(mountPoint.c_str());
}

// Another process keeps swapping the tree's folders for links to a folder
// outside while a tree of 10,000 entries, links to outside among them, is
// removed (on tmpfs where there is one, to build it quickly).
TEST(DirectoriesTest, RemovalRacingFolderSwapsNeverLeavesTheTree) {
    const TempDir root(std::filesystem::exists("/dev/shm") ? "/dev/shm" : "/tmp");
    const std::string tree = root.file("t");
    makeTree(root.path(),
             "mkdir o && touch o/k && for d in $(seq 0 99); do mkdir -p t/d$d"
             " && (cd t/d$d && touch $(seq 99)) || exit 1; done"
             " && ln -s ../../o t/d1/in && ln -s ../o/k t/k");
    const pid_t swapper = fork();
    if (swapper == 0) {
        // Each folder turns into a link on one pass and back on the next.
        for (int round = 0; round < 1000000; ++round) {
            const std::string dir = tree + "/d" + std::to_string(round % 100), away = dir + "~";
            if (round / 100 % 2 != 0) {
                unlink(dir.c_str());
                rename(away.c_str(), dir.c_str());
            } else if (rename(dir.c_str(), away.c_str()) == 0 &&
                       symlink(root.file("o").c_str(), dir.c_str()) != 0) {
                _exit(1);
            }
        }
        _exit(0);
    }
    // Waits for the first swap.
    for (struct stat d0{}; lstat((tree + "/d0").c_str(), &d0) != 0 || !S_ISLNK(d0.st_mode);) {
    }
    for (int attempt = 0; attempt < 50 && fsutil::exists(tree); ++attempt) {
        static_cast<void>(fsutil::removeRecursive(tree));
    }
    kill(swapper, SIGKILL);
    waitpid(swapper, nullptr, 0);
    EXPECT_TRUE(fsutil::removeRecursive(tree));
    EXPECT_THAT(treeContents(root.path()), ElementsAre("o", "o/k"));
}

}  // namespace
}  // namespace kel::testing
