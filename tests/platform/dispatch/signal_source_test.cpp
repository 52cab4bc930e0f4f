// Signal sources, exercised in forked children: the child's main thread is the
// one that activates, and the parent (which never touches the dispatch
// library, so every child starts without library threads) sends the signals.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>

#include <gtest/gtest.h>

#include "platform/dispatch/dispatch.h"
#include "platform/runloop/run_loop.h"

namespace {

// Reads one count reported by the child, waiting at most five seconds. Counts
// are written whole, and pipe writes that small are atomic.
bool readCount(int fd, uint64_t& count) {
    pollfd pfd{fd, POLLIN, 0};
    return poll(&pfd, 1, 5000) == 1 && read(fd, &count, sizeof count) == sizeof count;
}

// A SIGTERM source on the main or the global queue, in a child whose firings
// report their counts and whose main loop runs until the parent kills it.
[[noreturn]] void runSignalSourceChild(bool onMainQueue, int reportFd) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // also when a failed assertion skips the kill
    auto report = [reportFd](uint64_t count) {
        if (write(reportFd, &count, sizeof count) != sizeof count) {
            _exit(3);
        }
    };
    dispatch_source_t source = dispatch_source_create(
        DISPATCH_SOURCE_TYPE_SIGNAL, SIGTERM, 0, onMainQueue ? dispatch_get_main_queue() : nullptr);
    dispatch_source_set_event_handler(
        source, [source, report] { report(dispatch_source_get_data(source)); });
    // Until activation the signal keeps its default action, unblocked.
    struct sigaction action {};
    sigset_t blocked;
    sigaction(SIGTERM, nullptr, &action);
    pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    if (action.sa_handler != SIG_DFL || sigismember(&blocked, SIGTERM)) {
        _exit(4);
    }
    dispatch_activate(source);
    signal(SIGTERM, SIG_IGN);
    report(0);  // ready
    for (;;) {
        runloop::runInDefaultMode(60.0, /*returnAfterSourceHandled=*/false);
    }
}

TEST(SignalSourceTest, ReportsEverySignalAfterTheDispositionIsIgnore) {
    for (const bool onMainQueue : {true, false}) {
        SCOPED_TRACE(onMainQueue ? "main queue" : "global queue");
        int fds[2];
        ASSERT_EQ(pipe2(fds, O_CLOEXEC), 0);
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            runSignalSourceChild(onMainQueue, fds[1]);
        }
        close(fds[1]);

        uint64_t count = 1;
        ASSERT_TRUE(readCount(fds[0], count) && count == 0) << "ready marker";
        // One at a time: each signal is its own firing.
        for (int i = 0; i < 20; ++i) {
            ASSERT_EQ(kill(child, SIGTERM), 0);
            ASSERT_TRUE(readCount(fds[0], count) && count == 1) << "signal " << i;
        }
        // A storm: signals coalesce, but firings report them and none reaches
        // the default action; the child lives until it is killed.
        constexpr uint64_t kStorm = 1000;
        for (uint64_t i = 0; i < kStorm; ++i) {
            ASSERT_EQ(kill(child, SIGTERM), 0);
        }
        uint64_t stormTotal = 0;
        ASSERT_TRUE(readCount(fds[0], stormTotal) && stormTotal >= 1);
        ASSERT_EQ(kill(child, SIGKILL), 0);
        while (readCount(fds[0], count)) {
            stormTotal += count;
        }
        close(fds[0]);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "status " << status;
        EXPECT_LE(stormTotal, kStorm);
    }
}

}  // namespace
