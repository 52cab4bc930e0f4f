#include "logging/global_log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/log_recording.h"

namespace kel::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST(GlobalLoggingTest, ContextIsTheGlobalCategoryAndStaysTheSame) {
    lum::OsLogContext& context = globalLogContext();
    EXPECT_EQ(&context, &globalLogContext());
    ASSERT_NE(context.handle(), nullptr);
    EXPECT_STREQ(systemlog::categoryOf(context.handle()), "global");
}

TEST(GlobalLoggingTest, OnlyTheFirstLogServerIsEverBound) {
    RecordedLogServer first;
    RecordedLogServer second;
    lum::StaticLogger& logger = globalLogger(first.server);
    EXPECT_EQ(&logger, &globalLogger(second.server));
    EXPECT_EQ(logger.sink(), first.server);
    EXPECT_EQ(logger.handle(), globalLogContext().handle());

    logger.forceLog(lum::LogLevel::kError, lum::LogMessageBuffer::createWithFormat("disk %d", 3));
    first.flush();
    second.flush();
    EXPECT_THAT(first.writer->texts(), ElementsAre("disk 3"));
    EXPECT_THAT(second.writer->texts(), IsEmpty());
}

}  // namespace
}  // namespace kel::testing
