#include "platform/watchdog/watchdog.h"

#include <pthread.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/systemlog/system_log.h"
#include "platform/trace/trace.h"
#include "tests/support/temp_dir.h"
#include "tests/support/test_child.h"

constexpr char kHungReason[] = "watchdog test: step hung";
int sStepLine = 0;

// What the read returned, the byte read and errno. Outside the anonymous
// namespace: the executable exports it, so the report's backtrace names it.
__attribute__((noinline)) std::string readUnderWatchdog(int fd) {
    uint64_t handle = 0;
    char byte = 0;
    TelephonyBasebandWatchdogStartWithStackshot(&handle, 5000, kHungReason);
    errno = 0;
    sStepLine = __LINE__ + 1;
    const ssize_t result = read(fd, &byte, 1);
    TelephonyBasebandWatchdogStop(&handle);
    return std::to_string(result) + byte + std::to_string(errno);
}

// Defined only when the ThreadSanitizer runtime is linked in.
extern "C" __attribute__((weak)) void __tsan_init();

namespace {

using namespace std::chrono_literals;

int start(uint64_t* handle) {
    return TelephonyBasebandWatchdogStartWithStackshot(handle, 5000, "watchdog test");
}
constexpr auto* stop = TelephonyBasebandWatchdogStop;

// Guards are independent of each other until the table is full. A refused
// start arms nothing and hands out handle 0, which Stop ignores; a stop with
// the handle of a slot's earlier guard leaves its new one armed. With four
// slots free, threads contend for each one: a slot two of them both took would
// fail the second stop.
TEST(WatchdogTableTest, GuardsAreIndependentUntilTheTableIsFull) {
    std::vector<uint64_t> handles(kTelephonyBasebandWatchdogCapacity);
    for (uint64_t& handle : handles) {
        ASSERT_EQ(start(&handle), 0);
    }
    uint64_t refused = 1;
    EXPECT_TRUE(start(&refused) == -1 && refused == 0 && stop(&refused) == -1);
    uint64_t stale = handles[7];
    EXPECT_TRUE(stop(&handles[7]) == 0 && start(&handles[7]) == 0 && stop(&stale) == -1);

    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(stop(&handles[i]), 0);
    }
    // Counted per thread: a shared counter would order the threads' calls.
    std::vector<int> failures(8);
    std::vector<std::jthread> threads;
    for (int& failed : failures) {
        threads.emplace_back([&failed] {
            for (int round = 0; round < 20000; ++round) {
                uint64_t handle = 0;
                failed += start(&handle) == 0 && stop(&handle) != 0;
            }
        });
    }
    threads.clear();
    EXPECT_EQ(failures, std::vector<int>(8, 0));
    for (size_t i = 4; i < handles.size(); ++i) {
        EXPECT_EQ(stop(&handles[i]), 0);
    }
}

// The snapshot folder is fixed when the process starts, so the hung-step test
// runs in a child whose environment points it at a temporary folder. The
// report says what the hung thread was blocked in, read before the capture
// disturbed it, and where.
TEST(WatchdogReportTest, HungStepIsReportedOnceAndResultKept) {
    if (kel::testing::childArgument() == nullptr) {
        const kel::testing::TempDir dir;
        EXPECT_EQ(
            kel::testing::runTestAgain(dir.path(), "env KEL_HELPER_RUNTIME_DIR=" + dir.path()), 0);
        return;
    }
    // A report that has not come within 10 s counts as missing: the alarm
    // ends this process.
    alarm(10);
    int release[2], log[2];
    ASSERT_EQ(pipe(release) | pipe(log), 0);
    systemlog::redirectForTesting(log[1]);
    // Stopped in time, so never reported; were it reported, its report would
    // come first.
    uint64_t quick = 0;
    TelephonyBasebandWatchdogStartWithStackshot(&quick, 1000, "watchdog test: quick step");
    stop(&quick);

    std::string stepOutcome;
    pid_t stepThread = 0;
    const auto armedAt = std::chrono::steady_clock::now();
    std::thread step([&] {
        pthread_setname_np(pthread_self(), "hung-step");
        stepThread = gettid();
        stepOutcome = readUnderWatchdog(release[0]);
    });
    // Read up to the end of the report's last line, which names its file.
    std::string report;
    char buffer[4096];
    for (ssize_t n = 0;
         (report.find("stack report file:") == std::string::npos || !report.ends_with('\n')) &&
         (n = read(log[0], buffer, sizeof buffer)) > 0;) {
        report.append(buffer, static_cast<size_t>(n));
    }
    EXPECT_GE(std::chrono::steady_clock::now() - armedAt, 5s);
    ASSERT_EQ(write(release[1], "x", 1), 1);
    step.join();
    EXPECT_EQ(stepOutcome, "1x0") << "the step read its byte as if nothing had happened";

    // Exactly one report, of the hung step, in its file and, line for line,
    // in the system log. ThreadSanitizer holds a signal back until the thread
    // returns from a call it does not know to block (read among them): there
    // the hung thread cannot answer in time.
    const std::vector<std::filesystem::path> files(
        std::filesystem::directory_iterator(kel::trace::kSnapshotFolder), {});
    ASSERT_EQ(files.size(), 1u);
    const std::string saved = kel::testing::readFile(files[0]);
    EXPECT_EQ(report, saved + "stack report file: " + files[0].string() + "\n");
    std::vector<std::string> parts = {kHungReason, "process: " + std::to_string(getpid()),
                                      "thread: " + std::to_string(stepThread) + " \"hung-step\"",
                                      "state: S, ", ", syscall: read 0x"};
    if (&__tsan_init != nullptr) {
        parts.push_back("backtrace: unavailable");
    } else {
        parts.push_back("readUnderWatchdog");
        parts.push_back("watchdog_test.cpp:" + std::to_string(sStepLine));
    }
    for (const std::string& part : parts) {
        EXPECT_NE(saved.find(part), std::string::npos) << part << " in\n" << saved;
    }
}

}  // namespace
