#include "fs/ownership.h"

#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include "fs/directories.h"
#include "tests/fs/trees.h"
#include "tests/support/call_recorder.h"
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

// p/d/.. gives p away; links are followed, to files and into folders, and a
// link back into a folder being walked ends the walk. Then a chown that fails
// part-way leaves what came before it in the listing changed, the rest not.
TEST(OwnershipTest, ChangeOwnerRecursive) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "giving files away needs root";
    }
    const TempDir root;
    makeTree(root.path(),
             "mkdir -p p/d/s o c/e w && touch p/x p/d/f p/d/s/g o/h of w/a w/b w/c w/d"
             " && ln -s ../../o p/d/lo && ln -s ../../of p/d/lf && ln -s .. c/e/back");
    EXPECT_TRUE(fsutil::changeOwnerRecursive(root.file("p/x"), 4001, 4001));
    EXPECT_EQ(treeContents(root.path(), [](auto& status) { return status.st_uid == 4001; }),
              Tree{"p/x"});
    EXPECT_TRUE(fsutil::changeOwnerRecursive(root.file("p/d"), 4002, 4002));
    EXPECT_EQ(treeContents(root.path(), [](auto& status) { return status.st_uid == 4002; }),
              (Tree{"o", "o/h", "of", "p", "p/d", "p/d/f", "p/d/s", "p/d/s/g"}));
    EXPECT_FALSE(fsutil::changeOwnerRecursive(root.file("c"), 0, 0));

    Tree listed;
    fsutil::listDirectory(root.file("w"), listed);
    const CallRecorder failingFourth(InjectedFailure{"fchownat", 4, EPERM});
    EXPECT_FALSE(fsutil::changeOwnerRecursive(root.file("w"), 4003, 4003));
    for (size_t i = 0; i < listed.size(); ++i) {
        struct stat entry {};
        lstat(root.file("w/" + listed[i]).c_str(), &entry);
        EXPECT_EQ(entry.st_uid == 4003, i < 3) << listed[i];
    }
}

}  // namespace
}  // namespace kel::testing
