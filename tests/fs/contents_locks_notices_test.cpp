// The file-contents, lock, volume and notice operations. Built twice: with
// the recording watchdog (fs_contents_locks_test), and with the real one for
// LockSharedTest alone (fs_hung_step_test). The build kind comes from the real
// device description.
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>

#include <gtest/gtest.h>

#include "fs/file_contents.h"
#include "fs/locks.h"
#include "fs/notices.h"
#include "fs/volume.h"
#include "fs/watchdog_guard.h"
#include "platform/trace/trace.h"
#include "tests/support/call_recorder.h"
#include "tests/support/log_recording.h"
#include "tests/support/temp_dir.h"
#include "tests/support/test_child.h"

namespace {

using kel::testing::CallRecorder;
using kel::testing::InjectedFailure;
using kel::testing::readFile;

TEST(FileContentsTest, CopyFileTruncatesAndCopiesTheModeOnlyWhenAsked) {
    const kel::testing::TempDir dir;
    std::ofstream(dir.file("source")) << std::string(5000, 's');
    chmod(dir.file("source").c_str(), 0640);
    const struct {
        std::string source;
        bool copyMode = false;
        InjectedFailure failure = {};
        int mode;  // of the copy afterwards; -1: there is none
    } kCases[] = {
        {.source = dir.file("source"), .mode = 0600},
        {.source = dir.file("source"), .copyMode = true, .mode = 0640},
        // Where the kernel will not copy, the buffer loop does.
        {.source = dir.file("source"),
         .failure = {.function = "copy_file_range", .nth = 1, .error = EXDEV},
         .mode = 0600},
        {.source = dir.file("missing"), .mode = -1},
    };
    // The destination, longer than the source, is there beforehand with mode
    // 0600, unless the copy must fail.
    for (const auto& c : kCases) {
        SCOPED_TRACE(&c - kCases);
        const std::string copy = dir.file("copy" + std::to_string(&c - kCases));
        if (c.mode != -1) {
            std::ofstream(copy) << std::string(8000, 'o');
            chmod(copy.c_str(), 0600);
        }
        CallRecorder recorder(c.failure);
        EXPECT_EQ(fsutil::copyFile(c.source, copy, c.copyMode), c.mode != -1);
        EXPECT_EQ(readFile(copy), c.mode != -1 ? readFile(c.source) : "");
        struct stat status {};
        EXPECT_EQ(stat(copy.c_str(), &status) == 0 ? int(status.st_mode & 07777) : -1, c.mode);
    }
}

TEST(FileContentsTest, ReadFileChangesNothingWithoutBytesToRead) {
    const kel::testing::TempDir dir;
    std::ofstream(dir.file("empty"));
    std::ofstream(dir.file("five")) << "hello";
    std::vector<uint8_t> bytes(7, 7);
    EXPECT_FALSE(fsutil::readFile(dir.file("missing"), bytes));
    EXPECT_FALSE(fsutil::readFile(dir.file("empty"), bytes));
    EXPECT_EQ(bytes, std::vector<uint8_t>(7, 7));
    EXPECT_TRUE(fsutil::readFile(dir.file("five"), bytes));
    EXPECT_EQ(std::string(bytes.begin(), bytes.end()), "hello");
    int64_t size = -1;
    std::ifstream stream(dir.file("five"));
    stream.get();
    EXPECT_TRUE(fsutil::fileSize(dir.file("five"), size) && size == 5);
    EXPECT_TRUE(fsutil::streamSize(stream, size) && size == 5 && stream.tellg() == 1);
}

TEST(FileContentsTest, AnInterruptedCloseIsNotRepeated) {
    const int fd = open("/proc/version", O_RDONLY);
    CallRecorder recorder(InjectedFailure{"close", 1, EINTR});
    EXPECT_TRUE(fsutil::closeFile(fd));
    EXPECT_EQ(recorder.log(), "[ close! ]");
    EXPECT_FALSE(fsutil::closeFile(fd));
}

// Each operation on files and locks, through exactly these calls and guards,
// and with each of its calls failing in turn (see sweepFailures): the failures
// not marked ":f" are the ones the operation ignores.
TEST(FileContentsTest, GuardsAndEveryFailurePath) {
    const kel::testing::TempDir dir;
    const std::string data = dir.file("data");
    std::ofstream(data) << std::string(3000, 'd');
    std::vector<uint8_t> bytes;
    int64_t size = 0;
    uint64_t blocks = 0;
    const struct {
        std::function<bool()> run;
        std::string sweep;
    } kOperations[] = {
        {[&] { return fsutil::copyFile(data, dir.file("copy"), /*copyMode=*/true); },
         "[ open:f ] [ open:f ] copy_file_range:f copy_file_range:f read:f fstat:f fchmod:f "
         "[ close ] [ close ]"},
        {[&] { return fsutil::copyFile("/proc/version", dir.file("copy"), /*copyMode=*/false); },
         "[ open:f ] [ open:f ] copy_file_range:f read:f write:f read:f [ close ] [ close ]"},
        {[&] { return fsutil::readFile(data, bytes); },
         "[ fopen64:f lseek64:f lseek64:f lseek64:f lseek64:f read:f fclose ]"},
        {[&] { return fsutil::fileSize(data, size); },
         "fopen64:f lseek64 lseek64 lseek64 lseek64 fclose"},
        {[&] { return fsutil::unlockAndClose(fsutil::lockShared(data)); },
         "[ open:f fcntl:f ] [ fcntl:f close ]"},
        {[&] { return fsutil::getVolumeStats(data, blocks, blocks, blocks); }, "statvfs:f"},
    };
    for (const auto& operation : kOperations) {
        EXPECT_EQ(kel::testing::sweepFailures(operation.run), operation.sweep);
    }
}

// Needs the real watchdog service (see the top of the file), with its stack
// reports in a folder of their own.
TEST(LockSharedTest, WaitsForAWriteLockOnlyAndAHungWaitIsReportedOnce) {
    if (std::getenv("KEL_HELPER_RUNTIME_DIR") == nullptr) {
        GTEST_SKIP() << "runs in fs_hung_step_test";
    }
    std::filesystem::remove_all(kel::trace::kSnapshotFolder);
    const kel::testing::TempDir dir;
    const std::string file = dir.file("locked");
    std::ofstream(file) << "contents";
    int ready[2], release[2], log[2];
    ASSERT_EQ(pipe(ready) | pipe(release) | pipe(log), 0);
    const int previousLog = systemlog::redirectForTesting(log[1]);
    // The read lock is let go only after lockShared has returned; the write
    // lock once the waiting lockShared has been reported in the system log.
    for (const auto& [type, end] : {std::pair{F_RDLCK, release[0]}, std::pair{F_WRLCK, log[0]}}) {
        const pid_t holder = fork();
        if (holder == 0) {
            struct flock lock {};
            lock.l_type = static_cast<short>(type);
            pollfd released{end, POLLIN, 0};
            // Takes the lock, says so, and holds it until `end` turns readable
            // (exit 0) or for 10 s at most (exit 1).
            _exit(fcntl(open(file.c_str(), O_RDWR), F_SETLK, &lock) != 0 ||
                  write(ready[1], "L", 1) != 1 || poll(&released, 1, 10'000) != 1);
        }
        char byte = 0;
        ASSERT_EQ(read(ready[0], &byte, 1), 1);
        const int fd = fsutil::lockShared(file);
        EXPECT_GE(fd, 0);
        EXPECT_EQ(write(release[1], "R", 1), 1);
        int status = -1;
        EXPECT_EQ(waitpid(holder, &status, 0), holder);
        EXPECT_EQ(status, 0) << "lock type " << type;
        EXPECT_TRUE(fsutil::unlockAndClose(fd));
    }
    systemlog::redirectForTesting(previousLog);
    const std::vector<std::filesystem::path> reports(
        std::filesystem::directory_iterator(kel::trace::kSnapshotFolder), {});
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_NE(readFile(reports[0]).find(fsutil::kWatchdogReason), std::string::npos);
}

// Runs itself again in a child over a fresh 256 KiB tmpfs.
TEST(VolumeStatsTest, GivesTheFiguresOfASmallTmpfs) {
    const char* const mountPoint = kel::testing::childArgument();
    if (mountPoint == nullptr) {
        const kel::testing::TempDir dir;
        EXPECT_EQ(kel::testing::runTestAgainOnTmpfs(dir.path(), "256k"), 0);
        return;
    }
    const uint64_t page = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    std::vector<uint64_t> figures(3);
    ASSERT_TRUE(fsutil::getVolumeStats(mountPoint, figures[0], figures[1], figures[2]));
    EXPECT_EQ(figures, (std::vector<uint64_t>{256 * 1024 / page, 256 * 1024 / page, page}));
    std::ofstream(mountPoint + std::string("/three-pages")) << std::string(3 * page, 'p');
    ASSERT_TRUE(fsutil::getVolumeStats(mountPoint, figures[0], figures[1], figures[2]));
    EXPECT_EQ(figures[1], figures[0] - 3);
}

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
