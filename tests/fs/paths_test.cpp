#include "fs/paths.h"

#include <fcntl.h>
#include <ftw.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fs/watchdog_guard.h"
#include "tests/fs/recording_watchdog.h"

namespace {

using ::testing::ElementsAreArray;

int removeEntry(const char* path, const struct stat*, int, FTW*) {
    return remove(path);
}

// Runs each test in a fresh temporary directory as the working directory,
// with umask 0 so that created modes can be compared exactly.
class PathsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_NE(mkdtemp(root_), nullptr);
        previousCwd_ = open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ASSERT_GE(previousCwd_, 0);
        ASSERT_EQ(chdir(root_), 0);
        previousUmask_ = umask(0);
    }
    void TearDown() override {
        umask(previousUmask_);
        EXPECT_EQ(fchdir(previousCwd_), 0);
        close(previousCwd_);
        nftw(root_, removeEntry, 16, FTW_DEPTH | FTW_PHYS);
    }

    static void makeFile(const std::string& path) {
        const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        ASSERT_GE(fd, 0) << path;
        close(fd);
    }
    static int modeOf(const std::string& path) {
        struct stat status {};
        return lstat(path.c_str(), &status) == 0 ? static_cast<int>(status.st_mode & 07777) : -1;
    }
    static bool isDir(const std::string& path) {
        struct stat status {};
        return lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
    }

    char root_[32] = "/tmp/kel-fs-XXXXXX";
    int previousCwd_ = -1;
    mode_t previousUmask_ = 0;
};

TEST_F(PathsTest, ExistsFollowsLinksAndIsDirectoryNeedsADirectory) {
    ASSERT_EQ(mkdir("dir", 0755), 0);
    makeFile("file");
    ASSERT_EQ(symlink("dir", "to-dir"), 0);
    ASSERT_EQ(symlink("nowhere", "dangling"), 0);
    const struct {
        const char* path;
        bool exists;
        bool isDirectory;
    } kCases[] = {
        {"dir", true, true},       {"dir/", true, true},   {"file", true, false},
        {"file/", false, false},   {"to-dir", true, true}, {"dangling", false, false},
        {"missing", false, false}, {"", false, false},
    };
    for (const auto& c : kCases) {
        EXPECT_EQ(fsutil::exists(c.path), c.exists) << c.path;
        EXPECT_EQ(fsutil::isDirectory(c.path), c.isDirectory) << c.path;
    }
}

TEST_F(PathsTest, MakeDirectoryCreatesWithTheModeGiven) {
    EXPECT_TRUE(fsutil::makeDirectory("plain", 0750, false));
    EXPECT_EQ(modeOf("plain"), 0750);

    EXPECT_TRUE(fsutil::makeDirectory("a/b/c", 0701, true));
    for (const char* made : {"a", "a/b", "a/b/c"}) {
        EXPECT_EQ(modeOf(made), 0701) << made;
    }

    const std::string absolute = std::string(root_) + "/x/y";
    EXPECT_TRUE(fsutil::makeDirectory(absolute, 0755, true));
    EXPECT_TRUE(isDir(absolute));

    EXPECT_TRUE(fsutil::makeDirectory("p//q/", 0755, true));
    EXPECT_TRUE(isDir("p/q"));

    // An empty path names the current directory: nothing to create.
    EXPECT_TRUE(fsutil::makeDirectory("", 0755, true));
}

TEST_F(PathsTest, MakeDirectoryLeavesExistingPathsAlone) {
    makeFile("file");
    ASSERT_EQ(mkdir("dir", 0700), 0);
    for (bool recursive : {false, true}) {
        EXPECT_TRUE(fsutil::makeDirectory("file", 0755, recursive));
        EXPECT_FALSE(isDir("file"));
        EXPECT_TRUE(fsutil::makeDirectory("dir", 0755, recursive));
        EXPECT_EQ(modeOf("dir"), 0700);
    }
}

TEST_F(PathsTest, MakeDirectoryFailuresAreResults) {
    makeFile("file");
    EXPECT_FALSE(fsutil::makeDirectory("missing/child", 0755, false));
    EXPECT_FALSE(isDir("missing"));
    EXPECT_FALSE(fsutil::makeDirectory("file/child", 0755, true));

    // Directories made before the failing step are kept.
    const std::string tooLong(300, 'n');
    EXPECT_FALSE(fsutil::makeDirectory("kept/" + tooLong + "/leaf", 0755, true));
    EXPECT_TRUE(isDir("kept"));
}

TEST_F(PathsTest, UniquePathAppendsTheFirstFreeNumber) {
    makeFile("run.log");
    makeFile("run.log-1");
    makeFile("taken");
    const struct {
        const char* path;
        const char* unique;
    } kCases[] = {
        {"free", "free"},
        {"taken", "taken-1"},
        {"run.log", "run.log-2"},
    };
    for (const auto& c : kCases) {
        EXPECT_EQ(fsutil::uniquePath(c.path), c.unique) << c.path;
    }
}

