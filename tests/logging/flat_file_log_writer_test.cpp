#include "logging/flat_file_log_writer.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/logging/flat_file_child.h"
#include "tests/logging/scoped_writer.h"
#include "tests/logging/temp_dir.h"

extern char** environ;

namespace {

lum::LogMessage record(int64_t timestampNs, lum::LogLevel level, std::string first,
                       std::string second) {
    lum::LogMessage message;
    message.timestampNs = timestampNs;
    message.level = level;
    message.firstText = std::move(first);
    message.secondText = std::move(second);
    return message;
}

lum::LogMessage record(std::string second) {
    return record(1000000, lum::LogLevel::kInfo, "test", std::move(second));
}

std::string line(const std::string& second) {
    return "0.001:Info:test:" + second + "\n";
}

class FlatFileLogWriterTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_FALSE(dir_.path().empty()); }
    TempDir dir_;
};

TEST_F(FlatFileLogWriterTest, WritesOneLinePerRecord) {
    const std::string longFirst(300, 'f');
    const std::string longSecond(600, 's');
    struct Case {
        lum::LogMessage message;
        std::string expected;
    };
    const std::vector<Case> cases = {
        {record(1234567890123, lum::LogLevel::kInfo, "a", "b"), "1234.568:Info:a:b\n"},
        {record(999999, lum::LogLevel::kDebug, "a", "b"), "0.001:Debug:a:b\n"},
        {record(0, lum::LogLevel::kNotice, "a", "b"), "0.000:Notice:a:b\n"},
        {record(-1500000, lum::LogLevel::kWarning, "a", "b"), "-0.002:Warning:a:b\n"},
        {record(-1, lum::LogLevel::kError, "a", "b"), "-0.000:Error:a:b\n"},
        {record(INT64_MAX, lum::LogLevel::kFault, "a", "b"), "9223372036.855:Fault:a:b\n"},
        {record(2000000, lum::LogLevel{41}, "a", "b"), "0.002:41:a:b\n"},
        {record(2000000, lum::LogLevel{0}, "a", "b"), "0.002:0:a:b\n"},
        {record(2000000, lum::LogLevel{255}, "a", "b"), "0.002:255:a:b\n"},
        {record(3000000, lum::LogLevel::kInfo, "", ""), "0.003:Info::\n"},
        {record(4000000, lum::LogLevel::kInfo, "x:y", "line\nnext:\n"),
         "0.004:Info:x:y:line\nnext:\n\n"},
        {record(5000000, lum::LogLevel::kInfo, longFirst, longSecond),
         "0.005:Info:" + longFirst + ":" + longSecond + "\n"},
    };
    // Once through the pending text, once straight to the open file.
    ScopedWriter writer(dir_.file("log"));
    std::string expected;
    for (const Case& c : cases) {
        writer->writeMessage(c.message);
        expected += c.expected;
    }
    writer->open("");
    for (const Case& c : cases) {
        writer->writeMessage(c.message);
        EXPECT_EQ(readFile(dir_.file("log")), expected + c.expected) << c.expected;
        expected += c.expected;
    }
    writer->close();
    EXPECT_FALSE(writer->fileStreamFailed());
}

TEST_F(FlatFileLogWriterTest, TouchesNoFileBeforeOpenAndTruncatesOnOpen) {
    const std::string path = dir_.file("log");
    ScopedWriter writer(path);
    writer->writeMessage(record("early"));
    EXPECT_NE(access(path.c_str(), F_OK), 0);

    std::ofstream(path) << "old content that is longer than the new one\n";
    writer->open("");
    writer->writeMessage(record("late"));
    EXPECT_EQ(readFile(path), line("early") + line("late"));
}

TEST_F(FlatFileLogWriterTest, SecondOpenFailsKeepsTheFileAndDropsLaterRecords) {
    ScopedWriter writer(dir_.file("first"));
    writer->open("");
    writer->writeMessage(record("a"));
    writer->open(dir_.file("second"));
    EXPECT_TRUE(writer->fileStreamFailed());
    EXPECT_NE(access(dir_.file("second").c_str(), F_OK), 0);

    writer->writeMessage(record("dropped"));
    writer->close();
    EXPECT_TRUE(writer->fileStreamFailed());
    EXPECT_EQ(readFile(dir_.file("first")), line("a"));

    // The failed open still replaced the path, and a good open clears the state.
    writer->writeMessage(record("b"));
    writer->open("");
    EXPECT_FALSE(writer->fileStreamFailed());
    writer->close();
    EXPECT_EQ(readFile(dir_.file("second")), line("b"));
}

TEST_F(FlatFileLogWriterTest, RecordsAfterCloseWaitForTheNextOpen) {
    ScopedWriter writer(dir_.file("first"));
    writer->close();
    EXPECT_TRUE(writer->fileStreamFailed());

    writer->open("");
    EXPECT_FALSE(writer->fileStreamFailed());
    writer->writeMessage(record("a"));
    writer->close();
    EXPECT_FALSE(writer->fileStreamFailed());
    writer->writeMessage(record("b"));
    writer->writeMessage(record("c"));
    EXPECT_EQ(readFile(dir_.file("first")), line("a"));

    writer->open(dir_.file("second"));
    writer->writeMessage(record("d"));
    EXPECT_EQ(readFile(dir_.file("second")), line("b") + line("c") + line("d"));
}

