#include "fs/file_contents.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <fstream>

#include <gtest/gtest.h>

#include "tests/support/call_recorder.h"
#include "tests/support/temp_dir.h"

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

// A repeated close would meet a descriptor that is gone and fail.
TEST(FileContentsTest, AnInterruptedCloseIsNotRepeated) {
    const int fd = open("/proc/version", O_RDONLY);
    CallRecorder recorder(InjectedFailure{"close", 1, EINTR});
    EXPECT_TRUE(fsutil::closeFile(fd));
    EXPECT_EQ(recorder.injected(), "close");
    EXPECT_FALSE(fsutil::closeFile(fd));
}

}  // namespace
