#include "platform/systemlog/system_log.h"

#include <stdlib.h>
#include <sys/mman.h>

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
    {
        const CapturedSystemLog captured;
        systemlog::write(handle, systemlog::Level::kDefault, "plain %d", 7);
        systemlog::write(handle, systemlog::Level::kDefault, "%s", "");
        systemlog::write(handle, systemlog::Level::kError, "Error %s (%s)\n", "a\n", "b");
        systemlog::write(handle, systemlog::Level::kError, "<%s=%d>", longText.c_str(), 42);
        systemlog::setEnabled(systemlog::Level::kDefault, false);
        systemlog::write(handle, systemlog::Level::kDefault, "hidden");
        systemlog::write(handle, systemlog::Level::kError, "shown");
        systemlog::setEnabled(systemlog::Level::kDefault, true);
        EXPECT_EQ(captured.lines(),
                  (std::vector<std::string>{"<5>plain 7", "<5>", "<3>Error a\\n (b)",
                                            "<3><" + longText + "=42>", "<3>shown"}));
    }
    const platform::UniqueFd plain(memfd_create("plain", MFD_CLOEXEC));
    unsetenv("JOURNAL_STREAM");
    const int previous = systemlog::redirectForTesting(plain.get());
    systemlog::write(handle, systemlog::Level::kDefault, "default");
    systemlog::write(handle, systemlog::Level::kError, "error");
    systemlog::redirectForTesting(previous);
    EXPECT_EQ(readFile("/proc/self/fd/" + std::to_string(plain.get())), "default\nerror\n");
}

}  // namespace
}  // namespace kel::testing
