#include "logging/global_log.h"

#include <gtest/gtest.h>

#include "tests/support/log_recording.h"

namespace kel::testing {
namespace {

// The first log server the logger is asked with is the one it keeps; its
// records are named after the context's category, "global".
TEST(GlobalLoggingTest, TheLoggerIsBoundToTheFirstLogServerOnly) {
    RecordedLogServer first;
    lum::StaticLogger& logger = globalLogger(first.server);
    EXPECT_EQ(&logger, &globalLogger(lum::LogServer::create("second")));

    logger.forceLog(lum::LogLevel::kError, lum::LogMessageBuffer::createWithFormat("disk %d", 3));
    first.flush();
    ASSERT_EQ(first.writer->messages().size(), 1u);
    EXPECT_EQ(first.writer->messages()[0].firstText, "global");
    EXPECT_EQ(first.writer->messages()[0].secondText, "disk 3");
}

}  // namespace
}  // namespace kel::testing
