#include <cstdio>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "logging/flat_file_log_writer.h"
#include "tests/logging/scoped_writer.h"
#include "tests/logging/temp_dir.h"

namespace {

// Many threads writing at once, half of them before the file is opened: every
// record appears exactly once, whole, and each thread's records in order.
TEST(FlatFileLogWriterThreadsTest, ConcurrentRecordsAreWholeAndInOrder) {
    constexpr int kThreads = 8;
    constexpr int kRecords = 2000;
    TempDir dir;
    ASSERT_FALSE(dir.path().empty());
    ScopedWriter writer(dir.file("log"));

    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&, thread] {
            lum::LogMessage message;
            message.level = lum::LogLevel::kWarning;
            message.firstText = "thread" + std::to_string(thread);
            for (int index = 0; index < kRecords; ++index) {
                message.timestampNs = index;
                message.secondText = std::to_string(index) + std::string(index % 700, 'x');
                writer->writeMessage(message);
            }
        });
    }
    writer->open("");
    for (std::thread& thread : threads) {
        thread.join();
    }
    writer->close();
    ASSERT_FALSE(writer->fileStreamFailed());

    std::vector<int> next(kThreads, 0);
    std::istringstream lines(readFile(dir.file("log")));
    std::string line;
    while (std::getline(lines, line)) {
        int thread = -1;
        int index = -1;
        int length = 0;
        ASSERT_EQ(
            std::sscanf(line.c_str(), "%*[-0-9.]:Warning:thread%d:%d%n", &thread, &index, &length),
            2)
            << line;
        ASSERT_TRUE(thread >= 0 && thread < kThreads) << line;
        ASSERT_EQ(index, next[thread]++) << line;
        EXPECT_EQ(line.substr(length), std::string(index % 700, 'x'));
    }
    EXPECT_EQ(next, std::vector<int>(kThreads, kRecords));
}

}  // namespace
