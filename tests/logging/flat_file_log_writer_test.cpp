#include "logging/flat_file_log_writer.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/logging/scoped_writer.h"
#include "tests/support/temp_dir.h"
#include "tests/support/test_child.h"

namespace kel::testing {
namespace {

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
    TempDir dir_;
};

// Records written while no file is open lead the truncated file, then every
// record goes straight to it: it can be read back as soon as writeMessage has
// returned, so a process killed right after loses none.
TEST_F(FlatFileLogWriterTest, WritesOneLinePerRecordPendingOnesFirst) {
    const std::pair<lum::LogMessage, std::string> kCases[] = {
        {record(1234567890123, LogLevel::kInfo, "a", "b"), "1234.568:Info:a:b\n"},
        {record(999999, LogLevel::kDebug, "a", "b"), "0.001:Debug:a:b\n"},
        {record(0, LogLevel::kNotice, "a", "b"), "0.000:Notice:a:b\n"},
        {record(-1500000, LogLevel::kWarning, "a", "b"), "-0.002:Warning:a:b\n"},
        {record(-1, LogLevel::kError, "a", "b"), "-0.000:Error:a:b\n"},
        {record(3000000, LogLevel::kFault, "", ""), "0.003:Fault::\n"},
        // Levels without a name are written as numbers.
        {record(4000000, LogLevel{0}, "x:y", "line\nnext:\n"), "0.004:0:x:y:line\nnext:\n\n"},
        {record(5000000, LogLevel{255}, "a", "b"), "0.005:255:a:b\n"},
    };
    const std::string path = dir_.file("log");
    std::ofstream(path) << std::string(10000, 'o');
    ScopedWriter writer(path);
    std::string expected;
    for (const auto& [message, text] : kCases) {
        writer->writeMessage(message);
        expected += text;
    }
    writer->open("");
    EXPECT_EQ(readFile(path), expected);
    writer->writeMessage(record("last"));
    EXPECT_EQ(readFile(path), expected + line("last"));
    writer->close();
    EXPECT_FALSE(writer->fileStreamFailedForTesting());
    writer->close();  // with no file open
    EXPECT_TRUE(writer->fileStreamFailedForTesting());
    // A second open keeps the open file, makes none, and drops what follows.
    writer->open("");
    writer->open(dir_.file("second"));
    writer->writeMessage(record("dropped"));
    EXPECT_EQ(readFile(path), "");
    EXPECT_NE(access(dir_.file("second").c_str(), F_OK), 0);
}

// Many threads write at once while no file is open, so that their records
// wait in memory together, then the file opens: every record is in it exactly
// once, whole, and each thread's records in order.
TEST_F(FlatFileLogWriterTest, ConcurrentRecordsAreWholeAndInOrder) {
    constexpr int kThreads = 8, kPerThread = 2000;
    // Up to 700 bytes: some lines do not fit the writer's line buffer.
    const auto text = [](int i) { return std::to_string(i) + std::string(i % 700, 'x'); };
    ScopedWriter writer(dir_.file("log"));
    std::vector<std::jthread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kPerThread; ++i) {
                writer->writeMessage(record(0, LogLevel::kWarning, std::to_string(t), text(i)));
            }
        });
    }
    threads.clear();
    writer->open("");
    std::vector<int> next(kThreads);
    for (const std::string& line : linesOf(readFile(dir_.file("log")))) {
        const size_t t = line.at(14) - '0';  // at() throws for a garbled line
        ASSERT_EQ(line, "0.000:Warning:" + std::to_string(t) + ":" + text(next.at(t)++));
    }
    EXPECT_EQ(next, std::vector<int>(kThreads, kPerThread));
}

