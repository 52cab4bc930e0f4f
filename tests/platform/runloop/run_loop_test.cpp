#include "platform/runloop/run_loop.h"

#include <signal.h>
#include <unistd.h>

#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "platform/dispatch/dispatch.h"

namespace {

// Main-queue work runs only inside the loop and on the main thread, wherever
// it was posted from. A turn runs the work queued when it starts and returns,
// so work posted by that work waits for the next turn; a dispatch_sync caller
// on another thread is let go once its work has run. A main-queue signal
// source set up the daemon's way with SIGTERM (the source, then the signal
// ignored) sees a signal sent before anything has read it in the first turn.
TEST(RunLoopTest, RunsMainQueueWorkAndSignalsOnTheMainThreadOneTurnAtATime) {
    std::string order;  // an item that runs off the main thread shows as '!'
    const auto ran = [&](char item) { order += gettid() == getpid() ? item : '!'; };
    int signals = 0;
    const auto source = dispatch::Owned<dispatch_source_t>::adopt(
        dispatch_source_create(DISPATCH_SOURCE_TYPE_SIGNAL, SIGUSR1, 0, dispatch_get_main_queue()));
    dispatch_source_set_event_handler(source.get(), [&] { ++signals; });
    dispatch_activate(source.get());
    signal(SIGUSR1, SIG_IGN);
    kill(getpid(), SIGUSR1);
    std::jthread([&] {
        dispatch_async(dispatch_get_main_queue(), [&] {
            ran('1');
            dispatch_async(dispatch_get_main_queue(), [&] { ran('3'); });
        });
    }).join();
    dispatch_async(dispatch_get_main_queue(), [&] { ran('2'); });
    EXPECT_EQ(runloop::runInDefaultMode(30.0, /*returnAfterSourceHandled=*/true),
              runloop::RunResult::kHandledSource);
    EXPECT_EQ(order, "12");
    EXPECT_EQ(signals, 1);
    std::jthread syncCaller([&] { dispatch_sync(dispatch_get_main_queue(), [&] { ran('4'); }); });
    while (order.size() < 4) {
        ASSERT_EQ(runloop::runInDefaultMode(20.0, true), runloop::RunResult::kHandledSource);
    }
    EXPECT_EQ(order, "1234");
    dispatch_source_cancel(source.get());
}

}  // namespace
