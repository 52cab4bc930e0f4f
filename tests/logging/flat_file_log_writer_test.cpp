#include "logging/flat_file_log_writer.h"

#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tests/logging/flat_file_child.h"
#include "tests/logging/scoped_writer.h"
#include "tests/support/temp_dir.h"

extern char** environ;

namespace {

using kel::testing::readFile;
using kel::testing::TempDir;

lum::LogMessage record(int64_t timestampNs, lum::LogLevel level, std::string first,
                       std::string second) {
    return {.timestampNs = timestampNs,
            .level = level,
            .firstText = std::move(first),
            .secondText = std::move(second)};
}

lum::LogMessage record(std::string second) {
    return record(1000000, lum::LogLevel::kInfo, "test", std::move(second));
}

std::string line(const std::string& second) {
    return "0.001:Info:test:" + second + "\n";
}

class FlatFileLogWriterTest : public ::testing::Test {
  protected:
    TempDir dir_;
};

// Each case once through the pending text, which leads the truncated file,
// and once straight to the open file.
TEST_F(FlatFileLogWriterTest, WritesOneLinePerRecordPendingOnesFirst) {
    const std::string longFirst(300, 'f');
    const std::string longSecond(600, 's');
    const struct {
        lum::LogMessage message;
        std::string expected;
    } cases[] = {
        {record(1234567890123, lum::LogLevel::kInfo, "a", "b"), "1234.568:Info:a:b\n"},
        {record(999999, lum::LogLevel::kDebug, "a", "b"), "0.001:Debug:a:b\n"},
        {record(0, lum::LogLevel::kNotice, "a", "b"), "0.000:Notice:a:b\n"},
        {record(-1500000, lum::LogLevel::kWarning, "a", "b"), "-0.002:Warning:a:b\n"},
        {record(-1, lum::LogLevel::kError, "a", "b"), "-0.000:Error:a:b\n"},
        {record(3000000, lum::LogLevel::kFault, "", ""), "0.003:Fault::\n"},
        {record(4000000, lum::LogLevel::kInfo, "x:y", "line\nnext:\n"),
         "0.004:Info:x:y:line\nnext:\n\n"},
        {record(5000000, lum::LogLevel::kInfo, longFirst, longSecond),
         "0.005:Info:" + longFirst + ":" + longSecond + "\n"},
    };
    const std::string path = dir_.file("log");
    ScopedWriter writer(path);
    std::string expected;
    for (const auto& c : cases) {
        writer->writeMessage(c.message);
        expected += c.expected;
    }
    writer->close();  // with no file open: fails the stream, keeps the records
    EXPECT_TRUE(writer->fileStreamFailed());
    EXPECT_NE(access(path.c_str(), F_OK), 0);
    std::ofstream(path) << std::string(10000, 'o');
    writer->open("");
    EXPECT_FALSE(writer->fileStreamFailed());
    for (const auto& c : cases) {
        writer->writeMessage(c.message);
        expected += c.expected;
        EXPECT_EQ(readFile(path), expected) << c.expected;
    }
}

TEST_F(FlatFileLogWriterTest, SecondOpenFailsAndRecordsAfterCloseWaitForTheNextOpen) {
    ScopedWriter writer(dir_.file("first"));
    writer->open("");
    writer->writeMessage(record("a"));
    writer->open(dir_.file("second"));
    EXPECT_TRUE(writer->fileStreamFailed());
    EXPECT_NE(access(dir_.file("second").c_str(), F_OK), 0);
    writer->writeMessage(record("dropped"));
    writer->close();
    EXPECT_TRUE(writer->fileStreamFailed());

    // The failed open still replaced the path; a good open clears the state.
    writer->writeMessage(record("b"));
    writer->writeMessage(record("c"));
    writer->open("");
    EXPECT_FALSE(writer->fileStreamFailed());
    writer->writeMessage(record("d"));
    EXPECT_EQ(readFile(dir_.file("first")), line("a"));
    EXPECT_EQ(readFile(dir_.file("second")), line("b") + line("c") + line("d"));
}

// Many threads writing at once, some records before the file is opened: every
// record appears exactly once, whole, and each thread's records in order.
TEST_F(FlatFileLogWriterTest, ConcurrentRecordsAreWholeAndInOrder) {
    constexpr int kThreads = 8;
    ScopedWriter writer(dir_.file("log"));
    std::vector<std::string> written(kThreads);
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&, thread] {
            for (int index = 0; index < 2000; ++index) {
                // Up to 700 bytes: some lines go out in pieces.
                const std::string text = std::to_string(index) + std::string(index % 700, 'x');
                writer->writeMessage(
                    record(0, lum::LogLevel::kWarning, std::to_string(thread), text));
                written[thread] += "0.000:Warning:" + std::to_string(thread) + ":" + text + "\n";
            }
        });
    }
    writer->open("");
    for (std::thread& thread : threads) {
        thread.join();
    }
    writer->close();

    std::vector<std::string> found(kThreads);
    std::istringstream lines(readFile(dir_.file("log")));
    for (std::string line; std::getline(lines, line);) {
        const size_t thread = line.size() > 14 ? line[14] - '0' : kThreads;
        ASSERT_LT(thread, found.size()) << line;
        found[thread] += line + "\n";
    }
    EXPECT_TRUE(found == written);
}

// A missing folder fails the open and loses the pending text; /dev/full fails
// the flush of the first record. Either way nothing throws, the stream stays
// failed, and the records collected after close reach the next file.
TEST_F(FlatFileLogWriterTest, FailuresFailTheStreamUntilTheNextOpen) {
    const struct {
        std::string path;
        std::string reachesNextFile;
    } cases[] = {{dir_.file("missing/log"), line("b") + line("c")}, {"/dev/full", line("c")}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        ScopedWriter writer(c.path);
        writer->writeMessage(record("a"));
        writer->open("");
        writer->writeMessage(record("b"));
        EXPECT_TRUE(writer->fileStreamFailed());
        writer->close();
        EXPECT_TRUE(writer->fileStreamFailed());
        writer->writeMessage(record("c"));
        writer->open(dir_.file("log"));
        writer->close();
        EXPECT_FALSE(writer->fileStreamFailed());
        EXPECT_EQ(readFile(dir_.file("log")), c.reachesNextFile);
    }
}

// Runs flat_file_child with `args`; its wait status, -1 if it could not run.
int runChild(std::vector<std::string> args) {
    args.insert(args.begin(), KEL_FLAT_FILE_CHILD);
    std::vector<char*> argv;
    for (std::string& arg : args) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);
    pid_t pid = -1;
    int status = -1;
    if (posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) {
        return -1;
    }
    return waitpid(pid, &status, 0) == pid ? status : -1;
}

// A full tmpfs, then the same one read-only, inside a user and mount namespace.
TEST_F(FlatFileLogWriterTest, FullAndReadOnlyFileSystemsFailTheStream) {
    ASSERT_EQ(mkdir(dir_.file("mnt").c_str(), 0755), 0);
    const int status = runChild({"mounts", dir_.file("mnt"), dir_.file("log")});
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
    const int status = runChild({"crash", dir_.file("log"), std::to_string(count)});
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
    std::string expected;
    for (uint32_t index = 0; index < count; ++index) {
        char text[64];
        std::snprintf(text, sizeof text, "%.3f:Notice:child:%u\n", index * 0.001, index);
        expected += text;
    }
    EXPECT_EQ(readFile(dir_.file("log")), expected);
}

}  // namespace
