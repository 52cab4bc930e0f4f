// The idle watch in-process, with millisecond timings instead of 8 s, against
// a helper server whose busyness the test sets.
#include <chrono>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "daemon/watches.h"
#include "platform/runloop/run_loop.h"
#include "tests/doubles/fake_helper_server.h"
#include "tests/support/log_recording.h"

namespace kel::testing {
namespace {

// The daemon runs check what the checks report with a log server; without one
// they stay silent, and the idle one still ends the loop and the checks.
TEST(IdleWatchTest, WithoutALogServerChecksSilentlyUntilIdle) {
    CapturedSystemLog systemLog;
    setHelperServerBusy(true);
    const auto timer =
        installIdleWatch(HelperServer::create(nullptr), nullptr, {2'000'000, 2'000'000, 0});
    ASSERT_TRUE(timer);
    for (int turn = 0; turn < 1000 && helperServerBusyQueries() < 2; ++turn) {
        runloop::runInDefaultMode(0.005, /*returnAfterSourceHandled=*/false);
    }
    setHelperServerBusy(false);
    for (int turn = 0; turn < 5 && sShouldExit != 1; ++turn) {
        runloop::runInDefaultMode(2.0, /*returnAfterSourceHandled=*/true);
    }
    EXPECT_EQ(sShouldExit, 1);
    EXPECT_THAT(systemLog.lines(), ::testing::IsEmpty());
    // The idle check cancelled the timer: ten more periods bring no query.
    const int queries = helperServerBusyQueries();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(helperServerBusyQueries(), queries);
}

}  // namespace
}  // namespace kel::testing
