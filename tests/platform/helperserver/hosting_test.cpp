#include <spawn.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <system_error>

#include <gtest/gtest.h>

#include "platform/helperserver/helper_server.h"

extern char** environ;

namespace {

// A fresh folder under /tmp, removed with what the tests put in it.
class TempDir {
  public:
    TempDir() {
        char pattern[] = "/tmp/h2-hosting-XXXXXX";
        path_ = mkdtemp(pattern) != nullptr ? pattern : "";
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    const std::string& path() const { return path_; }

  private:
    std::string path_;
};

TEST(HostingLockTest, OneProcessAtATime) {
    ASSERT_NE(&sCanHostHelperServer, nullptr);
    TempDir dir;
    ASSERT_FALSE(dir.path().empty());
    // A folder that does not exist yet: the lock's folder is made on demand.
    const std::string runtimeDir = dir.path() + "/run";
    ASSERT_EQ(setenv("KEL_HELPER_RUNTIME_DIR", runtimeDir.c_str(), 1), 0);

    int answer[2];
    int release[2];
    ASSERT_EQ(pipe(answer), 0);
    ASSERT_EQ(pipe(release), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        close(answer[0]);
        close(release[1]);
        const char result = static_cast<char>('0' + sCanHostHelperServer());
        if (write(answer[1], &result, 1) != 1) {
            _exit(2);
        }
        char ignored;
        while (read(release[0], &ignored, 1) > 0) {
        }
        _exit(0);
    }
    close(answer[1]);
    close(release[0]);
    char childResult = 0;
    EXPECT_EQ(read(answer[0], &childResult, 1), 1);
    close(answer[0]);
    EXPECT_EQ(childResult, '1');

    EXPECT_EQ(sCanHostHelperServer(), 0);

    close(release[1]);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);

    // The child's exit dropped the lock; once taken, it is kept.
    EXPECT_EQ(sCanHostHelperServer(), 1);
    EXPECT_EQ(sCanHostHelperServer(), 1);

    const mode_t mask = umask(0);
    umask(mask);
    struct stat info {};
    ASSERT_EQ(stat((runtimeDir + "/helper-server.lock").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0644 & ~mask);
    unsetenv("KEL_HELPER_RUNTIME_DIR");
}

// The trace folders are fixed while the process starts, so the runtime folder
// case runs in a fresh copy of this program.
TEST(TracePathsTest, FollowRuntimeDirOrDefaults) {
    if (const char* expected = getenv("KEL_TEST_EXPECT_RUNTIME_DIR")) {
        EXPECT_EQ(std::string(kel::trace::kScratchFolder), std::string(expected) + "/scratch/");
        EXPECT_EQ(std::string(kel::trace::kSnapshotFolder), std::string(expected) + "/snapshots/");
        return;
    }
    if (getenv("KEL_HELPER_RUNTIME_DIR") == nullptr) {
        EXPECT_STREQ(kel::trace::kScratchFolder, KEL_TRACE_SCRATCH_FOLDER);
        EXPECT_STREQ(kel::trace::kSnapshotFolder, KEL_TRACE_SNAPSHOT_FOLDER);
    }

    const std::string dir = "/tmp/h2-trace-paths";
    std::string runtimeVar = "KEL_HELPER_RUNTIME_DIR=" + dir;
    std::string expectVar = "KEL_TEST_EXPECT_RUNTIME_DIR=" + dir;
    std::string filter = "--gtest_filter=TracePathsTest.*";
    char self[] = "/proc/self/exe";
    char* argv[] = {self, filter.data(), nullptr};
    char* envp[] = {runtimeVar.data(), expectVar.data(), nullptr};
    pid_t child = 0;
    ASSERT_EQ(posix_spawn(&child, self, nullptr, nullptr, argv, envp), 0);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

}  // namespace
