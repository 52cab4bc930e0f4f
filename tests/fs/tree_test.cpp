#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <functional>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fs/directories.h"
#include "fs/ownership.h"
#include "fs/paths.h"
#include "fs/watchdog_guard.h"
#include "tests/support/call_recorder.h"
#include "tests/support/log_recording.h"
#include "tests/support/temp_dir.h"

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
using Tree = std::vector<std::string>;

// Builds a tree in `root` with the shell commands `script`.
void makeTree(const std::string& root, const std::string& script) {
    ASSERT_EQ(std::system(("cd " + root + " && " + script).c_str()), 0) << script;
}

// Every path under `root` whose status `keep` accepts (links not followed),
// relative and sorted.
Tree treeContents(const std::string& root, bool (*keep)(const struct stat&) = nullptr) {
    Tree paths;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
        struct stat status {};
        if (keep == nullptr || (lstat(entry.path().c_str(), &status) == 0 && keep(status))) {
            paths.push_back(entry.path().lexically_relative(root).string());
        }
    }
    std::sort(paths.begin(), paths.end());
    return paths;
}

TEST(DirectoriesTest, ListingMatchingRotationAndErrors) {
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

    // The two error messages, each only where it is due.
    const CapturedSystemLog log;
    EXPECT_FALSE(fsutil::findMatching("/nonexistent", std::regex(".*"), names, true));
    uid_t uid = 7;
    gid_t gid = 8;
    EXPECT_FALSE(fsutil::getAccountIds(fsutil::Account::kWireless, uid, gid));
    EXPECT_FALSE(fsutil::getAccountIds(static_cast<fsutil::Account>(2), uid, gid));
    EXPECT_EQ(std::pair(uid, gid), std::pair(7u, 8u));
    EXPECT_THAT(log.lines(),
                ElementsAre("<3>Error /nonexistent (No such file or directory)",
                            "<3>Getting uid and gid: failed to get passwd for _wireless"));
}

// removeOlderThan: a folder goes whole once its own status is old enough, and
// age 0 takes every entry, links as links. removeRecursive: a plain file goes,
// and a missing path is no failure.
TEST(DirectoriesTest, RemovalEdgeCases) {
    const TempDir root;
    makeTree(root.path(), "mkdir -p t/d o && touch t/d/inner o/k f && ln -s ../o t/l");
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
    EXPECT_THAT(treeContents(root.path()), ElementsAre("o", "o/k", "t"));
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

// The fault sweep of `run` on a fresh tree, built by `script` before each run.
std::string sweep(const std::string& script, const std::function<bool(const std::string&)>& run) {
    const TempDir root;
    const std::string tree = root.file("t");
    return sweepFailures([&] { return run(tree); },
                         [&] {
                             std::filesystem::remove_all(tree);
                             std::filesystem::create_directory(tree);
                             makeTree(tree, script);
                         });
}

// The operations on trees and paths, each through exactly these calls and
// guards, and with each of its calls failing in turn (see sweepFailures). Each
// tree makes the same calls in whatever order its folders list.
TEST(FaultSweepTest, EveryFailureIsAResult) {
    const CapturedSystemLog quiet;
    sHeldTime = time(nullptr) + 9;
    const std::string r4 = "fstat readdir readdir readdir readdir";
    // A folder that cannot be listed to its end fails removal.
    const std::string nested =
        " ] [ [ openat:f fdopendir:f fstat readdir:f readdir:f readdir:f readdir:f ] "
        "[ unlinkat:f ] closedir [ unlinkat ] ] closedir";
    EXPECT_EQ(sweep("true",
                    [](auto& r) {
                        Tree names;
                        fsutil::listDirectory(r, names);
                        return names.size() == 2 &&
                               fsutil::highestNumberedPath(r + "/s") == r + "/s";
                    }),
              "[ opendir:f readdir:f readdir:f readdir closedir ] opendir readdir readdir readdir "
              "closedir");
    EXPECT_EQ(sweep("mkdir -p t/s && touch t/s/f",
                    [](auto& r) { return fsutil::removeRecursive(r + "/t"); }),
              "[ [ stat ] [ openat:f fdopendir:f fstat readdir:f readdir:f readdir:f readdir:f" +
                  nested + " [ remove ] ]");
    EXPECT_EQ(sweep("mkdir s && touch s/f", [](auto& r) { return fsutil::removeOlderThan(r, 1); }),
              "[ openat fdopendir " + r4 + " ] fstatat" + nested.substr(2));
    EXPECT_EQ(
        sweep("mkdir s m", [](auto& r) { return fsutil::moveAside(r + "/s", r + "/m") != ""; }),
        "[ stat:f ] opendir:f readdir:f closedir [ stat ] [ stat ] rename:f");
    EXPECT_EQ(
        sweep("true", [](auto& r) { return fsutil::changeOwnerRecursive(r, getuid(), getgid()); }),
        "[ stat ] [ openat:f fdopendir:f fstat readdir:f readdir:f readdir:f ] [ fchownat:f ] "
        "[ fchownat:f ] "
        "closedir");
    EXPECT_EQ(sweep("touch s",
                    [](auto& r) {
                        return fsutil::changeOwner(r, getuid(), getgid()) &&
                               fsutil::changeMode(r, 0700) &&
                               fsutil::renamePath(r + "/s", r + "/n") &&
                               fsutil::removePath(r + "/n");
                    }),
              "[ chown:f ] [ chmod:f ] [ rename:f ] [ remove ]");
    EXPECT_EQ(sweep("mkdir d",
                    [](auto& r) {
                        return fsutil::isDirectory(r + "/d") &&
                               fsutil::makeDirectory(r + "/d", 0755, /*recursive=*/false) &&
                               fsutil::makeDirectory(r + "/n", 0755, /*recursive=*/false) &&
                               fsutil::makeDirectory(r + "/a/b", 0755, /*recursive=*/true);
                    }),
              "[ stat:f ] opendir:f readdir:f closedir [ stat:f ] [ stat ] [ mkdir:f ] [ stat ] "
              "[ stat:f ] [ stat:f ] [ stat:f ] [ stat ] [ mkdir:f ] [ stat ] [ mkdir:f ]");
    // An exception leaving nested guards disarms both.
    EXPECT_EQ(sweep("true",
                    [](auto&) {
                        try {
                            const fsutil::WatchdogGuard outer;
                            const fsutil::WatchdogGuard inner;
                            throw 1;
                        } catch (int) {
                        }
                        return true;
                    }),
              "[ [ ] ]");
    sHeldTime = 0;
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
