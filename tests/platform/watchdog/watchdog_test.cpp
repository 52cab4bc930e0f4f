#include "platform/watchdog/watchdog.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/helperserver/helper_server.h"
#include "platform/systemlog/system_log.h"
#include "tests/support/temp_dir.h"

constexpr char kHungReason[] = "watchdog test: step hung";

// Outside the anonymous namespace: the executable exports it, so the report's
// backtrace names it.
__attribute__((noinline)) ssize_t readUnderWatchdog(int fd, char* byte) {
    uint64_t handle = 0;
    TelephonyBasebandWatchdogStartWithStackshot(&handle, 5000, kHungReason);
    const ssize_t result = read(fd, byte, 1);
    TelephonyBasebandWatchdogStop(&handle);
    return result;
}

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// ThreadSanitizer holds a signal back until the thread returns from a call it
// does not know to block (read and waitpid among them): there the hung thread
// cannot answer in time and the report comes without a backtrace.
#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KEL_TEST_UNDER_TSAN
#endif
#endif
#if defined(__SANITIZE_THREAD__) || defined(KEL_TEST_UNDER_TSAN)
constexpr char kHungFrame[] = "backtrace: unavailable";
#else
constexpr char kHungFrame[] = "readUnderWatchdog";
#endif

int start(uint64_t* handle, const char* reason = "watchdog test") {
    return TelephonyBasebandWatchdogStartWithStackshot(handle, 5000, reason);
}
int stop(uint64_t* handle) {
    return TelephonyBasebandWatchdogStop(handle);
}

TEST(WatchdogTableTest, NestedGuardsAreIndependentAndStaleStopsHarmless) {
    uint64_t outer = 0;
    uint64_t inner = 0;
    ASSERT_EQ(start(&outer), 0);
    ASSERT_EQ(start(&inner), 0);
    EXPECT_EQ(stop(&outer), 0);
    EXPECT_EQ(stop(&inner), 0);
    // The next guard takes a freed slot; the stale handles leave it armed.
    uint64_t next = 0;
    ASSERT_EQ(start(&next), 0);
    EXPECT_EQ(stop(&outer), -1);
    EXPECT_EQ(stop(&inner), -1);
    EXPECT_EQ(stop(&next), 0);
}

// A refused start arms nothing and hands out handle 0, which Stop ignores.
TEST(WatchdogTableTest, RefusedStartsArmNothing) {
    uint64_t refused = 1;
    EXPECT_EQ(start(nullptr), -1);
    EXPECT_EQ(start(&refused, nullptr), -1);
    EXPECT_EQ(refused, 0u);
    EXPECT_EQ(TelephonyBasebandWatchdogStartWithStackshot(&refused, -1, "watchdog test"), -1);
    EXPECT_EQ(stop(nullptr), -1);

    std::vector<uint64_t> handles(kTelephonyBasebandWatchdogCapacity);
    for (uint64_t& handle : handles) {
        ASSERT_EQ(start(&handle), 0);
    }
    refused = 1;
    EXPECT_EQ(start(&refused), -1);
    EXPECT_EQ(refused, 0u);
    EXPECT_EQ(stop(&refused), -1);
    // A freed slot arms again. Each stop succeeds only for a distinct handle.
    EXPECT_EQ(stop(&handles[7]), 0);
    EXPECT_EQ(start(&handles[7]), 0);
    for (uint64_t& handle : handles) {
        EXPECT_EQ(stop(&handle), 0);
    }
}

