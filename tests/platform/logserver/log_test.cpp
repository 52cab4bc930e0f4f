#include "platform/logserver/log.h"

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace lum {
namespace {

using namespace std::chrono_literals;

struct Seen {
    uint64_t sequence;
    std::string text;  // "first/second"
    int64_t timestampNs;
    std::thread::id thread;
    bool sigtermBlocked;
};

// Records what reaches it and counts closes.
class RecordingWriter : public LogWriter {
  public:
    void writeMessage(const LogMessage& m) override {
        sigset_t mask;
        pthread_sigmask(SIG_SETMASK, nullptr, &mask);
        std::lock_guard lock(mutex_);
        seen_.push_back({m.sequence, m.firstText + "/" + m.secondText, m.timestampNs,
                         std::this_thread::get_id(), sigismember(&mask, SIGTERM) == 1});
    }
    void close() override { ++closes; }
    std::vector<Seen> seen() {
        std::lock_guard lock(mutex_);
        return seen_;
    }
    std::atomic<int> closes{0};

  private:
    std::mutex mutex_;
    std::vector<Seen> seen_;
};

// Holds the delivery thread in writeMessage until `open` is set, and keeps
// the flush session it is offered.
struct GatedWriter : RecordingWriter {
    void writeMessage(const LogMessage& m) override {
        gate.wait();
        RecordingWriter::writeMessage(m);
    }
    void flush(dispatch::group_session offered) override {
        session = std::move(offered);
        sessionOffered.set_value();
    }
    std::promise<void> open, sessionOffered;
    std::shared_future<void> gate = open.get_future().share();
    dispatch::group_session session;  // the test's once sessionOffered is set
};

void waitAndRelease(dispatch_group_t group) {
    ASSERT_NE(group, nullptr);
    EXPECT_EQ(dispatch_group_wait(group, DISPATCH_TIME_FOREVER), 0);
    dispatch_release(group);
}

TEST(LoggerTest, LevelsFilterAndFormatting) {
    const std::pair<int, const char*> names[] = {
        {20, "Debug"},  {40, "Info"}, {50, "Notice"}, {60, "Warning"}, {80, "Error"},
        {100, "Fault"}, {0, "0"},     {45, "45"},     {255, "255"},
    };
    for (const auto& [level, name] : names) {
        char scratch[4];
        EXPECT_EQ(levelName(static_cast<LogLevel>(level), scratch), name);
    }

    LoggerCommonBase logger("filter", nullptr);
    EXPECT_TRUE(logger.shouldLog(LogLevel::kDebug));
    setMinimumLevel(LogLevel::kWarning);
    EXPECT_FALSE(logger.shouldLog(static_cast<LogLevel>(59)));
    EXPECT_TRUE(logger.shouldLog(LogLevel::kWarning));
    setMinimumLevel(LogLevel::kDebug);

    // A logger made from a context is named by its category; one without a
    // server drops records.
    EXPECT_EQ(StaticLogger(OsLogContext("org.kel.other", "Sim"), nullptr).name(), "Sim");
    StaticLogger().forceLog(LogLevel::kError, LogMessageBuffer::createWithFormat("dropped"));
    EXPECT_EQ(LogMessageBuffer::createWithFormat("%s=%d", "x", 42).text(), "x=42");
    const std::string longText(5000, 'y');  // past the stack buffer
    EXPECT_EQ(LogMessageBuffer::createWithFormat("<%s>", longText.c_str()).text(),
              "<" + longText + ">");
}

// Many submitting threads; both writers see the same records in acceptance
// order, each thread's in its own order, all from one thread that is not the
// caller's and has signals blocked, with wall-clock time stamps. The flush
// completes only once the gated writer got every earlier record and ended its
// session.
TEST(LogServerTest, EveryWriterGetsEveryRecordOnceInOrderBeforeTheFlush) {
    constexpr int kThreads = 4, kPerThread = 500;
    auto server = LogServer::create("order");
    auto plain = std::make_shared<RecordingWriter>();
    auto gated = std::make_shared<GatedWriter>();
    server->addWriter(plain);
    server->addWriter(gated);
    const int64_t before = std::chrono::system_clock::now().time_since_epoch() / 1ns;
    server->start();
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
    dispatch_group_t group = server->flush();
    EXPECT_NE(dispatch_group_wait(group, DISPATCH_TIME_NOW), 0);
    gated->open.set_value();
    gated->sessionOffered.get_future().wait();
    EXPECT_EQ(gated->seen().size(), size_t{kThreads * kPerThread});
    EXPECT_NE(dispatch_group_wait(group, DISPATCH_TIME_NOW), 0);
    gated->session = {};
    waitAndRelease(group);
    const int64_t after = std::chrono::system_clock::now().time_since_epoch() / 1ns;

    const std::thread::id deliverer = plain->seen().at(0).thread;
    EXPECT_NE(deliverer, std::this_thread::get_id());
    for (RecordingWriter* writer : {plain.get(), static_cast<RecordingWriter*>(gated.get())}) {
        const auto seen = writer->seen();
        ASSERT_EQ(seen.size(), size_t{kThreads * kPerThread});
        std::vector<int> next(kThreads, 0);
        for (size_t i = 0; i < seen.size(); ++i) {
            const int t = seen[i].text[0] - '0';
            EXPECT_EQ(seen[i].text, std::to_string(t) + "/" + std::to_string(next[t]++));
            EXPECT_EQ(seen[i].sequence, seen[0].sequence + i);
            EXPECT_EQ(seen[i].thread, deliverer);
            EXPECT_TRUE(seen[i].sigtermBlocked);
            EXPECT_TRUE(seen[i].timestampNs >= before && seen[i].timestampNs <= after);
        }
    }
}

// A writer added later sees only the records after it, also before start.
// Never started: close still hands over what was accepted, off the caller's thread.
TEST(LogServerTest, CloseDeliversPendingThenDropsWriters) {
    for (bool started : {false, true}) {
        auto server = LogServer::create("close");
        const std::shared_ptr<RecordingWriter> writers[] = {std::make_shared<RecordingWriter>(),
                                                            std::make_shared<RecordingWriter>()};
        server->addWriter(writers[0]);
        if (started) {
            server->start();
        }
        server->submit(LogLevel::kNotice, "t", "0");
        server->addWriter(writers[1]);
        server->submit(LogLevel::kNotice, "t", "1");
        dispatch_group_t pendingFlush = server->flush();
        server->close();
        waitAndRelease(pendingFlush);
        server->submit(LogLevel::kError, "t", "after close");
        EXPECT_EQ(server->flush(), nullptr);
        server->close();
        for (size_t i = 0; i < 2; ++i) {
            const auto seen = writers[i]->seen();
            ASSERT_EQ(seen.size(), 2 - i);
            EXPECT_EQ(seen.back().text, "t/1");
            EXPECT_NE(seen[0].thread, std::this_thread::get_id());
            EXPECT_EQ(writers[i]->closes, 1);
            EXPECT_EQ(writers[i].use_count(), 1);
        }
    }
}

}  // namespace
}  // namespace lum
