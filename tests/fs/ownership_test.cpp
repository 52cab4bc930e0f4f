#include "fs/ownership.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fs/directories.h"
#include "fs/paths.h"
#include "tests/fs/trees.h"
#include "tests/support/log_recording.h"
#include "tests/support/temp_dir.h"

namespace kel::testing {
namespace {

TEST(OwnershipTest, OnlyAnUnknownAccountIsLogged) {
    const CapturedSystemLog log;
    uid_t uid = 7;
    gid_t gid = 8;
    EXPECT_FALSE(fsutil::getAccountIds(fsutil::Account::kWireless, uid, gid));
    EXPECT_FALSE(fsutil::getAccountIds(static_cast<fsutil::Account>(2), uid, gid));
    EXPECT_EQ(std::pair(uid, gid), std::pair(7u, 8u));
    EXPECT_THAT(log.lines(), ::testing::ElementsAre(
                                 "<3>Getting uid and gid: failed to get passwd for _wireless"));
}

// With no descriptor to spare, or fewer than the tree has levels, a walk meets
// folders it cannot open: each is a failure, never taken for a file.
TEST(OwnershipTest, AFolderThatCannotBeOpenedIsAFailure) {
    const TempDir root;
    const std::string tree = root.file("t");
    makeTree(root.path(), "mkdir -p t/$(printf 'd/%.0s' $(seq 40))");
    const struct {
        rlim_t spare;
        bool (*run)(const std::string& tree);
    } kCases[] = {
        {0, [](auto& t) { return fsutil::changeOwnerRecursive(t, getuid(), getgid()); }},
        {8, [](auto& t) { return fsutil::changeOwnerRecursive(t, getuid(), getgid()); }},
        {0, [](auto& t) { return fsutil::removeRecursive(t); }},
    };
    for (const auto& c : kCases) {
        const pid_t child = fork();
        if (child == 0) {
            const int lowestFree = open("/dev/null", O_RDONLY);
            close(lowestFree);
            rlimit limit{};
            getrlimit(RLIMIT_NOFILE, &limit);
            limit.rlim_cur = static_cast<rlim_t>(lowestFree) + c.spare;
            _exit(setrlimit(RLIMIT_NOFILE, &limit) != 0 || c.run(tree));
        }
        int status = -1;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0) << "case " << &c - kCases;
    }
    EXPECT_TRUE(fsutil::exists(tree + "/d/d"));
}

// p/d/.. gives p away; links are followed, to files and into folders, and a
// link back into a folder being walked ends the walk. Then a user who may
// change only the group of its own files meets a file of root's part-way:
// what came before it in the listing changed, the rest not.
TEST(OwnershipTest, ChangeOwnerRecursive) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "giving files away needs root";
    }
    const TempDir root;
    ASSERT_EQ(chmod(root.path().c_str(), 0755), 0);
    makeTree(root.path(),
             "mkdir -p p/d/s o c/e w/q && touch p/x p/d/f p/d/s/g o/h of w/q/a w/q/b"
             " w/q/c w/q/d && ln -s ../../o p/d/lo && ln -s ../../of p/d/lf"
             " && ln -s .. c/e/back");
    EXPECT_TRUE(fsutil::changeOwnerRecursive(root.file("p/x"), 4001, 4001));
    EXPECT_EQ(treeContents(root.path(), [](auto& status) { return status.st_uid == 4001; }),
              Tree{"p/x"});
    EXPECT_TRUE(fsutil::changeOwnerRecursive(root.file("p/d"), 4002, 4002));
    EXPECT_EQ(treeContents(root.path(), [](auto& status) { return status.st_uid == 4002; }),
              (Tree{"o", "o/h", "of", "p", "p/d", "p/d/f", "p/d/s", "p/d/s/g"}));
    EXPECT_FALSE(fsutil::changeOwnerRecursive(root.file("c"), 0, 0));

    constexpr uid_t kUser = 4321;
    Tree listed;
    fsutil::listDirectory(root.file("w/q"), listed);
    for (const std::string& name : listed) {
        ASSERT_TRUE(
            fsutil::changeOwner(root.file("w/q/" + name), name == listed[3] ? 0 : kUser, 0));
    }
    const pid_t child = fork();
    if (child == 0) {
        // Exits 0 only when the walk reports the failure.
        const gid_t group = kUser;
        _exit(setgroups(1, &group) || setresgid(kUser, kUser, kUser) ||
              setresuid(kUser, kUser, kUser) ||
              fsutil::changeOwnerRecursive(root.file("w/q"), kUser, kUser));
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    for (size_t i = 0; i < listed.size(); ++i) {
        struct stat entry {};
        lstat(root.file("w/q/" + listed[i]).c_str(), &entry);
        EXPECT_EQ(entry.st_gid == kUser, i < 3) << listed[i];
    }
}

}  // namespace
}  // namespace kel::testing
