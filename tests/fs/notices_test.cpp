// The build kind comes from the real device description.
#include "fs/notices.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "tests/support/log_recording.h"
#include "tests/support/temp_dir.h"

namespace {

// Shows the notices of NoticeTest, writes what the system log got to standard
// error, and exits.
[[noreturn]] void showNotices() {
    const kel::testing::CapturedSystemLog log;
    fsutil::displayNotice("once", "first", 0, 1.5);
    fsutil::displayNotice("once", "same title, other message", 0, 1.5);
    // A showing that allows repeats (any value but 0) does not use up the
    // title's one showing.
    fsutil::displayNotice("twice", "again", -1, 1.5);
    fsutil::displayNotice("twice", "again", 0, 1.5);
    // Neither text converts: nothing is shown, but the title is taken.
    fsutil::displayNotice("caf\xc3\xa9", "r\xc3\xa9sum\xc3\xa9", 0, 1.5);
    fsutil::displayNotice("caf\xc3\xa9", "plain", 0, 1.5);
    fsutil::displayNotice("caf\xc3\xa9", "plain", 1, 1.5);
    for (const std::string& line : log.lines()) {
        std::fprintf(stderr, "%s\n", line.c_str());
    }
    std::exit(0);
}

// With no session bus to show them on, notices go to the system log, one line
// each. The build kind is read once per process, from the device description:
// each kind's run is a child process of its own (a death test).
TEST(NoticeTest, ShowsEachTitleOnceUnlessRepeatsAreAllowed) {
    unsetenv("DBUS_SESSION_BUS_ADDRESS");
    setenv("XDG_RUNTIME_DIR", "/nonexistent", 1);
    const kel::testing::TempDir dir;
    setenv("KEL_DEVICE_DESCRIPTION", dir.file("device.json").c_str(), 1);
    const char* const kShown = "^<5>once: first\n<5>twice: again\n<5>twice: again\n<5>: plain\n$";
    // Device descriptions, and what each build kind shows.
    const std::pair<const char*, const char*> kBuilds[] = {
        {"{}", kShown},
        {R"({"carrierBuild": false, "internalBuild": true})", kShown},
        {R"({"carrierBuild": false})", "^$"}};
    for (const auto& [device, shown] : kBuilds) {
        std::ofstream(dir.file("device.json")) << device;
        EXPECT_EXIT(showNotices(), ::testing::ExitedWithCode(0), shown) << device;
    }
}

}  // namespace
