#include "fs/file_contents.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "fs/volume.h"
#include "tests/support/call_recorder.h"
#include "tests/support/temp_dir.h"

namespace kel::testing {
namespace {

// An existing destination is emptied first, and keeps its own mode unless
// the source's is asked for.
TEST(FileContentsTest, CopyFileTruncatesAndCopiesTheModeOnlyWhenAsked) {
    const TempDir dir;
    const std::string source = dir.file("source"), copy = dir.file("copy");
    const std::string bytes(5000, 's');
    std::ofstream(source) << bytes;
    chmod(source.c_str(), 0640);
    for (const bool copyMode : {false, true}) {
        std::ofstream(copy) << std::string(8000, 'o');
        chmod(copy.c_str(), 0600);
        // The first copy is one the kernel will not make: the buffer loop makes it.
        const CallRecorder refused(InjectedFailure{"copy_file_range", copyMode ? 0 : 1, EXDEV});
        EXPECT_TRUE(fsutil::copyFile(source, copy, copyMode));
        EXPECT_TRUE(readFile(copy) == bytes);
        EXPECT_EQ(int(std::filesystem::status(copy).permissions()), copyMode ? 0640 : 0600);
    }
    EXPECT_FALSE(fsutil::copyFile(dir.file("missing"), dir.file("none"), false));
    EXPECT_FALSE(std::filesystem::exists(dir.file("none")));
    // The source itself, here through a link, is never emptied.
    ASSERT_EQ(symlink("source", dir.file("link").c_str()), 0);
    EXPECT_FALSE(fsutil::copyFile(source, dir.file("link"), true));
    EXPECT_TRUE(readFile(source) == bytes);
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
    const CallRecorder interrupted(InjectedFailure{"close", 1, EINTR});
    EXPECT_TRUE(fsutil::closeFile(fd));
    EXPECT_FALSE(fsutil::closeFile(fd));
}

}  // namespace
}  // namespace kel::testing