TEST(WatchdogTableTest, ThreadsArmAndDisarmConcurrently) {
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        // Counted per thread: a shared counter would order the threads' calls.
        threads.emplace_back([&failures] {
            int failed = 0;
            for (int round = 0; round < 2000; ++round) {
                uint64_t outer = 0;
                uint64_t inner = 0;
                failed += start(&outer) != 0;
                failed += start(&inner) != 0;
                failed += stop(&inner) != 0;
                failed += stop(&outer) != 0;
            }
            failures += failed;
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(failures, 0);
}

// --- The service for real ---------------------------------------------------
//
// The snapshot folder is fixed when the process starts, so the hung-step test
// runs in a fresh copy of this executable whose environment points it at a
// temporary folder.

constexpr char kChildMarker[] = "KEL_WATCHDOG_REPORT_CHILD";
constexpr char kQuickReason[] = "watchdog test: quick step";

// What arrives on `fd` until some text contains `last`, or until `deadline`.
std::string readUntil(int fd, const std::string& last, Clock::time_point deadline) {
    std::string text;
    char buffer[4096];
    pollfd readable{fd, POLLIN, 0};
    auto msLeft = [&] { return std::max(0, static_cast<int>((deadline - Clock::now()) / 1ms)); };
    ssize_t n = 0;
    while (text.find(last) == std::string::npos && poll(&readable, 1, msLeft()) == 1 &&
           (n = read(fd, buffer, sizeof buffer)) > 0) {
        text.append(buffer, static_cast<size_t>(n));
    }
    return text;
}

TEST(WatchdogReportChild, HungStepIsReportedOnce) {
    if (getenv(kChildMarker) == nullptr) {
        GTEST_SKIP() << "runs inside WatchdogReportTest.HungStepIsReportedOnceAndResultKept";
    }
    int release[2];
    int log[2];
    ASSERT_EQ(pipe2(release, O_CLOEXEC), 0);
    ASSERT_EQ(pipe2(log, O_CLOEXEC), 0);
    const int previousLog = systemlog::redirectForTesting(log[1]);
    uint64_t quick = 0;
    start(&quick, kQuickReason);
    stop(&quick);

    ssize_t result = -1;
    char byte = 0;
    int stepErrno = 0;
    pid_t stepThread = 0;
    const Clock::time_point armedAt = Clock::now();
    std::thread step([&] {
        pthread_setname_np(pthread_self(), "hung-step");
        stepThread = gettid();
        errno = 0;
        result = readUnderWatchdog(release[0], &byte);
        stepErrno = errno;
    });
    // The whole test stays under 10 s: a report that has not come by then
    // counts as missing.
    const std::string report = readUntil(log[0], "stack report file:", armedAt + 10s);
    const Clock::duration reportedAfter = Clock::now() - armedAt;
    ASSERT_EQ(write(release[1], "x", 1), 1);
    step.join();
    systemlog::redirectForTesting(previousLog);

    // The step read its byte as if nothing had happened.
    EXPECT_EQ(result, 1);
    EXPECT_EQ(byte, 'x');
    EXPECT_EQ(stepErrno, 0);
    EXPECT_GE(reportedAfter, 5s);

    // Exactly one report, of the hung step.
    EXPECT_EQ(report.find("stack report: "), report.rfind("stack report: ")) << report;
    EXPECT_EQ(report.find(kQuickReason), std::string::npos) << report;
    const std::vector<std::filesystem::path> files(
        std::filesystem::directory_iterator(kel::trace::kSnapshotFolder), {});
    ASSERT_EQ(files.size(), 1u);
    const std::string saved = kel::testing::readFile(files[0]);
    for (const std::string& part :
         {std::string(kHungReason), "process: " + std::to_string(getpid()),
          "thread: " + std::to_string(stepThread) + " \"hung-step\"", std::string(kHungFrame)}) {
        EXPECT_NE(report.find(part), std::string::npos) << part << " in\n" << report;
        EXPECT_NE(saved.find(part), std::string::npos) << part << " in\n" << saved;
    }
    EXPECT_NE(report.find("stack report file: " + files[0].string()), std::string::npos) << report;
}

TEST(WatchdogReportTest, HungStepIsReportedOnceAndResultKept) {
    const kel::testing::TempDir dir;
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        setenv("KEL_HELPER_RUNTIME_DIR", dir.path().c_str(), 1);
        setenv(kChildMarker, "1", 1);
        execl("/proc/self/exe", "watchdog_test", "--gtest_filter=WatchdogReportChild.*",
              static_cast<char*>(nullptr));
        _exit(127);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
}

}  // namespace
