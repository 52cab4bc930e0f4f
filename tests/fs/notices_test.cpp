// The build kind comes from the real device description.
#include "fs/notices.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>

#include <gtest/gtest.h>

#include "tests/support/log_recording.h"
#include "tests/support/temp_dir.h"

namespace {

// Shows the notices of NoticeTest, and exits with 0 when the system log got
// `expected`, else says what it got and exits with 1.
[[noreturn]] void showNotices(const std::vector<std::string>& expected) {
    const kel::testing::CapturedSystemLog log;
    fsutil::displayNotice("once", "first", 0, 1.5);
    fsutil::displayNotice("once", "same title, other message", 0, 1.5);
    fsutil::displayNotice("twice", "again", -1, 1.5);
    fsutil::displayNotice("twice", "again", 1, 1.5);
    // Neither text converts: nothing is shown, but the title is taken.
    fsutil::displayNotice("caf\xc3\xa9", "r\xc3\xa9sum\xc3\xa9", 0, 1.5);
    fsutil::displayNotice("caf\xc3\xa9", "plain", 0, 1.5);
    fsutil::displayNotice("caf\xc3\xa9", "plain", 1, 1.5);
    for (const std::string& line : log.lines()) {
        std::fprintf(stderr, "%s\n", line.c_str());
    }
    std::exit(log.lines() == expected ? 0 : 1);
}

// With no session bus to show them on, notices go to the system log, one line
// each. The build kind is read once per process, from the device description:
// each kind's run is a child process of its own (a death test).
TEST(NoticeTest, ShowsEachTitleOnceUnlessRepeatsAreAllowed) {
    unsetenv("DBUS_SESSION_BUS_ADDRESS");
    setenv("XDG_RUNTIME_DIR", "/nonexistent", 1);
    const kel::testing::TempDir dir;
    setenv("KEL_DEVICE_DESCRIPTION", dir.file("device.json").c_str(), 1);
    const std::vector<std::string> kShown = {"<5>once: first", "<5>twice: again", "<5>twice: again",
                                             "<5>: plain"};
    const struct {
        const char* device;
        std::vector<std::string> shown;
    } kBuilds[] = {{"{}", kShown},
                   {R"({"carrierBuild": false, "internalBuild": true})", kShown},
                   {R"({"carrierBuild": false})", {}}};
    for (const auto& build : kBuilds) {
        std::ofstream(dir.file("device.json")) << build.device;
        EXPECT_EXIT(showNotices(build.shown), ::testing::ExitedWithCode(0), "") << build.device;
    }
}

}  // namespace