// What another user, or another process, could have put in the log's place,
// and a folder that is not there: the writer opens none of it, changes nothing
// there, says why, and fails. The records pending at that open are lost; those
// written after it reach the next file that opens. Cases that make a file
// another user's need root.
TEST_F(FlatFileLogWriterTest, RefusedOpensLoseOnlyThePendingRecords) {
    // The other user is nobody, uid 65534.
    const std::string folder = dir_.file("scratch");
    const std::string log = folder + "/log";
    const std::string victim = dir_.file("victim");
    std::vector<platform::UniqueFd> held;
    const struct {
        const char* name;
        std::function<void()> place;
        const char* why;
        bool needsRoot = false;
    } kCases[] = {
        {"a missing folder", [&] { std::filesystem::remove(folder); }, "No such file"},
        {"a link to another file", [&] { symlink(victim.c_str(), log.c_str()); }, "symbolic link"},
        {"a hard link to another file", [&] { link(victim.c_str(), log.c_str()); }, "other names"},
        {"a FIFO nobody reads", [&] { mkfifo(log.c_str(), 0666); }, "FIFO"},
        {"a FIFO with a reader",
         [&] {
             mkfifo(log.c_str(), 0666);
             held.emplace_back(::open(log.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
         },
         "is a FIFO"},
        {"a file another process keeps",
         [&] {
             std::ofstream(log) << "precious";
             held.emplace_back(::open(log.c_str(), O_RDONLY | O_CLOEXEC));
             flock(held.back().get(), LOCK_EX);
         },
         "kept by another process"},
        {"a folder others may write", [&] { chmod(folder.c_str(), 0777); }, "writable by other"},
        {"a file of another user",
         [&] { std::ofstream(log) << "precious", chown(log.c_str(), 65534, 65534); },
         "belongs to uid 65534", true},
        {"a folder of another user", [&] { chown(folder.c_str(), 65534, 65534); },
         "neither this user nor root", true},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.name);
        if (c.needsRoot && geteuid() != 0) {
            std::printf("skipped \"%s\": needs root\n", c.name);
            continue;
        }
        std::filesystem::remove_all(folder);
        std::filesystem::create_directory(folder);
        std::ofstream(victim) << "precious";
        c.place();
        ScopedWriter writer(log);
        writer->writeMessage(record("a"));
        writer->open("");
        EXPECT_THAT(writer->openFailure().why, ::testing::HasSubstr(c.why));
        EXPECT_TRUE(writer->fileStreamFailedForTesting());
        // The log is read only as a regular file: reading a FIFO would wait for
        // a writer.
        EXPECT_EQ(readFile(victim), "precious");
        if (std::filesystem::is_regular_file(std::filesystem::symlink_status(log))) {
            EXPECT_EQ(readFile(log), "precious");
        }
        writer->writeMessage(record("b"));
        writer->open(dir_.file("next"));
        EXPECT_EQ(readFile(dir_.file("next")), line("b"));
    }
}

// A write that the file system cannot take fails the stream: the records
// after it are dropped, also once there is room again, until the next open.
// On a 64 KiB tmpfs, in a child of its own.
TEST_F(FlatFileLogWriterTest, AFailedWriteDropsRecordsUntilTheNextOpen) {
    if (childArgument() == nullptr) {
        EXPECT_EQ(runTestAgainOnTmpfs(dir_.path(), "64k"), 0);
        return;
    }
    const std::string folder = childArgument();
    ScopedWriter writer(folder + "/first");
    writer->open("");
    writer->writeMessage(record("a"));
    std::ofstream(folder + "/filler") << std::string(64 * 1024, 'x');
    // Longer than the room left in the page the file has already: this write
    // fails, so "c" must not follow it.
    writer->writeMessage(record(std::string(5000, 'b')));
    std::filesystem::remove(folder + "/filler");
    writer->writeMessage(record("c"));
    writer->close();
    writer->writeMessage(record("d"));
    writer->open(folder + "/next");
    EXPECT_THAT(readFile(folder + "/first"),
                ::testing::AllOf(::testing::StartsWith(line("a")),
                                 ::testing::Not(::testing::HasSubstr(line("c")))));
    EXPECT_EQ(readFile(folder + "/next"), line("d"));
}

}  // namespace
}  // namespace kel::testing
