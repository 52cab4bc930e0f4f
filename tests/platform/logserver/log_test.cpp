#include "platform/logserver/log.h"

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/log_recording.h"

namespace kel::testing {
namespace {

using namespace std::chrono_literals;
using lum::LogLevel;

// Many submitting threads; the writer sees every record once, in acceptance
// order (each thread's in its own order), with wall-clock time stamps, from the
// server's thread, which blocks SIGTERM; all of them by the time a flush asked
// for afterwards completes.
TEST(LogServerTest, AWriterGetsEveryRecordOnceInOrderBeforeTheFlush) {
    constexpr int kThreads = 4, kPerThread = 500;
    const int64_t before = std::chrono::system_clock::now().time_since_epoch() / 1ns;
    RecordedLogServer recorded;
    std::vector<std::jthread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kPerThread; ++i) {
                recorded.server->submit(LogLevel::kInfo, std::to_string(t), std::to_string(i));
            }
        });
    }
    threads.clear();
    recorded.flush();
    const int64_t after = std::chrono::system_clock::now().time_since_epoch() / 1ns;

    const std::vector<lum::LogMessage> seen = recorded.writer->messages();
    ASSERT_EQ(seen.size(), size_t{kThreads * kPerThread});
    std::vector<int> next(kThreads, 0);
    for (size_t i = 0; i < seen.size(); ++i) {
        EXPECT_EQ(seen[i].secondText, std::to_string(next[std::stoi(seen[i].firstText)]++));
        EXPECT_EQ(seen[i].sequence, seen[0].sequence + i);
        EXPECT_TRUE(seen[i].timestampNs >= before && seen[i].timestampNs <= after);
    }
    EXPECT_EQ(recorded.writer->sigtermBlockedDeliveries, kThreads * kPerThread);
}

// A writer added later sees only the records after it. Close hands over what
// was accepted, then drops the writers and every later record.
TEST(LogServerTest, CloseDeliversPendingThenDropsWriters) {
    auto server = lum::LogServer::create("close");
    const std::shared_ptr<RecordingWriter> writers[] = {std::make_shared<RecordingWriter>(),
                                                        std::make_shared<RecordingWriter>()};
    server->addWriter(writers[0]);
    server->start();
    server->submit(LogLevel::kNotice, "t", "0");
    server->addWriter(writers[1]);
    server->submit(LogLevel::kNotice, "t", "1");
    server->close();
    server->submit(LogLevel::kError, "t", "after close");
    EXPECT_EQ(server->flush(), nullptr);
    server->close();
    for (size_t i = 0; i < 2; ++i) {
        const auto seen = writers[i]->messages();
        ASSERT_EQ(seen.size(), 2 - i);
        EXPECT_EQ(seen.back().secondText, "1");
        EXPECT_EQ(writers[i]->closes, 1);
        EXPECT_EQ(writers[i].use_count(), 1);
    }
}

}  // namespace
}  // namespace kel::testing
