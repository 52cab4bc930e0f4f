// What the report of a hung step says about it: the system call the thread was
// blocked in, read before the capture disturbed it, and the source line that
// made the call.
#include <fcntl.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "platform/systemlog/system_log.h"
#include "platform/watchdog/watchdog.h"

// Defined only when the ThreadSanitizer runtime is linked in.
extern "C" __attribute__((weak)) void __tsan_init();

namespace {

int sStepLine = 0;

__attribute__((noinline)) void sleepUnderWatchdog() {
    uint64_t handle = 0;
    TelephonyBasebandWatchdogStartWithStackshot(&handle, 200, "hang report test");
    const timespec longer{5, 0};
    sStepLine = __LINE__ + 1;
    syscall(SYS_ppoll, nullptr, 0, &longer, nullptr, 0);
    TelephonyBasebandWatchdogStop(&handle);
}

TEST(HangReportTest, NamesTheBlockingCallAndItsLine) {
    alarm(10);
    int log[2];
    ASSERT_EQ(pipe2(log, O_CLOEXEC), 0);
    systemlog::redirectForTesting(log[1]);
    sleepUnderWatchdog();
    std::string report;
    char buffer[4096];
    for (ssize_t n = 0; report.find("stack report file:") == std::string::npos &&
                        (n = read(log[0], buffer, sizeof buffer)) > 0;) {
        report.append(buffer, static_cast<size_t>(n));
    }
    EXPECT_NE(report.find("state: S, "), std::string::npos) << report;
    EXPECT_NE(report.find(", syscall: " + std::to_string(SYS_ppoll) + " "), std::string::npos)
        << report;
    // Under ThreadSanitizer the thread cannot answer in time.
    if (&__tsan_init == nullptr) {
        EXPECT_NE(report.find("hang_report_test.cpp:" + std::to_string(sStepLine)),
                  std::string::npos)
            << report;
    }
}

}  // namespace
