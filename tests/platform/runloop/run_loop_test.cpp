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

}  // namespace
