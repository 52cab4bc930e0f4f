// The idle watch in-process, with millisecond timings instead of 8 s, against
// a helper server whose busyness the test sets.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "daemon/watches.h"
#include "platform/runloop/run_loop.h"
#include "tests/doubles/fake_helper_server.h"
#include "tests/support/log_recording.h"

namespace kel::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr IdleWatchTiming kFast{2'000'000, 2'000'000, 0};

// Turns the run loop the way the daemon does, bounded so a broken watch fails
// instead of hanging.
bool runUntilExitRequested(int maxTurns) {
    for (int turn = 0; turn < maxTurns && sShouldExit != 1; ++turn) {
        runloop::runInDefaultMode(2.0, true);
    }
    return sShouldExit == 1;
}

class IdleWatchTest : public ::testing::Test {
  protected:
    void SetUp() override {
        sShouldExit = 0;
        setHelperServerBusy(false);
    }
    void TearDown() override {
        if (timer_) {
            dispatch_source_cancel(timer_.get());
        }
    }

    std::shared_ptr<HelperServer> server_ = HelperServer::create(nullptr);
    dispatch::Owned<dispatch_source_t> timer_;
};

TEST_F(IdleWatchTest, EveryBusyCheckIsReportedAndTheIdleOneIsTheLast) {
    RecordedLogServer logServer;
    setHelperServerBusy(true);
    const int queriesBefore = helperServerBusyQueries();
    timer_ = installIdleWatch(server_, logServer.server, kFast);
    ASSERT_TRUE(timer_);

    // Let a few busy checks happen, then go idle.
    while (helperServerBusyQueries() - queriesBefore < 3) {
        runloop::runInDefaultMode(0.005, false);
    }
    setHelperServerBusy(false);
    ASSERT_TRUE(runUntilExitRequested(5));

    logServer.flush();
    const std::vector<std::string> texts = logServer.writer->texts();
    ASSERT_GE(texts.size(), 4u);
    EXPECT_EQ(texts.back(), "Server is idle");
    for (size_t i = 0; i + 1 < texts.size(); ++i) {
        EXPECT_EQ(texts[i], "Server is busy") << i;
    }
    // The idle check cancelled the timer: no query after it.
    EXPECT_TRUE(dispatch_source_testcancel(timer_.get()));
    const int queries = helperServerBusyQueries() - queriesBefore;
    EXPECT_EQ(static_cast<size_t>(queries), texts.size());
    runloop::runInDefaultMode(0.02, false);
    EXPECT_EQ(helperServerBusyQueries() - queriesBefore, queries);
}

TEST_F(IdleWatchTest, WithoutALogServerTheWatchStillEndsTheLoop) {
    CapturedSystemLog systemLog;
    timer_ = installIdleWatch(server_, nullptr, kFast);
    ASSERT_TRUE(timer_);
    ASSERT_TRUE(runUntilExitRequested(5));
    EXPECT_THAT(systemLog.lines(), IsEmpty());
}

TEST_F(IdleWatchTest, TheFirstCheckComesAfterTheFirstFiringDelay) {
    RecordedLogServer logServer;
    const int queriesBefore = helperServerBusyQueries();
    timer_ = installIdleWatch(server_, logServer.server, {200'000'000, 2'000'000, 0});
    ASSERT_TRUE(timer_);
    // A slice much shorter than the first firing: nothing may happen yet.
    EXPECT_EQ(runloop::runInDefaultMode(0.05, true), runloop::RunResult::kTimedOut);
    EXPECT_EQ(helperServerBusyQueries(), queriesBefore);
    EXPECT_EQ(sShouldExit, 0);
    ASSERT_TRUE(runUntilExitRequested(5));
}

}  // namespace
}  // namespace kel::testing
