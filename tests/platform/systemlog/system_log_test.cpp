#include "platform/systemlog/system_log.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/log_recording.h"

namespace kel::testing {
namespace {

// On the journal's stream, lines start with their priority; anywhere else (a
// terminal, a file) a line is the plain text.
TEST(SystemLogTest, WritesOneLinePerEnabledMessagePrefixedOnlyOnTheJournal) {
    const systemlog::Handle handle = systemlog::create("org.test", "lines");
    const std::string longText(5000, 'y');  // past any stack buffer
    const CapturedSystemLog captured;
    systemlog::write(handle, systemlog::Level::kDefault, "plain %d", 7);
    systemlog::write(handle, systemlog::Level::kDefault, "%s", "");
    systemlog::write(handle, systemlog::Level::kError, "Error %s (%s)\n", "a\n", "b");
    systemlog::write(handle, systemlog::Level::kError, "<%s=%d>", longText.c_str(), 42);
    systemlog::setEnabled(systemlog::Level::kDefault, false);
    systemlog::write(handle, systemlog::Level::kDefault, "hidden");
    systemlog::write(handle, systemlog::Level::kError, "shown");
    systemlog::setEnabled(systemlog::Level::kDefault, true);
    EXPECT_EQ(captured.lines(), (std::vector<std::string>{"<5>plain 7", "<5>", "<3>Error a\\n (b)",
                                                          "<3><" + longText + "=42>", "<3>shown"}));
    // A capture of its own, inside the journal's, takes the lines from here on.
    const CapturedSystemLog plain(/*asJournal=*/false);
    systemlog::write(handle, systemlog::Level::kDefault, "default");
    systemlog::write(handle, systemlog::Level::kError, "error");
    EXPECT_EQ(plain.lines(), (std::vector<std::string>{"default", "error"}));
}

}  // namespace
}  // namespace kel::testing
