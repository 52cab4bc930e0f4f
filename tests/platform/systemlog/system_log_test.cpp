#include "platform/systemlog/system_log.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/log_recording.h"

namespace kel::testing {
namespace {

// On the journal's stream, lines start with their priority.
TEST(SystemLogTest, WritesOnePrefixedLinePerEnabledMessage) {
    CapturedSystemLog captured;
    const systemlog::Handle handle = systemlog::create("org.test", "lines");

    systemlog::write(handle, systemlog::Level::kDefault, "plain %d", 7);
    systemlog::write(handle, systemlog::Level::kDefault, "%s", "");
    systemlog::write(handle, systemlog::Level::kError, "Error %s (%s)\n", "a\n", "b");
    const std::string longText(5000, 'y');  // past any stack buffer
    systemlog::write(handle, systemlog::Level::kError, "<%s=%d>", longText.c_str(), 42);
    systemlog::setEnabled(systemlog::Level::kDefault, false);
    systemlog::write(handle, systemlog::Level::kDefault, "hidden");
    systemlog::write(handle, systemlog::Level::kError, "shown");
    systemlog::setEnabled(systemlog::Level::kDefault, true);
    const std::vector<std::string> expected = {"<5>plain 7", "<5>", "<3>Error a\\n (b)",
                                               "<3><" + longText + "=42>", "<3>shown"};
    EXPECT_EQ(captured.lines(), expected);
}

// Anywhere else (a terminal, a file), a line is the plain text.
TEST(SystemLogTest, LinesOffTheJournalAreThePlainText) {
    const TempDir dir;
    const platform::UniqueFd fd(
        open(dir.file("log").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    unsetenv("JOURNAL_STREAM");
    const int previous = systemlog::redirectForTesting(fd.get());
    const systemlog::Handle handle = systemlog::create("org.test", "plain");
    systemlog::write(handle, systemlog::Level::kDefault, "default");
    systemlog::write(handle, systemlog::Level::kError, "error");
    systemlog::redirectForTesting(previous);
    EXPECT_EQ(readFile(dir.file("log")), "default\nerror\n");
}

}  // namespace
}  // namespace kel::testing
