#include "fs/paths.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "fs/watchdog_guard.h"
#include "tests/support/call_recorder.h"
#include "tests/support/temp_dir.h"

namespace {

// Runs each test in a fresh temporary directory, holding a directory "dir"
// (0700) and a file "file", as the working directory, with umask 0 so that
// created modes can be compared exactly.
class PathsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::filesystem::current_path(root_.path());
        ASSERT_EQ(mkdir("dir", 0700), 0);
        ASSERT_TRUE(std::ofstream("file"));
    }
    void TearDown() override {
        umask(previousUmask_);
        std::filesystem::current_path(previousCwd_);
    }

    const kel::testing::TempDir root_;
    const std::filesystem::path previousCwd_ = std::filesystem::current_path();
    const mode_t previousUmask_ = umask(0);
};

// File type and permission bits, or -1 when nothing is there.
int modeOf(const std::string& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 ? static_cast<int>(status.st_mode) : -1;
}

TEST_F(PathsTest, ExistsFollowsLinksAndIsDirectoryNeedsADirectory) {
    ASSERT_EQ(symlink("dir", "to-dir"), 0);
    ASSERT_EQ(symlink("nowhere", "dangling"), 0);
    const std::tuple<const char*, bool, bool> kCases[] = {
        {"dir", true, true},       {"dir/", true, true},   {"file", true, false},
        {"file/", false, false},   {"to-dir", true, true}, {"dangling", false, false},
        {"missing", false, false}, {"", false, false},
    };
    for (const auto& [path, exists, isDirectory] : kCases) {
        EXPECT_EQ(fsutil::exists(path), exists) << path;
        EXPECT_EQ(fsutil::isDirectory(path), isDirectory) << path;
    }
}

TEST_F(PathsTest, MakeDirectory) {
    constexpr int kMade = S_IFDIR | 0701;
    // Path, recursive, result, and the modes found afterwards.
    const std::tuple<std::string, bool, bool, std::vector<std::pair<std::string, int>>> kCases[] = {
        {"plain", false, true, {{"plain", kMade}}},
        {"a/b/c", true, true, {{"a", kMade}, {"a/b", kMade}, {"a/b/c", kMade}}},
        {root_.file("x/y"), true, true, {{"x", kMade}, {"x/y", kMade}}},
        {"p//q/", true, true, {{"p", kMade}, {"p/q", kMade}}},
        // An empty path names the current directory: nothing to create.
        {"", true, true, {}},
        // Whatever exists is left as it is.
        {"dir", false, true, {{"dir", S_IFDIR | 0700}}},
        // Failures are results; directories made before the failing step stay.
        {"missing/child", false, false, {{"missing", -1}}},
        {"file/child", true, false, {}},
        {"kept/" + std::string(300, 'n') + "/leaf", true, false, {{"kept", kMade}}},
    };
    for (const auto& [path, recursive, result, modes] : kCases) {
        EXPECT_EQ(fsutil::makeDirectory(path, 0701, recursive), result) << path;
        for (const auto& [made, mode] : modes) {
            EXPECT_EQ(modeOf(made), mode) << path << ": " << made;
        }
    }
}

TEST_F(PathsTest, UniqueNames) {
    for (const char* taken : {"logs/run.log", "logs/run-1.log", "logs/run.log-1", "n.tar.gz",
                              "a b.txt", "plain_name-x", "line\nfeed"}) {
        ASSERT_TRUE(std::filesystem::create_directories(taken)) << taken;
    }
    // Path, uniquePath, uniquePathBeforeExtension.
    const std::tuple<std::string, std::string, std::string> kCases[] = {
        {"logs/free.log", "logs/free.log", "logs/free.log"},
        {"logs/run.log", "logs/run.log-2", "logs/run-2.log"},
        {"n.tar.gz", "n.tar.gz-1", "n-1.tar.gz"},
        {"a b.txt", "a b.txt-1", "a-1 b.txt"},
        {"plain_name-x", "plain_name-x-1", "plain_name-x-1"},
        // The name pattern does not match across a line feed.
        {"line\nfeed", "line\nfeed-1", ""},
    };
    for (const auto& [path, unique, uniqueBeforeExtension] : kCases) {
        EXPECT_EQ(fsutil::uniquePath(path), unique) << path;
        EXPECT_EQ(fsutil::uniquePathBeforeExtension(path), uniqueBeforeExtension) << path;
    }
}

TEST(PathSplitTest, LastComponentAndDirectoryPart) {
    const std::tuple<const char*, const char*, const char*> kCases[] = {
        {"/a/b/c.log", "c.log", "/a/b/"},
        {"/a/b/", "", "/a/b/"},
        {"a//b", "b", "a//"},
        {"/a/b/b", "b", "/a/b/"},
        {"name", "name", ""},
        {"/", "", "/"},
        {"", "", ""},
    };
    for (const auto& [path, last, directory] : kCases) {
        EXPECT_EQ(fsutil::lastPathComponent(path), last) << path;
        EXPECT_EQ(fsutil::directoryPart(path), directory) << path;
    }
}

// Failing steps are disarmed too: the last mkdir of "file/u" fails.
TEST_F(PathsTest, EachFileSystemStepRunsUnderItsOwnGuard) {
    const std::pair<void (*)(), const char*> kCases[] = {
        {[] { (void)fsutil::isDirectory("dir"); }, "[ stat ] opendir readdir closedir"},
        {[] { (void)fsutil::makeDirectory("file", 0755, true); }, "[ stat ]"},
        {[] { (void)fsutil::makeDirectory("new", 0755, false); }, "[ stat ] [ mkdir ]"},
        {[] { (void)fsutil::makeDirectory("r/s", 0755, true); },
         "[ stat ] [ stat ] [ mkdir ] [ stat ] [ mkdir ]"},
        {[] { (void)fsutil::makeDirectory("file/u", 0755, true); },
         "[ stat ] [ stat ] [ stat ] [ mkdir ]"},
        {[] { (void)fsutil::uniquePath("file"); }, "[ stat ] [ stat ]"},
        {[] { (void)fsutil::uniquePathBeforeExtension("file"); }, "[ stat ] [ stat ]"},
        {[] { (void)fsutil::directoryPart(fsutil::lastPathComponent("/a/b")); }, ""},
        // An exception leaving nested guards disarms both.
        {[] {
             try {
                 fsutil::WatchdogGuard outer;
                 fsutil::WatchdogGuard inner;
                 throw 1;
             } catch (int) {
             }
         },
         "[ [ ] ]"},
    };
    for (const auto& c : kCases) {
        kel::testing::CallRecorder recorder;
        c.first();
        EXPECT_EQ(recorder.log(), c.second) << "case " << &c - kCases;
    }
}

}  // namespace
