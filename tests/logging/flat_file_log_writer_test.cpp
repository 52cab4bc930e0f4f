#include "logging/flat_file_log_writer.h"

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/strings/format.h"
#include "tests/logging/flat_file_child.h"
#include "tests/logging/scoped_writer.h"
#include "tests/support/temp_dir.h"

namespace {

using kel::testing::readFile;
using lum::LogLevel;

lum::LogMessage record(int64_t ns, LogLevel level, std::string first, std::string second) {
    return {.timestampNs = ns, .level = level, .firstText = first, .secondText = second};
}

lum::LogMessage record(std::string second) {
    return record(1000000, LogLevel::kInfo, "test", std::move(second));
}

std::string line(const std::string& second) {
    return "0.001:Info:test:" + second + "\n";
}

class FlatFileLogWriterTest : public ::testing::Test {
  protected:
    kel::testing::TempDir dir_;
};

// Records written while no file is open lead the truncated file, then every
// record goes straight to it.
TEST_F(FlatFileLogWriterTest, WritesOneLinePerRecordPendingOnesFirst) {
    const std::string longFirst(300, 'f'), longSecond(600, 's');
    const struct {
        lum::LogMessage message;
        std::string expected;
    } kCases[] = {
        {record(1234567890123, LogLevel::kInfo, "a", "b"), "1234.568:Info:a:b\n"},
        {record(999999, LogLevel::kDebug, "a", "b"), "0.001:Debug:a:b\n"},
        {record(0, LogLevel::kNotice, "a", "b"), "0.000:Notice:a:b\n"},
        {record(-1500000, LogLevel::kWarning, "a", "b"), "-0.002:Warning:a:b\n"},
        {record(-1, LogLevel::kError, "a", "b"), "-0.000:Error:a:b\n"},
        {record(3000000, LogLevel::kFault, "", ""), "0.003:Fault::\n"},
        // Levels without a name are written as numbers.
        {record(4000000, LogLevel{0}, "x:y", "line\nnext:\n"), "0.004:0:x:y:line\nnext:\n\n"},
        {record(5000000, LogLevel{255}, longFirst, longSecond),
         "0.005:255:" + longFirst + ":" + longSecond + "\n"},
    };
    const std::string path = dir_.file("log");
    std::ofstream(path) << std::string(10000, 'o');
    ScopedWriter writer(path);
    std::string expected;
    for (const auto& c : kCases) {
        writer->writeMessage(c.message);
        expected += c.expected;
    }
    writer->open("");
    EXPECT_EQ(readFile(path), expected);
    writer->writeMessage(record("last"));
    EXPECT_EQ(readFile(path), expected + line("last"));
    writer->close();
    EXPECT_FALSE(writer->fileStreamFailedForTesting());
    writer->close();  // with no file open
    EXPECT_TRUE(writer->fileStreamFailedForTesting());
}

// Many threads writing at once, some records before the file is opened: every
// record appears exactly once, whole, and each thread's records in order.
TEST_F(FlatFileLogWriterTest, ConcurrentRecordsAreWholeAndInOrder) {
    constexpr int kThreads = 8;
    ScopedWriter writer(dir_.file("log"));
    std::vector<std::string> written(kThreads), found(kThreads);
    {
        std::vector<std::jthread> threads;
        for (int thread = 0; thread < kThreads; ++thread) {
            threads.emplace_back([&, thread] {
                const std::string first = std::to_string(thread);
                for (int index = 0; index < 2000; ++index) {
                    // Up to 700 bytes: some lines go out in pieces.
                    const std::string text = std::to_string(index) + std::string(index % 700, 'x');
                    writer->writeMessage(record(0, LogLevel::kWarning, first, text));
                    written[thread] += "0.000:Warning:" + first + ":" + text + "\n";
                }
            });
        }
        writer->open("");
    }
    writer->close();
    std::istringstream lines(readFile(dir_.file("log")));
    for (std::string line; std::getline(lines, line);) {
        const size_t thread = line.size() > 14 ? line[14] - '0' : kThreads;
        ASSERT_LT(thread, found.size()) << line;
        found[thread] += line + "\n";
    }
    EXPECT_TRUE(found == written);
}

// A missing folder fails the open and loses the pending text; /dev/full fails
// the flush of the first record; a second open while a file is open fails,
// creates no file and keeps the open one, which gets no more records. Nothing
// throws, the stream stays failed through close, and the records collected
// after close reach the next file.
TEST_F(FlatFileLogWriterTest, FailuresFailTheStreamUntilTheNextOpen) {
    const struct {
        std::string path;
        bool openTwice;
        std::string reachesNextFile;
    } kCases[] = {{dir_.file("missing/log"), false, line("b") + line("c")},
                  {"/dev/full", false, line("c")},
                  {dir_.file("first"), true, line("c")}};
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.path);
        ScopedWriter writer(c.path);
        writer->writeMessage(record("a"));
        writer->open("");
        if (c.openTwice) {
            writer->open(dir_.file("second"));
            EXPECT_NE(access(dir_.file("second").c_str(), F_OK), 0);
        }
        writer->writeMessage(record("b"));
        writer->close();
        EXPECT_TRUE(writer->fileStreamFailedForTesting());
        writer->writeMessage(record("c"));
        // The failed second open still replaced the path for good.
        writer->open(c.openTwice ? "" : dir_.file("log"));
        writer->close();
        EXPECT_FALSE(writer->fileStreamFailedForTesting());
        EXPECT_EQ(readFile(dir_.file(c.openTwice ? "second" : "log")), c.reachesNextFile);
    }
    EXPECT_EQ(readFile(dir_.file("first")), line("a"));
}

// Runs flat_file_child with `args`; its wait status.
int runChild(const std::string& args) {
    return std::system(("exec " KEL_FLAT_FILE_CHILD " " + args).c_str());
}

// A full tmpfs, then the same one read-only, inside a user and mount namespace.
TEST_F(FlatFileLogWriterTest, FullAndReadOnlyFileSystemsFailTheStream) {
    ASSERT_EQ(mkdir(dir_.file("mnt").c_str(), 0755), 0);
    const int status = runChild("mounts " + dir_.file("mnt") + " " + dir_.file("log"));
    ASSERT_TRUE(WIFEXITED(status)) << status;
    if (WEXITSTATUS(status) == kChildRefused) {
        GTEST_SKIP() << "this machine refuses user or mount namespaces";
    }
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(readFile(dir_.file("log")), "0.002:Notice:child:kept\n");
}

// The child kills itself with SIGKILL right after a random number of records
// were written: each of them is in the file, whole and in order.
TEST_F(FlatFileLogWriterTest, RecordsSurviveSigkill) {
    const uint32_t count = std::random_device{}() % 3000 + 1;
    SCOPED_TRACE(testing::Message() << count << " records");
    const int status = runChild("crash " + dir_.file("log") + " " + std::to_string(count));
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
    std::string expected;
    for (uint32_t index = 0; index < count; ++index) {
        expected += platform::stringPrintf("%.3f:Notice:child:%u\n", index * 0.001, index);
    }
    EXPECT_EQ(readFile(dir_.file("log")), expected);
}

}  // namespace