TEST_F(FlatFileLogWriterTest, MissingFolderLosesPendingTextAndKeepsCollecting) {
    ScopedWriter writer(dir_.file("missing/log"));
    writer->writeMessage(record("lost"));
    writer->open("");
    EXPECT_TRUE(writer->fileStreamFailed());
    writer->writeMessage(record("kept"));
    writer->open(dir_.file("log"));
    EXPECT_FALSE(writer->fileStreamFailed());
    writer->close();
    EXPECT_EQ(readFile(dir_.file("log")), line("kept"));
}

TEST_F(FlatFileLogWriterTest, FullDeviceFailsAtTheFlushAndCloseStillCloses) {
    ScopedWriter writer("/dev/full");
    writer->open("");
    ASSERT_FALSE(writer->fileStreamFailed()) << "/dev/full cannot be opened";
    writer->writeMessage(record("no space"));
    EXPECT_TRUE(writer->fileStreamFailed());
    writer->writeMessage(record("dropped"));
    writer->close();
    EXPECT_TRUE(writer->fileStreamFailed());

    // Closed all the same: records collect again and reach the next file.
    writer->writeMessage(record("kept"));
    writer->open(dir_.file("log"));
    writer->close();
    EXPECT_EQ(readFile(dir_.file("log")), line("kept"));
}

// Runs flat_file_child with `args` and returns its wait status.
int runChild(std::vector<std::string> args, posix_spawn_file_actions_t* actions = nullptr,
             pid_t* pidOut = nullptr) {
    args.insert(args.begin(), KEL_FLAT_FILE_CHILD);
    std::vector<char*> argv;
    for (std::string& arg : args) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawn(&pid, argv[0], actions, nullptr, argv.data(), environ) != 0) {
        return -1;
    }
    if (pidOut != nullptr) {
        *pidOut = pid;
        return 0;
    }
    int status = 0;
    return waitpid(pid, &status, 0) == pid ? status : -1;
}

void expectChildPassed(int status) {
    ASSERT_TRUE(WIFEXITED(status)) << "child status " << status;
    if (WEXITSTATUS(status) == kChildRefused) {
        GTEST_SKIP() << "this machine refuses user or mount namespaces";
    }
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_F(FlatFileLogWriterTest, FullFileSystemFailsTheStream) {
    ASSERT_EQ(mkdir(dir_.file("mnt").c_str(), 0755), 0);
    expectChildPassed(runChild({"full", dir_.file("mnt")}));
}

TEST_F(FlatFileLogWriterTest, ReadOnlyFileSystemFailsTheOpen) {
    ASSERT_EQ(mkdir(dir_.file("mnt").c_str(), 0755), 0);
    expectChildPassed(runChild({"read-only", dir_.file("mnt"), dir_.file("log")}));
    if (!HasFatalFailure() && !IsSkipped()) {
        EXPECT_EQ(readFile(dir_.file("log")), "0.002:Notice:child:kept\n");
    }
}

// The child is killed right after it reports a record written, at a random
// record: every record whose writeMessage returned is in the file, whole.
TEST_F(FlatFileLogWriterTest, RecordsSurviveSigkill) {
    const uint32_t seed = std::random_device{}();
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    std::mt19937 engine(seed);
    const uint32_t reported = std::uniform_int_distribution<uint32_t>(1, 3000)(engine);

    int reports[2];
    int goOn[2];
    ASSERT_EQ(pipe2(reports, O_CLOEXEC), 0);
    ASSERT_EQ(pipe2(goOn, O_CLOEXEC), 0);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, reports[1], 3);
    posix_spawn_file_actions_adddup2(&actions, goOn[0], 4);
    pid_t pid = -1;
    const std::string path = dir_.file("log");
    runChild({"crash", path, "3", "4"}, &actions, &pid);
    posix_spawn_file_actions_destroy(&actions);
    close(reports[1]);
    close(goOn[0]);
    ASSERT_GT(pid, 0);

    for (uint32_t next = 0; next < reported; ++next) {
        uint32_t index = 0;
        ASSERT_EQ(read(reports[0], &index, sizeof index), ssize_t(sizeof index));
        ASSERT_EQ(index, next);
        if (next + 1 < reported) {
            ASSERT_EQ(write(goOn[1], "", 1), 1);
        }
    }
    kill(pid, SIGKILL);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    close(reports[0]);
    close(goOn[1]);
    ASSERT_TRUE(WIFSIGNALED(status));

    std::string expected;
    for (uint32_t index = 0; index < reported; ++index) {
        char line[64];
        snprintf(line, sizeof line, "%.3f:Notice:child:record %u\n",
                 static_cast<double>(int64_t{index} * 1000000) * 1e-9, index);
        expected += line;
    }
    EXPECT_EQ(readFile(path), expected);
}

}  // namespace
