#include "platform/logserver/log.h"

#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/log_recording.h"

namespace kel::testing {
namespace {

using namespace std::chrono_literals;
using lum::LogLevel;
using Group = dispatch::Owned<dispatch_group_t>;

// Keeps the flush session it is offered until the test drops it.
struct SessionKeepingWriter : RecordingWriter {
    void flush(dispatch::group_session offered) override {
        session = std::move(offered);
        sessionOffered.set_value();
    }
    std::promise<void> sessionOffered;
    dispatch::group_session session;
};

// Many submitting threads; the writer sees every record once, in acceptance
// order (each thread's in its own order), with wall-clock time stamps, from the
// server's thread, which blocks SIGTERM. The flush completes only once the
// writer got every earlier record and ended its session.
TEST(LogServerTest, AWriterGetsEveryRecordOnceInOrderBeforeTheFlush) {
    constexpr int kThreads = 4, kPerThread = 500;
    auto server = lum::LogServer::create("order");
    auto writer = std::make_shared<SessionKeepingWriter>();
    server->addWriter(writer);
    const int64_t before = std::chrono::system_clock::now().time_since_epoch() / 1ns;
    server->start();
    std::vector<std::jthread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kPerThread; ++i) {
                server->submit(LogLevel::kInfo, std::to_string(t), std::to_string(i));
            }
        });
    }
    threads.clear();
    const Group flushed = Group::adopt(server->flush());
    writer->sessionOffered.get_future().wait();
    const std::vector<lum::LogMessage> seen = writer->messages();
    EXPECT_NE(dispatch_group_wait(flushed.get(), DISPATCH_TIME_NOW), 0);
    writer->session = {};
    EXPECT_EQ(dispatch_group_wait(flushed.get(), DISPATCH_TIME_FOREVER), 0);
    const int64_t after = std::chrono::system_clock::now().time_since_epoch() / 1ns;

    ASSERT_EQ(seen.size(), size_t{kThreads * kPerThread});
    std::vector<int> next(kThreads, 0);
    for (size_t i = 0; i < seen.size(); ++i) {
        EXPECT_EQ(seen[i].secondText, std::to_string(next[std::stoi(seen[i].firstText)]++));
        EXPECT_EQ(seen[i].sequence, seen[0].sequence + i);
        EXPECT_TRUE(seen[i].timestampNs >= before && seen[i].timestampNs <= after);
    }
    EXPECT_EQ(writer->sigtermBlockedDeliveries, kThreads * kPerThread);
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
    const Group pendingFlush = Group::adopt(server->flush());
    server->close();
    EXPECT_EQ(dispatch_group_wait(pendingFlush.get(), DISPATCH_TIME_FOREVER), 0);
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
