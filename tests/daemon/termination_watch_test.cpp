// The termination watch in-process. It changes how the whole process treats
// SIGTERM for good, so it lives in an executable of its own.
#include <signal.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "daemon/watches.h"
#include "platform/runloop/run_loop.h"
#include "tests/support/log_recording.h"

namespace kel::testing {
namespace {

using ::testing::ElementsAre;

TEST(TerminationWatchTest, ReportsOnceAndEndsTheLoopInTheSameTurn) {
    RecordedLogServer logServer;
    sShouldExit = 0;
    const auto source = installTerminationWatch(logServer.server);
    ASSERT_TRUE(source);

    struct sigaction action {};
    sigaction(SIGTERM, nullptr, &action);
    EXPECT_EQ(action.sa_handler, SIG_IGN);

    kill(getpid(), SIGTERM);
    for (int turn = 0; turn < 5 && sShouldExit != 1; ++turn) {
        runloop::runInDefaultMode(2.0, true);
    }
    ASSERT_EQ(sShouldExit, 1);
    EXPECT_TRUE(dispatch_source_testcancel(source.get()));

    // The source is cancelled and the disposition is ignore: later signals
    // change nothing.
    kill(getpid(), SIGTERM);
    runloop::runInDefaultMode(0.05, false);
    logServer.flush();
    EXPECT_THAT(logServer.writer->texts(), ElementsAre("Signal received"));
}

}  // namespace
}  // namespace kel::testing
