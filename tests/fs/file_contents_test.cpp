#include "fs/file_contents.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <fstream>

#include <gtest/gtest.h>

#include "fs/volume.h"
#include "tests/support/call_recorder.h"
#include "tests/support/temp_dir.h"

namespace kel::testing {
namespace {

TEST(FileContentsTest, CopyFileTruncatesAndCopiesTheModeOnlyWhenAsked) {
    const TempDir dir;
    const std::string bytes(5000, 's');
    std::ofstream(dir.file("source")) << bytes;
    chmod(dir.file("source").c_str(), 0640);
    ASSERT_EQ(symlink("source", dir.file("link").c_str()), 0);
    const struct {
        std::string source = "source";
        // None: a file of its own, longer than the source, with mode 0600.
        std::string destination = "";
        bool copyMode = false;
        InjectedFailure failure = {};
        bool result = true;
        int mode;  // of the destination afterwards; -1: there is none
    } kCases[] = {
        {.mode = 0600},
        {.copyMode = true, .mode = 0640},
        // Where the kernel will not copy, the buffer loop does.
        {.failure = {.function = "copy_file_range", .nth = 1, .error = EXDEV}, .mode = 0600},
        {.source = "missing", .result = false, .mode = -1},
        // The source itself, by its name or through a link, is never emptied.
        {.destination = "source", .result = false, .mode = 0640},
        {.destination = "link", .result = false, .mode = 0640},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(&c - kCases);
        const std::string copy =
            dir.file(c.destination.empty() ? "copy" + std::to_string(&c - kCases) : c.destination);
        if (c.destination.empty() && c.mode != -1) {
            std::ofstream(copy) << std::string(8000, 'o');
            chmod(copy.c_str(), 0600);
        }
        CallRecorder recorder(c.failure);
        EXPECT_EQ(fsutil::copyFile(dir.file(c.source), copy, c.copyMode), c.result);
        EXPECT_TRUE(readFile(copy) == (c.mode != -1 ? bytes : ""));
        struct stat status {};
        EXPECT_EQ(stat(copy.c_str(), &status) == 0 ? int(status.st_mode & 07777) : -1, c.mode);
    }
}

TEST(FileContentsTest, ReadAndSizesReportFailures) {
    const TempDir dir;
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
    EXPECT_FALSE(fsutil::fileSize(dir.file("missing"), size));
    EXPECT_TRUE(fsutil::streamSize(stream, size) && size == 5 && stream.tellg() == 1);
    uint64_t total = 0, available = 0, fragment = 0;
    EXPECT_FALSE(fsutil::getVolumeStats(dir.file("missing"), total, available, fragment));
    EXPECT_TRUE(fsutil::getVolumeStats(dir.path(), total, available, fragment));
    EXPECT_TRUE(fragment > 0 && available > 0 && available <= total);
    const CallRecorder failingRead(InjectedFailure{"read", 1});
    EXPECT_FALSE(fsutil::readFile(dir.file("five"), bytes));
}

// A repeated close would meet a descriptor that is gone and fail.
TEST(FileContentsTest, AnInterruptedCloseIsNotRepeated) {
    const int fd = open("/proc/version", O_RDONLY);
    CallRecorder recorder(InjectedFailure{"close", 1, EINTR});
    EXPECT_TRUE(fsutil::closeFile(fd));
    EXPECT_EQ(recorder.injected, "close");
    EXPECT_FALSE(fsutil::closeFile(fd));
}

}  // namespace
}  // namespace kel::testing
