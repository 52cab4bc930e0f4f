#include "daemon/log_emission.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/log_recording.h"

namespace kel::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// Each case switches one half of logInfo off and checks that the other half
// is unaffected.
struct EmissionCase {
    const char* name;
    bool systemLogDefaultEnabled;
    lum::LogLevel minimumLevel;
    bool expectMirror;
    bool expectRecord;
};

class LogInfoTest : public ::testing::TestWithParam<EmissionCase> {
  protected:
    void TearDown() override {
        systemlog::setEnabled(systemlog::Level::kDefault, true);
        lum::setMinimumLevel(lum::LogLevel::kDebug);
    }
};

TEST_P(LogInfoTest, EachHalfCanBeOffOnItsOwn) {
    const EmissionCase& c = GetParam();
    CapturedSystemLog systemLog;
    RecordedLogServer logServer;
    systemlog::setEnabled(systemlog::Level::kDefault, c.systemLogDefaultEnabled);
    lum::setMinimumLevel(c.minimumLevel);

    logInfo(logServer.server, "Server is busy");
    logServer.flush();

    if (c.expectMirror) {
        EXPECT_THAT(systemLog.lines(), ElementsAre("<5>#I Server is busy"));
    } else {
        EXPECT_THAT(systemLog.lines(), IsEmpty());
    }
    const std::vector<lum::LogMessage> records = logServer.writer->messages();
    if (c.expectRecord) {
        ASSERT_EQ(records.size(), 1u);
        EXPECT_EQ(records[0].secondText, "Server is busy");
        EXPECT_EQ(records[0].firstText, program_invocation_short_name);
        EXPECT_EQ(records[0].level, static_cast<lum::LogLevel>(40));
    } else {
        EXPECT_THAT(records, IsEmpty());
    }
}

INSTANTIATE_TEST_SUITE_P(
    Halves, LogInfoTest,
    ::testing::Values(EmissionCase{"BothOn", true, lum::LogLevel::kDebug, true, true},
                      EmissionCase{"SystemLogDefaultOff", false, lum::LogLevel::kDebug, false,
                                   true},
                      EmissionCase{"LevelFortyFiltered", true, lum::LogLevel::kNotice, true, false},
                      EmissionCase{"LevelFortyJustKept", true, lum::LogLevel::kInfo, true, true}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace kel::testing
