#include <spawn.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "platform/helperserver/helper_server.h"
#include "platform/trace/trace.h"
#include "tests/support/temp_dir.h"

namespace {

// What `body` returns in a forked copy of this process, or -1.
int inChild(int (*body)()) {
    const pid_t child = fork();
    if (child == 0) {
        _exit(body());
    }
    int status = -1;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Only children ask, so this process never holds the lock and the test can
// be repeated.
TEST(HostingLockTest, OneProcessAtATime) {
    ASSERT_NE(&sCanHostHelperServer, nullptr);
    kel::testing::TempDir dir;
    // Not there yet: the lock's folder is made on demand.
    setenv("KEL_HELPER_RUNTIME_DIR", dir.file("run").c_str(), 1);
    int link[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, link), 0);
    const pid_t holder = fork();
    ASSERT_GE(holder, 0);
    if (holder == 0) {
        // Takes the lock, says so, and keeps it until the parent hangs up.
        close(link[0]);
        char byte = static_cast<char>(sCanHostHelperServer());
        _exit(byte == 1 && write(link[1], &byte, 1) == 1 && read(link[1], &byte, 1) == 0 ? 0 : 1);
    }
    close(link[1]);
    char byte;
    ASSERT_EQ(read(link[0], &byte, 1), 1);
    EXPECT_EQ(inChild([] { return sCanHostHelperServer(); }), 0);
    close(link[0]);

    int status = 0;
    ASSERT_EQ(waitpid(holder, &status, 0), holder);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    // The holder's exit dropped the lock; once taken, it is kept.
    EXPECT_EQ(inChild([] { return sCanHostHelperServer() * 10 + sCanHostHelperServer(); }), 11);
    unsetenv("KEL_HELPER_RUNTIME_DIR");
}

// The trace folders are fixed while the process starts, so they are checked
// in a fresh copy of this program started with a runtime folder.
TEST(TracePathsTest, FollowTheRuntimeFolder) {
    if (getenv("KEL_TEST_TRACE_CHILD") != nullptr) {
        const std::string dir = getenv("KEL_HELPER_RUNTIME_DIR");
        EXPECT_EQ(kel::trace::kScratchFolder, dir + "/scratch/");
        EXPECT_EQ(kel::trace::kSnapshotFolder, dir + "/snapshots/");
        return;
    }
    char self[] = "/proc/self/exe";
    char filter[] = "--gtest_filter=TracePathsTest.*";
    char runtimeDir[] = "KEL_HELPER_RUNTIME_DIR=/tmp/kel-trace-paths";
    char marker[] = "KEL_TEST_TRACE_CHILD=1";
    char* argv[] = {self, filter, nullptr};
    char* envp[] = {runtimeDir, marker, nullptr};
    pid_t child = 0;
    ASSERT_EQ(posix_spawn(&child, self, nullptr, nullptr, argv, envp), 0);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

}  // namespace
