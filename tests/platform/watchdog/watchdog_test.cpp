#include "platform/watchdog/watchdog.h"

#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <poll.h>
#include <pthread.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/helperserver/helper_server.h"
#include "platform/systemlog/system_log.h"
#include "platform/threads/signal_mask.h"

constexpr char kHungReason[] = "watchdog test: lock step hung";

// Outside the anonymous namespace: the executable exports it, so the report's
// backtrace names it.
__attribute__((noinline)) int blockOnLockUnderWatchdog(int fd) {
    uint64_t handle = 0;
    TelephonyBasebandWatchdogStartWithStackshot(&handle, 5000, kHungReason);
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    const int result = fcntl(fd, F_SETLKW, &lock);
    TelephonyBasebandWatchdogStop(&handle);
    return result;
}

namespace {

// ThreadSanitizer holds a signal back until the thread returns from a call it
// does not know to block (fcntl among them), so there the hung thread answers
// only after its step, too late: the report comes without a backtrace.
#if defined(__SANITIZE_THREAD__)
constexpr bool kBacktraceExpected = false;
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
constexpr bool kBacktraceExpected = false;
#else
constexpr bool kBacktraceExpected = true;
#endif
#else
constexpr bool kBacktraceExpected = true;
#endif

constexpr char kReason[] = "watchdog test: step took too long";

int start(uint64_t* handle) {
    return TelephonyBasebandWatchdogStartWithStackshot(handle, 5000, kReason);
}

TEST(WatchdogTableTest, NestedGuardsAreIndependent) {
    uint64_t outer = 0;
    uint64_t inner = 0;
    ASSERT_EQ(start(&outer), 0);
    ASSERT_EQ(start(&inner), 0);
    EXPECT_NE(outer, inner);
    EXPECT_EQ(TelephonyBasebandWatchdogStop(&inner), 0);
    EXPECT_EQ(TelephonyBasebandWatchdogStop(&outer), 0);
    EXPECT_EQ(TelephonyBasebandWatchdogStop(&inner), -1);
    EXPECT_EQ(TelephonyBasebandWatchdogStop(&outer), -1);
}

TEST(WatchdogTableTest, StaleStopLeavesTheNextGuardArmed) {
    uint64_t first = 0;
    ASSERT_EQ(start(&first), 0);
    ASSERT_EQ(TelephonyBasebandWatchdogStop(&first), 0);
    uint64_t second = 0;
    ASSERT_EQ(start(&second), 0);
    EXPECT_NE(first, second);
    EXPECT_EQ(TelephonyBasebandWatchdogStop(&first), -1);
    EXPECT_EQ(TelephonyBasebandWatchdogStop(&second), 0);
}

TEST(WatchdogTableTest, FullTableArmsNothingUntilASlotIsFreed) {
    std::vector<uint64_t> handles(kTelephonyBasebandWatchdogCapacity);
    for (uint64_t& handle : handles) {
        ASSERT_EQ(start(&handle), 0);
    }
    EXPECT_EQ(std::set<uint64_t>(handles.begin(), handles.end()).size(), handles.size());
    uint64_t overflow = 1;
    EXPECT_EQ(start(&overflow), -1);
    EXPECT_EQ(overflow, 0u);
    EXPECT_EQ(TelephonyBasebandWatchdogStop(&overflow), -1);

    EXPECT_EQ(TelephonyBasebandWatchdogStop(&handles[7]), 0);
    EXPECT_EQ(start(&handles[7]), 0);
    for (uint64_t& handle : handles) {
        EXPECT_EQ(TelephonyBasebandWatchdogStop(&handle), 0);
    }
}

TEST(WatchdogTableTest, RejectsInvalidArguments) {
    uint64_t handle = 1;
    EXPECT_EQ(TelephonyBasebandWatchdogStartWithStackshot(nullptr, 5000, kReason), -1);
    EXPECT_EQ(TelephonyBasebandWatchdogStartWithStackshot(&handle, 5000, nullptr), -1);
    EXPECT_EQ(handle, 0u);
    EXPECT_EQ(TelephonyBasebandWatchdogStartWithStackshot(&handle, -1, kReason), -1);
    EXPECT_EQ(TelephonyBasebandWatchdogStop(nullptr), -1);
}

TEST(WatchdogTableTest, ThreadsArmAndDisarmConcurrently) {
    constexpr int kThreads = 8;
    constexpr int kRounds = 2000;
    std::vector<int> failures(kThreads, 0);
    std::vector<std::thread> threads;
    {
        platform::ScopedThreadSignalMask mask;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([&failures, t] {
                for (int round = 0; round < kRounds; ++round) {
                    uint64_t outer = 0;
                    uint64_t inner = 0;
                    failures[t] += start(&outer) != 0;
                    failures[t] += start(&inner) != 0;
                    failures[t] += TelephonyBasebandWatchdogStop(&inner) != 0;
                    failures[t] += TelephonyBasebandWatchdogStop(&outer) != 0;
                }
            });
        }
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(failures, std::vector<int>(kThreads, 0));
}

// --- The service for real ---------------------------------------------------
//
// The snapshot folder is fixed when the process starts, so the hung-step test
// runs in a fresh copy of this executable whose environment points it at a
// temporary folder.

constexpr char kChildMarker[] = "KEL_WATCHDOG_REPORT_CHILD";
constexpr char kQuickReason[] = "watchdog test: quick step";

int64_t monotonicMs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000 + ts.tv_nsec / 1'000'000;
}