TEST_F(PathsTest, UniquePathBeforeExtensionNumbersTheName) {
    ASSERT_EQ(mkdir("logs", 0755), 0);
    for (const char* existing : {"logs/run.log", "logs/run-1.log", "n.tar.gz", "a b.txt", "plain",
                                 "with_under-score.x", "line\nfeed"}) {
        makeFile(existing);
    }
    const struct {
        std::string path;
        std::string unique;
    } kCases[] = {
        {"logs/free.log", "logs/free.log"},
        {"logs/run.log", "logs/run-2.log"},
        {"n.tar.gz", "n-1.tar.gz"},
        {"a b.txt", "a-1 b.txt"},
        {"plain", "plain-1"},
        {"with_under-score.x", "with_under-score-1.x"},
        {"line\nfeed", ""},
        {std::string(root_) + "/logs/run.log", std::string(root_) + "/logs/run-2.log"},
    };
    for (const auto& c : kCases) {
        EXPECT_EQ(fsutil::uniquePathBeforeExtension(c.path), c.unique) << c.path;
    }
}

TEST(PathSplitTest, LastComponentAndDirectoryPart) {
    const struct {
        const char* path;
        const char* last;
        const char* directory;
    } kCases[] = {
        {"/a/b/c.log", "c.log", "/a/b/"},
        {"/a/b/", "", "/a/b/"},
        {"a//b", "b", "a//"},
        {"/a/b/b", "b", "/a/b/"},
        {"name", "name", ""},
        {"/", "", "/"},
        {"", "", ""},
    };
    for (const auto& c : kCases) {
        EXPECT_EQ(fsutil::lastPathComponent(c.path), c.last) << c.path;
        EXPECT_EQ(fsutil::directoryPart(c.path), c.directory) << c.path;
    }
}

// --- Which steps run under a guard ------------------------------------------

TEST_F(PathsTest, EachFileSystemStepRunsUnderItsOwnGuard) {
    ASSERT_EQ(mkdir("dir", 0755), 0);
    makeFile("file");
    const std::vector<std::string> kStat = {"arm", "stat", "disarm"};
    const std::vector<std::string> kMkdir = {"arm", "mkdir", "disarm"};
    auto join = [](std::initializer_list<std::vector<std::string>> parts) {
        std::vector<std::string> all;
        for (const auto& part : parts) {
            all.insert(all.end(), part.begin(), part.end());
        }
        return all;
    };
    const struct {
        const char* what;
        std::function<void()> operation;
        std::vector<std::string> log;
    } kCases[] = {
        {"exists", [] { fsutil::exists("dir"); }, kStat},
        {"isDirectory of a directory", [] { fsutil::isDirectory("dir"); },
         join({kStat, {"opendir", "readdir", "closedir"}})},
        {"isDirectory of nothing", [] { fsutil::isDirectory("missing"); }, kStat},
        {"makeDirectory of an existing path", [] { fsutil::makeDirectory("file", 0755, true); },
         kStat},
        {"makeDirectory", [] { fsutil::makeDirectory("new", 0755, false); }, join({kStat, kMkdir})},
        {"makeDirectory with a missing parent",
         [] { fsutil::makeDirectory("missing/new", 0755, false); }, join({kStat, kMkdir})},
        {"recursive makeDirectory", [] { fsutil::makeDirectory("r/s", 0755, true); },
         join({kStat, kStat, kMkdir, kStat, kMkdir})},
        {"recursive makeDirectory through an existing directory",
         [] { fsutil::makeDirectory("dir/t", 0755, true); }, join({kStat, kStat, kStat, kMkdir})},
        {"recursive makeDirectory blocked by a file",
         [] { fsutil::makeDirectory("file/u", 0755, true); }, join({kStat, kStat, kStat, kMkdir})},
        {"uniquePath", [] { fsutil::uniquePath("file"); }, join({kStat, kStat})},
        {"uniquePathBeforeExtension", [] { fsutil::uniquePathBeforeExtension("file"); },
         join({kStat, kStat})},
        {"path splitting", [] { fsutil::directoryPart(fsutil::lastPathComponent("/a/b")); }, {}},
    };
    for (const auto& c : kCases) {
        recording::start();
        c.operation();
        EXPECT_THAT(recording::stop(), ElementsAreArray(c.log)) << c.what;
        EXPECT_EQ(recording::armedCount(), 0) << c.what;
    }
}

TEST(WatchdogGuardTest, NestsAndDisarmsWhenAnExceptionLeavesTheStep) {
    recording::start();
    try {
        fsutil::WatchdogGuard outer;
        fsutil::WatchdogGuard inner;
        recording::record("step");
        throw std::runtime_error("step failed");
    } catch (const std::runtime_error&) {
        recording::record("caught");
    }
    EXPECT_THAT(recording::stop(),
                ElementsAreArray({"arm", "arm", "step", "disarm", "disarm", "caught"}));
    EXPECT_EQ(recording::armedCount(), 0);
}

}  // namespace
