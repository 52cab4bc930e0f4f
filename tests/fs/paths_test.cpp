#include "fs/paths.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "fs/watchdog_guard.h"
#include "platform/watchdog/watchdog.h"
#include "tests/support/temp_dir.h"

// The executable's definitions of the watchdog service and of the libc calls
// that the path operations make take precedence over the library ones, so
// each thread can log which calls ran under a guard: "[" arms a guard, "]"
// disarms the innermost armed one, "]!" is any other disarm.
namespace {

thread_local bool sRecording = false;
thread_local std::string sLog;
thread_local std::vector<uint64_t> sArmed;
thread_local uint64_t sNextHandle = 1;

void record(const std::string& event) {
    if (sRecording) {
        sLog += (sLog.empty() ? "" : " ") + event;
    }
}

std::string recordDuring(void (*operation)()) {
    sLog.clear();
    sRecording = true;
    operation();
    sRecording = false;
    return sLog;
}

// Records the call, then hands it to the next definition in the lookup order
// (libc's, or a sanitizer's).
template <auto& Function, typename... Args>
auto callNext(const char* name, Args... args) {
    static const auto sNext = reinterpret_cast<decltype(&Function)>(dlsym(RTLD_NEXT, name));
    record(name);
    return sNext(args...);
}

}  // namespace

extern "C" int TelephonyBasebandWatchdogStartWithStackshot(uint64_t* handle, int32_t, const char*) {
    *handle = sNextHandle++;
    sArmed.push_back(*handle);
    record("[");
    return 0;
}

extern "C" int TelephonyBasebandWatchdogStop(uint64_t* handle) {
    const bool innermost = !sArmed.empty() && sArmed.back() == *handle;
    if (innermost) {
        sArmed.pop_back();
    }
    record(innermost ? "]" : "]!");
    return innermost ? 0 : -1;
}

extern "C" int stat(const char* path, struct stat* status) noexcept {
    return callNext<stat>("stat", path, status);
}
extern "C" int mkdir(const char* path, mode_t mode) noexcept {
    return callNext<mkdir>("mkdir", path, mode);
}
extern "C" DIR* opendir(const char* path) {
    return callNext<opendir>("opendir", path);
}
extern "C" dirent* readdir(DIR* directory) {
    return callNext<readdir>("readdir", directory);
}
extern "C" int closedir(DIR* directory) {
    return callNext<closedir>("closedir", directory);
}

namespace {

// Runs each test in a fresh temporary directory as the working directory,
// with umask 0 so that created modes can be compared exactly.
class PathsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        previousCwd_ = open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ASSERT_EQ(chdir(root_.path().c_str()), 0);
        previousUmask_ = umask(0);
        ASSERT_EQ(mkdir("dir", 0700), 0);
        const int fd = open("file", O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        ASSERT_GE(fd, 0);
        close(fd);
    }
    void TearDown() override {
        umask(previousUmask_);
        EXPECT_EQ(fchdir(previousCwd_), 0);
        close(previousCwd_);
    }

    kel::testing::TempDir root_;
    int previousCwd_ = -1;
    mode_t previousUmask_ = 0;
};

// File type and permission bits, or -1 when nothing is there.
int modeOf(const std::string& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 ? static_cast<int>(status.st_mode) : -1;
}

TEST_F(PathsTest, ExistsFollowsLinksAndIsDirectoryNeedsADirectory) {
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

TEST_F(PathsTest, MakeDirectory) {
    constexpr int kMade = S_IFDIR | 0701;
    const struct {
        std::string path;
        bool recursive;
        bool result;
        std::vector<std::pair<std::string, int>> modes;  // afterwards
    } kCases[] = {
        {"plain", false, true, {{"plain", kMade}}},
        {"a/b/c", true, true, {{"a", kMade}, {"a/b", kMade}, {"a/b/c", kMade}}},
        {root_.file("x/y"), true, true, {{"x", kMade}, {"x/y", kMade}}},
        {"p//q/", true, true, {{"p", kMade}, {"p/q", kMade}}},
        // An empty path names the current directory: nothing to create.
        {"", true, true, {}},
        // Whatever exists is left as it is.
        {"file", true, true, {{"file", S_IFREG | 0600}}},
        {"dir", false, true, {{"dir", S_IFDIR | 0700}}},
        // Failures are results; directories made before the failing step stay.
        {"missing/child", false, false, {{"missing", -1}}},
        {"file/child", true, false, {}},
        {"kept/" + std::string(300, 'n') + "/leaf", true, false, {{"kept", kMade}}},
    };
    for (const auto& c : kCases) {
        EXPECT_EQ(fsutil::makeDirectory(c.path, 0701, c.recursive), c.result) << c.path;
        for (const auto& [path, mode] : c.modes) {
            EXPECT_EQ(modeOf(path), mode) << c.path << ": " << path;
        }
    }
}

TEST_F(PathsTest, UniqueNames) {
    ASSERT_EQ(mkdir("logs", 0755), 0);
    for (const char* taken : {"logs/run.log", "logs/run-1.log", "logs/run.log-1", "n.tar.gz",
                              "a b.txt", "plain_name-x", "line\nfeed"}) {
        ASSERT_EQ(mkdir(taken, 0755), 0) << taken;
    }
    const struct {
        std::string path;
        std::string unique;
        std::string uniqueBeforeExtension;
    } kCases[] = {
        {"logs/free.log", "logs/free.log", "logs/free.log"},
        {"logs/run.log", "logs/run.log-2", "logs/run-2.log"},
        {"n.tar.gz", "n.tar.gz-1", "n-1.tar.gz"},
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

// Failing steps are disarmed too: the last mkdir of "file/u" fails.
TEST_F(PathsTest, EachFileSystemStepRunsUnderItsOwnGuard) {
    const struct {
        const char* what;
        void (*operation)();
        const char* log;
    } kCases[] = {
        {"exists", [] { fsutil::exists("dir"); }, "[ stat ]"},
        {"isDirectory", [] { fsutil::isDirectory("dir"); }, "[ stat ] opendir readdir closedir"},
        {"makeDirectory of an existing path", [] { fsutil::makeDirectory("file", 0755, true); },
         "[ stat ]"},
        {"makeDirectory", [] { fsutil::makeDirectory("new", 0755, false); }, "[ stat ] [ mkdir ]"},
        {"recursive makeDirectory", [] { fsutil::makeDirectory("r/s", 0755, true); },
         "[ stat ] [ stat ] [ mkdir ] [ stat ] [ mkdir ]"},
        {"recursive makeDirectory blocked by a file",
         [] { fsutil::makeDirectory("file/u", 0755, true); },
         "[ stat ] [ stat ] [ stat ] [ mkdir ]"},
        {"uniquePath", [] { fsutil::uniquePath("file"); }, "[ stat ] [ stat ]"},
        {"uniquePathBeforeExtension", [] { fsutil::uniquePathBeforeExtension("file"); },
         "[ stat ] [ stat ]"},
        {"path splitting", [] { fsutil::directoryPart(fsutil::lastPathComponent("/a/b")); }, ""},
        {"an exception leaving nested guards",
         [] {
             try {
                 fsutil::WatchdogGuard outer;
                 fsutil::WatchdogGuard inner;
                 record("step");
                 throw std::runtime_error("step failed");
             } catch (const std::runtime_error&) {
                 record("caught");
             }
         },
         "[ [ step ] ] caught"},
    };
    for (const auto& c : kCases) {
        EXPECT_EQ(recordDuring(c.operation), c.log) << c.what;
    }
}

}  // namespace