// Reads lines from `fd` until one contains `last` or nothing arrives for 20 s.
std::string readUntil(int fd, const std::string& last) {
    std::string text;
    while (text.find(last) == std::string::npos) {
        pollfd readable{fd, POLLIN, 0};
        if (poll(&readable, 1, 20'000) != 1) {
            break;
        }
        char buffer[4096];
        const ssize_t n = read(fd, buffer, sizeof buffer);
        if (n <= 0) {
            break;
        }
        text.append(buffer, static_cast<size_t>(n));
    }
    const size_t end = text.find('\n', text.find(last));
    return end == std::string::npos ? text : text.substr(0, end + 1);
}

size_t countOf(const std::string& text, const std::string& part) {
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

std::vector<std::string> filesIn(const std::string& folder) {
    std::vector<std::string> names;
    if (DIR* dir = opendir(folder.c_str())) {
        while (const dirent* entry = readdir(dir)) {
            if (entry->d_name[0] != '.') {
                names.emplace_back(entry->d_name);
            }
        }
        closedir(dir);
    }
    return names;
}

TEST(WatchdogReportChild, HungLockStepIsReportedOnce) {
    if (getenv(kChildMarker) == nullptr) {
        GTEST_SKIP() << "runs inside WatchdogReportTest.HungStepIsReportedOnceAndResultKept";
    }
    const std::string lockPath = std::string(getenv("KEL_HELPER_RUNTIME_DIR")) + "/lock";
    const int fd = open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0);
    int ready[2];
    int release[2];
    int log[2];
    ASSERT_EQ(pipe2(ready, O_CLOEXEC), 0);
    ASSERT_EQ(pipe2(release, O_CLOEXEC), 0);
    ASSERT_EQ(pipe2(log, O_CLOEXEC), 0);

    const pid_t holder = fork();
    ASSERT_GE(holder, 0);
    if (holder == 0) {
        const int own = open(lockPath.c_str(), O_RDWR | O_CLOEXEC);
        struct flock lock {};
        lock.l_type = F_WRLCK;
        lock.l_whence = SEEK_SET;
        char byte = 0;
        const bool locked = own >= 0 && fcntl(own, F_SETLK, &lock) == 0;
        if (!locked || write(ready[1], "r", 1) != 1 || read(release[0], &byte, 1) != 1) {
            _exit(1);
        }
        _exit(0);
    }
    char byte = 0;
    ASSERT_EQ(read(ready[0], &byte, 1), 1);

    const int previousLog = systemlog::redirectForTesting(log[1]);
    uint64_t quick = 0;
    TelephonyBasebandWatchdogStartWithStackshot(&quick, 5000, kQuickReason);
    TelephonyBasebandWatchdogStop(&quick);

    int result = -1;
    int stepErrno = 0;
    pid_t stepThread = 0;
    const int64_t armedAt = monotonicMs();
    std::thread step;
    {
        platform::ScopedThreadSignalMask mask;
        step = std::thread([&] {
            pthread_setname_np(pthread_self(), "hung-step");
            stepThread = gettid();
            errno = 0;
            result = blockOnLockUnderWatchdog(fd);
            stepErrno = errno;
        });
    }
    const std::string report = readUntil(log[0], "stack report file:");
    const int64_t reportedAfterMs = monotonicMs() - armedAt;
    ASSERT_EQ(write(release[1], "x", 1), 1);
    step.join();
    int status = 0;
    ASSERT_EQ(waitpid(holder, &status, 0), holder);
    systemlog::redirectForTesting(previousLog);

    // The step got its lock as if nothing had happened.
    EXPECT_EQ(result, 0);
    EXPECT_EQ(stepErrno, 0);
    EXPECT_GE(reportedAfterMs, 5000);

    EXPECT_EQ(countOf(report, "stack report: "), 1u) << report;
    EXPECT_EQ(countOf(report, kHungReason), 1u) << report;
    EXPECT_EQ(countOf(report, kQuickReason), 0u) << report;
    EXPECT_NE(report.find("process: " + std::to_string(getpid())), std::string::npos) << report;
    EXPECT_NE(report.find("thread: " + std::to_string(stepThread) + " \"hung-step\""),
              std::string::npos)
        << report;
    EXPECT_NE(report.find("state: "), std::string::npos) << report;
    const std::string frame =
        kBacktraceExpected ? "blockOnLockUnderWatchdog" : "backtrace: unavailable";
    EXPECT_NE(report.find(frame), std::string::npos) << report;

    const std::string folder = kel::trace::kSnapshotFolder;
    const std::vector<std::string> files = filesIn(folder);
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(
        files[0].rfind(
            "stackshot-" + std::to_string(getpid()) + "-" + std::to_string(stepThread) + "-", 0),
        0u)
        << files[0];
    EXPECT_NE(report.find(folder + files[0]), std::string::npos) << report;
    std::ifstream in(folder + files[0]);
    std::stringstream content;
    content << in.rdbuf();
    EXPECT_NE(content.str().find(kHungReason), std::string::npos) << content.str();
    EXPECT_NE(content.str().find(frame), std::string::npos) << content.str();
    close(fd);
}

int removeEntry(const char* path, const struct stat*, int, FTW*) {
    return remove(path);
}

TEST(WatchdogReportTest, HungStepIsReportedOnceAndResultKept) {
    char dir[] = "/tmp/kel-watchdog-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        setenv("KEL_HELPER_RUNTIME_DIR", dir, 1);
        setenv(kChildMarker, "1", 1);
        execl("/proc/self/exe", "watchdog_test", "--gtest_filter=WatchdogReportChild.*",
              static_cast<char*>(nullptr));
        _exit(127);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
    nftw(dir, removeEntry, 16, FTW_DEPTH | FTW_PHYS);
}

}  // namespace
