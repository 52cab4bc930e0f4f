// The operations on paths, on directories and the trees under them (listing,
// matching, removal and rotation), and on owners, the other walk over a tree.
#include "fs/paths.h"

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

#include "fs/directories.h"
#include "fs/ownership.h"
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

// Runs each test in a fresh temporary directory as the working directory,
// holding a directory "dir" (0700), a file "file" and a link to "dir" and one
// to nothing, with umask 0 so that created modes can be compared exactly.
class PathsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::filesystem::current_path(root_.path());
        makeTree(".",
                 "mkdir -m 700 dir && touch file && ln -s dir to-dir && ln -s nowhere dangling");
    }
    void TearDown() override {
        umask(previousUmask_);
        std::filesystem::current_path(previousCwd_);
    }

    const TempDir root_;
    const std::filesystem::path previousCwd_ = std::filesystem::current_path();
    const mode_t previousUmask_ = umask(0);
};

TEST_F(PathsTest, ExistsFollowsLinksAndIsDirectoryNeedsADirectory) {
    const struct {
        const char* path;
        bool exists, isDirectory;
    } kCases[] = {
        {"dir", true, true},     {"dir/", true, true},   {"file", true, false},
        {"file/", false, false}, {"to-dir", true, true}, {"dangling", false, false},
    };
    for (const auto& c : kCases) {
        EXPECT_EQ(fsutil::exists(c.path), c.exists) << c.path;
        EXPECT_EQ(fsutil::isDirectory(c.path), c.isDirectory) << c.path;
    }
}

TEST_F(PathsTest, MakeDirectoryMakesWhatIsMissingAndKeepsWhatWasMade) {
    constexpr int kMade = S_IFDIR | 0701;
    const struct {
        std::string path;
        bool recursive, result;
        std::vector<std::pair<std::string, int>> modesAfter;
    } kCases[] = {
        {"plain", false, true, {{"plain", kMade}}},
        // Doubled and trailing '/' make no empty names.
        {"a//b/c/", true, true, {{"a", kMade}, {"a/b", kMade}, {"a/b/c", kMade}}},
        {root_.file("x/y"), true, true, {{"x", kMade}, {"x/y", kMade}}},
        // An empty path names the current directory: nothing to create.
        {"", true, true, {}},
        // Whatever exists is left as it is.
        {"dir", false, true, {{"dir", S_IFDIR | 0700}}},
        // Failures are results; directories made before the failing step stay.
        // A mode of -1: nothing is there.
        {"missing/child", false, false, {{"missing", -1}}},
        {"kept/" + std::string(300, 'n'), true, false, {{"kept", kMade}}},
    };
    for (const auto& c : kCases) {
        EXPECT_EQ(fsutil::makeDirectory(c.path, 0701, c.recursive), c.result) << c.path;
        for (const auto& [made, mode] : c.modesAfter) {
            struct stat status {};
            EXPECT_EQ(lstat(made.c_str(), &status) == 0 ? int(status.st_mode) : -1, mode) << made;
        }
    }
}

TEST_F(PathsTest, UniqueNamesCountUpPastWhatExists) {
    for (const char* taken : {"logs/run.log", "logs/run-1.log", "logs/run.log-1", "a b.txt",
                              "plain_name-x", "line\nfeed"}) {
        ASSERT_TRUE(std::filesystem::create_directories(taken)) << taken;
    }
    const struct {
        std::string path, unique, uniqueBeforeExtension;
    } kCases[] = {
        {"logs/free.log", "logs/free.log", "logs/free.log"},
        {"logs/run.log", "logs/run.log-2", "logs/run-2.log"},
        {"a b.txt", "a b.txt-1", "a-1 b.txt"},
        {"plain_name-x", "plain_name-x-1", "plain_name-x-1"},
        // The name pattern does not match across a line feed.
        {"line\nfeed", "line\nfeed-1", ""},
    };
    for (const auto& c : kCases) {
        EXPECT_EQ(fsutil::uniquePath(c.path), c.unique) << c.path;
        EXPECT_EQ(fsutil::uniquePathBeforeExtension(c.path), c.uniqueBeforeExtension) << c.path;
    }
}

