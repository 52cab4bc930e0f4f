#include "platform/runloop/run_loop.h"

#include <string>

#include <gtest/gtest.h>

#include "platform/dispatch/dispatch.h"

namespace {

using runloop::RunResult;

// Work from other threads waking the loop is left to the daemon runs, whose
// idle check ends the loop that way.
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

TEST(RunLoopTest, WithoutReturnAfterSourceHandledTheSliceRunsOut) {
    int served = 0;
    dispatch_async(dispatch_get_main_queue(), [&] { ++served; });
    const dispatch_time_t start = dispatch_time(DISPATCH_TIME_NOW, 0);
    EXPECT_EQ(runloop::runInDefaultMode(0.02, /*returnAfterSourceHandled=*/false),
              RunResult::kTimedOut);
    EXPECT_GE(dispatch_time(DISPATCH_TIME_NOW, 0) - start, 20'000'000u);
    EXPECT_EQ(served, 1);
    EXPECT_EQ(runloop::runInDefaultMode(-1.0, /*returnAfterSourceHandled=*/true),
              RunResult::kTimedOut);
}

}  // namespace
