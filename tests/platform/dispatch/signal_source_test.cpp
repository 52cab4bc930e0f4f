// Signal sources, exercised in forked children: the child's main thread is the
// one that activates, and the parent (which never touches the dispatch
// library, so every child starts without library threads) sends the signals.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <string>

#include "platform/dispatch/dispatch.h"
#include "platform/runloop/run_loop.h"

namespace {

constexpr int kReplyTimeoutMs = 5000;

// Reads exactly `size` bytes, or fails after kReplyTimeoutMs without data.
bool readFully(int fd, void* buffer, size_t size) {
    auto* bytes = static_cast<char*>(buffer);
    while (size > 0) {
        pollfd pfd{fd, POLLIN, 0};
        if (poll(&pfd, 1, kReplyTimeoutMs) != 1) {
            return false;
        }
        const ssize_t got = read(fd, bytes, size);
        if (got <= 0) {
            return false;
        }
        bytes += got;
        size -= static_cast<size_t>(got);
    }
    return true;
}

// Child side: a SIGTERM source on `queue` whose firings report their counts
// through `reportFd`; serves the main queue until `controlFd` reaches EOF.
[[noreturn]] void runSignalChild(bool mainQueue, int reportFd, int controlFd) {
    dispatch_queue_t queue = mainQueue ? dispatch_get_main_queue() : nullptr;
    dispatch_source_t source =
        dispatch_source_create(DISPATCH_SOURCE_TYPE_SIGNAL, SIGTERM, 0, queue);
    if (source == nullptr) {
        _exit(2);
    }
    dispatch_source_set_event_handler(source, [source, reportFd] {
        const uint32_t count = static_cast<uint32_t>(dispatch_source_get_data(source));
        if (write(reportFd, &count, sizeof count) != sizeof count) {
            _exit(3);
        }
    });
    dispatch_activate(source);
    signal(SIGTERM, SIG_IGN);

    // A library thread waits for the parent to hang up: it blocks every
    // signal, so it does not disturb where SIGTERM goes.
    std::atomic<bool> quit{false};
    dispatch_async(dispatch_get_global_queue(0, 0), [&quit, controlFd] {
        char byte;
        while (read(controlFd, &byte, 1) > 0) {
        }
        dispatch_async(dispatch_get_main_queue(), [&quit] { quit = true; });
    });
    const uint32_t ready = 0;
    if (write(reportFd, &ready, sizeof ready) != sizeof ready) {
        _exit(3);
    }
    while (!quit) {
        runloop::runInDefaultMode(10.0, true);
    }
    dispatch_source_cancel(source);
    _exit(0);
}

class SignalSourceTest : public ::testing::TestWithParam<bool> {};

TEST_P(SignalSourceTest, ReportsEverySignalAfterTheDispositionIsIgnore) {
    int report[2];
    int control[2];
    ASSERT_EQ(pipe2(report, O_CLOEXEC), 0);
    ASSERT_EQ(pipe2(control, O_CLOEXEC), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        close(report[0]);
        close(control[1]);
        runSignalChild(GetParam(), report[1], control[0]);
    }
    close(report[1]);
    close(control[0]);

    uint32_t count = 1;
    ASSERT_TRUE(readFully(report[0], &count, sizeof count));
    ASSERT_EQ(count, 0u) << "ready marker";

    // One at a time: each signal is its own firing.
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(kill(child, SIGTERM), 0);
        ASSERT_TRUE(readFully(report[0], &count, sizeof count)) << "signal " << i;
        EXPECT_EQ(count, 1u);
    }
    // A storm: signals coalesce, but at least one firing reports them and none
    // reaches the default action.
    constexpr uint32_t kStorm = 1000;
    for (uint32_t i = 0; i < kStorm; ++i) {
        ASSERT_EQ(kill(child, SIGTERM), 0);
    }
    uint32_t stormTotal = 0;
    ASSERT_TRUE(readFully(report[0], &count, sizeof count));
    stormTotal += count;

    close(control[1]);
    while (readFully(report[0], &count, sizeof count)) {
        stormTotal += count;
    }
    close(report[0]);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
    EXPECT_GE(stormTotal, 1u);
    EXPECT_LE(stormTotal, kStorm);
}

INSTANTIATE_TEST_SUITE_P(Targets, SignalSourceTest, ::testing::Bool(), [](const auto& info) {
    return std::string(info.param ? "MainQueue" : "GlobalQueue");
});

TEST(SignalSourceDefaultActionTest, SignalKeepsItsDefaultActionUntilActivation) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        dispatch_source_t source =
            dispatch_source_create(DISPATCH_SOURCE_TYPE_SIGNAL, SIGTERM, 0, nullptr);
        dispatch_source_set_event_handler(source, [] {});
        kill(getpid(), SIGTERM);
        _exit(source == nullptr ? 2 : 0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM) << "status " << status;
}

}  // namespace
