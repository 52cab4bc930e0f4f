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
// for afterwards completes. A writer added later sees only the records after
// it. Close hands over what was accepted, then closes and drops the writers,
// and every later record; the recorder's own close at the end changes nothing.
TEST(LogServerTest, WritersGetEveryRecordOnceInOrderUntilClose) {
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

    auto later = std::make_shared<RecordingWriter>();
    recorded.server->addWriter(later);
    recorded.server->submit(LogLevel::kNotice, "t", "last");
    recorded.server->close();
    recorded.server->submit(LogLevel::kError, "t", "after close");
    EXPECT_EQ(recorded.server->flush(), nullptr);
    ASSERT_EQ(later->messages().size(), 1u);
    for (const auto* writer : {&recorded.writer, &later}) {
        EXPECT_EQ((*writer)->messages().back().secondText, "last");
        EXPECT_EQ((*writer)->closes, 1);
        EXPECT_EQ(writer->use_count(), 1);
    }
}

}  // namespace
}  // namespace kel::testing
