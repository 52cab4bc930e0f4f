#include "logging/flat_file_log_writer.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/strings/format.h"
#include "tests/logging/scoped_writer.h"
#include "tests/support/temp_dir.h"
#include "tests/support/test_child.h"

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

// The text of `path` when it is a regular file (not through a link), else
// nothing: reading a FIFO would wait for a writer.
std::string regularFileText(const std::string& path) {
    return std::filesystem::is_regular_file(std::filesystem::symlink_status(path)) ? readFile(path)
                                                                                   : "";
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

// A missing folder or a device fails the open and loses the pending text; a
// second open while a file is open fails, creates no file and keeps the open
// one, which gets no more records. Nothing throws, the writer stays failed
// through close, and the records collected after close reach the next file.
TEST_F(FlatFileLogWriterTest, FailuresFailTheStreamUntilTheNextOpen) {
    const struct {
        std::string path;
        bool openTwice;
        std::string reachesNextFile;
    } kCases[] = {{dir_.file("missing/log"), false, line("b") + line("c")},
                  {"/dev/full", false, line("b") + line("c")},
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

// What another user, or another process, could have put in the log's place:
// the writer opens none of it, changes nothing there, says why, and keeps the
// records pending. Cases that make a file another user's need root.
TEST_F(FlatFileLogWriterTest, RefusesWhatOthersCouldHavePutInItsPlace) {
    constexpr uid_t kOtherUser = 65534;
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
             std::ofstream(log) << "kept";
             held.emplace_back(::open(log.c_str(), O_RDONLY | O_CLOEXEC));
             flock(held.back().get(), LOCK_EX);
         },
         "kept by another process"},
        {"a folder others may write", [&] { chmod(folder.c_str(), 0777); }, "writable by other"},
        {"a file of another user",
         [&] { std::ofstream(log) << "theirs", chown(log.c_str(), kOtherUser, kOtherUser); },
         "belongs to uid 65534", true},
        {"a folder of another user", [&] { chown(folder.c_str(), kOtherUser, kOtherUser); },
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
        held.clear();
        c.place();
        const auto unchanged = [&, before = regularFileText(log)] {
            return regularFileText(log) == before;
        };
        ScopedWriter writer(log);
        writer->writeMessage(record("a"));
        writer->open("");
        EXPECT_THAT(writer->openFailure().why, ::testing::HasSubstr(c.why));
        writer->writeMessage(record("b"));
        EXPECT_TRUE(writer->fileStreamFailedForTesting());
        EXPECT_EQ(readFile(victim), "precious");
        EXPECT_TRUE(unchanged());
    }
}

// A full tmpfs, then the same one read-only, in a child of its own.
TEST_F(FlatFileLogWriterTest, FullAndReadOnlyFileSystemsFailTheStream) {
    const char* const mounted = kel::testing::childArgument();
    if (mounted == nullptr) {
        EXPECT_EQ(kel::testing::runTestAgainOnTmpfs(dir_.file(""), "64k"), 0);
        return;
    }
    ScopedWriter writer(mounted + std::string("log"));
    writer->open("");
    int index = 0;
    for (; index < 100 && !writer->fileStreamFailedForTesting(); ++index) {
        writer->writeMessage(record(std::string(1000, 'x')));
    }
    EXPECT_GE(index, 2) << "the 64 KiB tmpfs took no record";
    EXPECT_TRUE(writer->fileStreamFailedForTesting()) << "the 64 KiB tmpfs took 100 KB";
    writer->close();
    ASSERT_EQ(mount(nullptr, mounted, nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    writer->writeMessage(record("lost"));
    writer->open("");
    EXPECT_TRUE(writer->fileStreamFailedForTesting());
    writer->writeMessage(record("kept"));
    writer->open(dir_.file("log"));
    writer->close();
    EXPECT_FALSE(writer->fileStreamFailedForTesting());
    EXPECT_EQ(readFile(dir_.file("log")), line("kept"));
}

// A child kills itself with SIGKILL right after a random number of records
// were written (a child of its own: a fork would leave the writer's threads
// behind): each of them is in the file, whole and in order.
TEST_F(FlatFileLogWriterTest, RecordsSurviveSigkill) {
    if (const char* const file = kel::testing::childArgument()) {
        ScopedWriter writer(file);
        writer->open("");
        for (int index = 0; index < std::atoi(getenv("KEL_TEST_RECORDS")); ++index) {
            writer->writeMessage(
                record(int64_t{index} * 1000000, LogLevel::kInfo, "test", std::to_string(index)));
        }
        kill(getpid(), SIGKILL);
    }
    const uint32_t count = std::random_device{}() % 3000 + 1;
    SCOPED_TRACE(testing::Message() << count << " records");
    const int status = kel::testing::runTestAgain(dir_.file("log"),
                                                  "env KEL_TEST_RECORDS=" + std::to_string(count));
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
    std::string expected;
    for (uint32_t index = 0; index < count; ++index) {
        expected += platform::stringPrintf("%.3f:Info:test:%u\n", index * 0.001, index);
    }
    EXPECT_EQ(readFile(dir_.file("log")), expected);
}

}  // namespace
