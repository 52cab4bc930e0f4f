#include "platform/systemlog/system_log.h"

#include <string>

#include <gtest/gtest.h>

#include "tests/support/log_recording.h"

namespace kel::testing {
namespace {

TEST(SystemLogTest, WritesOnePrefixedLinePerEnabledMessage) {
    CapturedSystemLog captured;
    systemlog::Handle handle = systemlog::create("org.test", "lines");
    EXPECT_EQ(handle, systemlog::create("org.test", "lines"));
    EXPECT_NE(handle, systemlog::create("org.other", "lines"));

    systemlog::write(handle, systemlog::Level::kDefault, "plain %d", 7);
    systemlog::write(handle, systemlog::Level::kError, "two\nlines");
    systemlog::write(handle, systemlog::Level::kDefault, "%s", "");
    systemlog::write(handle, systemlog::Level::kError, "Error %s (%s)\n", "a\n", "b");
    const std::string longText(5000, 'y');  // past any stack buffer
    systemlog::write(handle, systemlog::Level::kError, "<%s=%d>", longText.c_str(), 42);
    systemlog::setEnabled(systemlog::Level::kDefault, false);
    systemlog::write(handle, systemlog::Level::kDefault, "hidden");
    systemlog::write(handle, systemlog::Level::kError, "shown");
    systemlog::setEnabled(systemlog::Level::kDefault, true);
    EXPECT_EQ(captured.text(), "<5>plain 7\n<3>two\\nlines\n<5>\n<3>Error a\\n (b)\n<3><" +
                                   longText + "=42>\n<3>shown\n");
}

}  // namespace
}  // namespace kel::testing
