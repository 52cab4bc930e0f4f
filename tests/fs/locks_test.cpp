// Built with the real watchdog service (fs_locks_test), whose stack reports
// go to a folder of the test's own.
#include "fs/locks.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "fs/watchdog_guard.h"
#include "platform/systemlog/system_log.h"
#include "platform/trace/trace.h"
#include "tests/support/temp_dir.h"

namespace {

using kel::testing::readFile;

TEST(LockSharedTest, WaitsForAWriteLockOnlyAndAHungWaitIsReportedOnce) {
    if (std::getenv("KEL_HELPER_RUNTIME_DIR") == nullptr) {
        GTEST_SKIP() << "needs KEL_HELPER_RUNTIME_DIR, which ctest sets, for its stack reports";
    }
    std::filesystem::remove_all(kel::trace::kSnapshotFolder);
    const kel::testing::TempDir dir;
    const std::string file = dir.file("locked");
    std::ofstream(file) << "contents";
    int ready[2], release[2], log[2];
    ASSERT_EQ(pipe(ready) | pipe(release) | pipe(log), 0);
    const int previousLog = systemlog::redirectForTesting(log[1]);
    // The read lock is let go only after lockShared has returned; the write
    // lock once the waiting lockShared has been reported in the system log.
    for (const auto& [type, end] : {std::pair{F_RDLCK, release[0]}, std::pair{F_WRLCK, log[0]}}) {
        const pid_t holder = fork();
        if (holder == 0) {
            struct flock lock {};
            lock.l_type = static_cast<short>(type);
            pollfd released{end, POLLIN, 0};
            // Takes the lock, says so, and holds it until `end` turns readable
            // (exit 0) or for 10 s at most (exit 1).
            _exit(fcntl(open(file.c_str(), O_RDWR), F_SETLK, &lock) != 0 ||
                  write(ready[1], "L", 1) != 1 || poll(&released, 1, 10'000) != 1);
        }
        char byte = 0;
        ASSERT_EQ(read(ready[0], &byte, 1), 1);
        const int fd = fsutil::lockShared(file);
        EXPECT_GE(fd, 0);
        EXPECT_EQ(write(release[1], "R", 1), 1);
        int status = -1;
        EXPECT_EQ(waitpid(holder, &status, 0), holder);
        EXPECT_EQ(status, 0) << "lock type " << type;
        EXPECT_TRUE(fsutil::unlockAndClose(fd));
    }
    systemlog::redirectForTesting(previousLog);
    const std::vector<std::filesystem::path> reports(
        std::filesystem::directory_iterator(kel::trace::kSnapshotFolder), {});
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_NE(readFile(reports[0]).find(fsutil::kWatchdogReason), std::string::npos);
}

}  // namespace
