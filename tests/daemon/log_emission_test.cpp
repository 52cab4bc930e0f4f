#include "daemon/log_emission.h"

#include <gtest/gtest.h>

#include "tests/support/log_recording.h"

namespace kel::testing {
namespace {

// logInfo goes two ways, and switching one off leaves the other as it was:
// the level filter stops only the record, the system log's switch only the
// mirror.
TEST(LogInfoTest, EachHalfCanBeOffOnItsOwn) {
    CapturedSystemLog systemLog;
    RecordedLogServer logServer;
    lum::setMinimumLevel(lum::LogLevel::kNotice);
    logInfo(logServer.server, "Server is busy");
    lum::setMinimumLevel(lum::LogLevel::kInfo);  // just lets level 40 through
    systemlog::setEnabled(systemlog::Level::kDefault, false);
    logInfo(logServer.server, "Server is idle");
    systemlog::setEnabled(systemlog::Level::kDefault, true);
    lum::setMinimumLevel(lum::LogLevel::kDebug);

    logServer.flush();
    EXPECT_EQ(systemLog.lines(), std::vector<std::string>{"<5>#I Server is busy"});
    const std::vector<lum::LogMessage> records = logServer.writer->messages();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].secondText, "Server is idle");
    EXPECT_EQ(records[0].firstText, program_invocation_short_name);
    EXPECT_EQ(records[0].level, static_cast<lum::LogLevel>(40));
}

}  // namespace
}  // namespace kel::testing