TEST(PathSplitTest, LastComponentAndDirectoryPartSplitAtTheLastSlash) {
    const struct {
        const char *path, *last, *directory;
    } kCases[] = {
        {"/a/b/c.log", "c.log", "/a/b/"}, {"/a/b/", "", "/a/b/"}, {"a//b", "b", "a//"},
        {"/a/b/b", "b", "/a/b/"},         {"name", "name", ""},   {"", "", ""},
    };
    for (const auto& c : kCases) {
        EXPECT_EQ(fsutil::lastPathComponent(c.path), c.last) << c.path;
        EXPECT_EQ(fsutil::directoryPart(c.path), c.directory) << c.path;
    }
}

TEST(DirectoriesTest, ListingMatchingAndRotation) {
    const TempDir root;
    makeTree(root.path(),
             "mkdir e m m-1 snap-1 snap-7 snap-x r && touch snap-0x10 snap-10.tmp r/d-2"
             " && ln -s snap-1 snap-9");
    Tree names;
    fsutil::listDirectory(root.file("e"), names);
    fsutil::listDirectory(root.file("missing"), names);
    EXPECT_THAT(names, ::testing::UnorderedElementsAre(".", ".."));
    EXPECT_TRUE(fsutil::findMatching(root.path(), std::regex("snap-9"), names, true));
    EXPECT_EQ(fsutil::moveAside(root.file("e"), root.file("missing/m")), "");
    EXPECT_EQ(fsutil::moveAside(root.file("r/d-2"), root.file("m")), "");  // a file stays
    EXPECT_EQ(fsutil::moveAside(root.file("e"), root.file("m")), root.file("m-2"));
    // Links and names that match only in part are not counted; a suffix reads
    // as strtol reads it with base 0, and the name is rebuilt from the number.
    EXPECT_EQ(fsutil::highestNumberedPath(root.file("snap")), root.file("snap-16/"));
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
// failure, and stays whole (the walk that finds it is the one removeOlderThan
// takes too). Runs again in a child, over a tmpfs in a mount namespace of its
// own where it may bind mount.
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

TEST(OwnershipTest, OnlyAnUnknownAccountIsLogged) {
    const CapturedSystemLog log;
    uid_t uid = 7;
    gid_t gid = 8;
    EXPECT_FALSE(fsutil::getAccountIds(fsutil::Account::kWireless, uid, gid));
    EXPECT_FALSE(fsutil::getAccountIds(static_cast<fsutil::Account>(2), uid, gid));
    EXPECT_EQ(std::pair(uid, gid), std::pair(7u, 8u));
    EXPECT_THAT(log.lines(),
                ElementsAre("<3>Getting uid and gid: failed to get passwd for _wireless"));
}

// A file given is changed alone; p/d/.. gives p away; links are followed, to
// files and into folders, and a link back into a folder being walked ends the
// walk. Then a chown that fails part-way leaves what came before it in the
// listing changed, the rest not.
TEST(OwnershipTest, ChangeOwnerRecursive) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "giving files away needs root";
    }
    const TempDir root;
    makeTree(root.path(),
             "mkdir -p p/d/s o c/e w && touch p/x p/d/f p/d/s/g o/h of w/a w/b w/c w/d"
             " && ln -s ../../o p/d/lo && ln -s ../../of p/d/lf && ln -s .. c/e/back");
    EXPECT_TRUE(fsutil::changeOwnerRecursive(root.file("p/x"), 4002, 4002));
    EXPECT_TRUE(fsutil::changeOwnerRecursive(root.file("p/d"), 4002, 4002));
    EXPECT_EQ(treeContents(root.path(), [](auto& status) { return status.st_uid == 4002; }),
              (Tree{"o", "o/h", "of", "p", "p/d", "p/d/f", "p/d/s", "p/d/s/g", "p/x"}));
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
