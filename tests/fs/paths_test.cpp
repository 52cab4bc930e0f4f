#include "fs/paths.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

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

TEST_F(PathsTest, ExistsFollowsLinksAndIsDirectoryNeedsADirectory) {
    ASSERT_EQ(symlink("dir", "to-dir"), 0);
    ASSERT_EQ(symlink("nowhere", "dangling"), 0);
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

}  // namespace
