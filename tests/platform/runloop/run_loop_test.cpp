#include "platform/runloop/run_loop.h"

#include <signal.h>
#include <unistd.h>

#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "platform/dispatch/dispatch.h"

namespace {

using runloop::RunResult;

TEST(RunLoopTest, ReturnsAfterOneTurnAndRunsWorkPostedByWorkInALaterTurn) {
    std::string order;
    dispatch_async(dispatch_get_main_queue(), [&] {
        order += '1';
        dispatch_async(dispatch_get_main_queue(), [&] { order += '3'; });
    });
    dispatch_async(dispatch_get_main_queue(), [&] { order += '2'; });
    EXPECT_EQ(runloop::runInDefaultMode(30.0, /*returnAfterSourceHandled=*/true),
              RunResult::kHandledSource);
    EXPECT_EQ(order, "12");
    EXPECT_EQ(runloop::runInDefaultMode(30.0, /*returnAfterSourceHandled=*/true),
              RunResult::kHandledSource);
    EXPECT_EQ(order, "123");
}

// Work posted from other threads waits for the loop, wakes it, and runs on the
// main thread; a dispatch_sync caller is let go once its work has run there.
TEST(RunLoopTest, RunsWorkFromOtherThreadsOnlyOnTheMainThreadInsideTheLoop) {
    std::thread::id asyncRanOn, syncRanOn;
    std::jthread([&] {
        dispatch_async(dispatch_get_main_queue(), [&] { asyncRanOn = std::this_thread::get_id(); });
    }).join();
    EXPECT_EQ(asyncRanOn, std::thread::id());
    std::jthread syncCaller([&] {
        dispatch_sync(dispatch_get_main_queue(), [&] { syncRanOn = std::this_thread::get_id(); });
    });
    while (syncRanOn == std::thread::id()) {
        ASSERT_EQ(runloop::runInDefaultMode(20.0, true), RunResult::kHandledSource);
    }
    syncCaller.join();
    EXPECT_EQ(asyncRanOn, std::this_thread::get_id());
    EXPECT_EQ(syncRanOn, std::this_thread::get_id());
}

// The daemon's way with SIGTERM: a source on the main queue, then the signal
// ignored. A signal sent before anything has read it still reaches the
// handler in the first turn.
TEST(RunLoopTest, SignalSourceSeesASignalSentBeforeTheFirstTurn) {
    int handled = 0;
    const auto source = dispatch::Owned<dispatch_source_t>::adopt(
        dispatch_source_create(DISPATCH_SOURCE_TYPE_SIGNAL, SIGUSR1, 0, dispatch_get_main_queue()));
    ASSERT_TRUE(source);
    dispatch_source_set_event_handler(source.get(), [&] { ++handled; });
    dispatch_activate(source.get());
    signal(SIGUSR1, SIG_IGN);
    kill(getpid(), SIGUSR1);
    EXPECT_EQ(runloop::runInDefaultMode(20.0, true), RunResult::kHandledSource);
    EXPECT_EQ(handled, 1);
    dispatch_source_cancel(source.get());
}

}  // namespace
