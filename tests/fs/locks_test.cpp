#include "fs/locks.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "platform/posix/unique_fd.h"
#include "tests/support/outside_probes.h"
#include "tests/support/temp_dir.h"

namespace {

using namespace std::chrono_literals;

// Another holder's write lock (here an open file description's, which
// conflicts with this process's own record locks as another process's would)
// keeps lockShared waiting in fcntl until it is let go. (That it asks for a
// read lock, the fault sweep finds: its descriptor is open for reading only.)
TEST(LockSharedTest, WaitsForAWriteLock) {
    const kel::testing::TempDir dir;
    const std::string file = dir.file("locked");
    std::ofstream(file) << "contents";
    platform::UniqueFd holder(open(file.c_str(), O_RDWR | O_CLOEXEC));
    struct flock lock {};
    lock.l_type = F_WRLCK;
    ASSERT_EQ(fcntl(holder.get(), F_OFD_SETLK, &lock), 0);
    std::atomic<pid_t> taker{0};  // -1 once lockShared has returned
    int fd = -1;
    std::thread taking([&] {
        taker = gettid();
        fd = fsutil::lockShared(file);
        taker = -1;
    });
    const auto inFcntl = [&] {
        return kel::testing::readFile("/proc/self/task/" + std::to_string(taker) + "/syscall")
            .starts_with(std::to_string(SYS_fcntl) + " ");
    };
    EXPECT_TRUE(kel::testing::eventually([&] { return taker == -1 || inFcntl(); }, 10s));
    EXPECT_NE(taker, -1) << "lockShared did not wait for the write lock";
    holder.reset();  // the lock goes with its last descriptor
    taking.join();
    EXPECT_TRUE(fsutil::unlockAndClose(fd));
}

}  // namespace
