#include "platform/runloop/run_loop.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <thread>

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
    EXPECT_EQ(runloop::runInDefaultMode(30.0, true), RunResult::kHandledSource);
    EXPECT_EQ(order, "12");
    EXPECT_EQ(runloop::runInDefaultMode(30.0, true), RunResult::kHandledSource);
    EXPECT_EQ(order, "123");
}

TEST(RunLoopTest, ServesOtherThreadsUntilTheSliceEndsAndTimesOutWhenNothingComes) {
    // Without returnAfterSourceHandled the slice runs out even though work
    // arrived; work posted from another thread, async or sync, wakes the loop.
    int served = 0;
    auto serve = [&] {
        EXPECT_EQ(gettid(), getpid());
        ++served;
    };
    std::thread caller([&] {
        dispatch_async(dispatch_get_main_queue(), serve);
        dispatch_sync(dispatch_get_main_queue(), serve);
    });
    while (served < 2) {
        EXPECT_EQ(runloop::runInDefaultMode(0.05, false), RunResult::kTimedOut);
    }
    caller.join();
    // On the main thread itself the main queue is already held.
    dispatch_sync(dispatch_get_main_queue(), serve);
    EXPECT_EQ(served, 3);

    const dispatch_time_t start = dispatch_time(DISPATCH_TIME_NOW, 0);
    EXPECT_EQ(runloop::runInDefaultMode(0.02, true), RunResult::kTimedOut);
    EXPECT_GE(dispatch_time(DISPATCH_TIME_NOW, 0) - start, 20'000'000u);
    EXPECT_EQ(runloop::runInDefaultMode(-1.0, true), RunResult::kTimedOut);
}

}  // namespace
