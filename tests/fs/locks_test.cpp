#include "fs/locks.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "tests/support/temp_dir.h"

namespace {

using kel::testing::readFile;

// Another process holds a lock on the file while lockShared takes its own: a
// read lock lets it return at once, a write lock keeps it waiting in fcntl
// until the lock is let go.
TEST(LockSharedTest, WaitsForAWriteLockOnly) {
    const kel::testing::TempDir dir;
    const std::string file = dir.file("locked");
    std::ofstream(file) << "contents";
    for (const short type : {F_RDLCK, F_WRLCK}) {
        int ready[2], release[2];
        ASSERT_EQ(pipe(ready) | pipe(release), 0);
        const pid_t holder = fork();
        if (holder == 0) {
            struct flock lock {};
            lock.l_type = type;
            pollfd released{release[0], POLLIN, 0};
            // Takes the lock, says so, and holds it until told to let go (exit
            // 0) or for 10 s at most (exit 1).
            _exit(fcntl(open(file.c_str(), O_RDWR), F_SETLK, &lock) != 0 ||
                  write(ready[1], "L", 1) != 1 || poll(&released, 1, 10'000) != 1);
        }
        char byte = 0;
        ASSERT_EQ(read(ready[0], &byte, 1), 1);
        std::atomic<pid_t> taker{0};  // -1 once lockShared has returned
        int fd = -1;
        std::thread taking([&] {
            taker = gettid();
            fd = fsutil::lockShared(file);
            taker = -1;
        });
        const std::string inFcntl = std::to_string(SYS_fcntl) + " ";
        while (taker != -1 && !(type == F_WRLCK &&
                                readFile("/proc/self/task/" + std::to_string(taker) + "/syscall")
                                    .starts_with(inFcntl))) {
        }
        EXPECT_EQ(taker == -1, type == F_RDLCK);
        EXPECT_EQ(write(release[1], "R", 1), 1);
        taking.join();
        EXPECT_GE(fd, 0) << type;
        int status = -1;
        EXPECT_EQ(waitpid(holder, &status, 0), holder);
        EXPECT_EQ(status, 0) << type;
        EXPECT_TRUE(fsutil::unlockAndClose(fd));
    }
}

}  // namespace
