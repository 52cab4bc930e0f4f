#include "platform/logging/log.h"

#include <pthread.h>
#include <signal.h>
#include <time.h>

#include <condition_variable>
#include <mutex>
#include <sstream>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace lum {
namespace {

struct Seen {
    uint64_t sequence;
    std::string first;
    std::string second;
    int64_t timestampNs;
    std::thread::id thread;
    bool signalsBlocked;  // SIGTERM blocked in the delivering thread
};

bool sigtermBlocked() {
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    return sigismember(&mask, SIGTERM) == 1;
}

// Records what reaches it. waitFor() blocks until `count` records arrived.
class RecordingWriter : public LogWriter {
  public:
    void writeMessage(const LogMessage& message) override {
        std::lock_guard lock(mutex_);
        seen_.push_back({message.sequence, message.firstText, message.secondText,
                         message.timestampNs, std::this_thread::get_id(), sigtermBlocked()});
        changed_.notify_all();
    }
    void close() override {
        std::lock_guard lock(mutex_);
        ++closes_;
    }

    std::vector<Seen> waitFor(size_t count) {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return seen_.size() >= count; });
        return seen_;
    }
    std::vector<Seen> seen() {
        std::lock_guard lock(mutex_);
        return seen_;
    }
    int closes() {
        std::lock_guard lock(mutex_);
        return closes_;
    }

  protected:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Seen> seen_;
    int closes_ = 0;
};

// Blocks the delivery thread inside writeMessage until release(), and keeps
// each flush session until endSessions().
class GateWriter : public RecordingWriter {
  public:
    void writeMessage(const LogMessage& message) override {
        {
            std::unique_lock lock(mutex_);
            changed_.wait(lock, [&] { return released_; });
        }
        RecordingWriter::writeMessage(message);
    }
    void flush(dispatch::group_session session) override {
        std::lock_guard lock(mutex_);
        sessions_.push_back(std::move(session));
        changed_.notify_all();
    }

    void waitForSessions(size_t count) {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return sessions_.size() >= count; });
    }

    void release() {
        std::lock_guard lock(mutex_);
        released_ = true;
        changed_.notify_all();
    }
    void endSessions() {
        std::lock_guard lock(mutex_);
        sessions_.clear();
    }

  private:
    bool released_ = false;
    std::vector<dispatch::group_session> sessions_;
};

int64_t nowNs() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

bool completed(dispatch_group_t group) {
    return dispatch_group_wait(group, DISPATCH_TIME_NOW) == 0;
}

void waitAndRelease(dispatch_group_t group) {
    ASSERT_NE(group, nullptr);
    EXPECT_EQ(dispatch_group_wait(group, DISPATCH_TIME_FOREVER), 0);
    dispatch_release(group);
}

TEST(LogLevelTest, NamesAndNumbers) {
    const struct {
        LogLevel level;
        const char* text;
    } cases[] = {
        {LogLevel::kDebug, "Debug"},       {LogLevel::kInfo, "Info"},
        {LogLevel::kNotice, "Notice"},     {LogLevel::kWarning, "Warning"},
        {LogLevel::kError, "Error"},       {LogLevel::kFault, "Fault"},
        {static_cast<LogLevel>(0), "0"},   {static_cast<LogLevel>(7), "7"},
        {static_cast<LogLevel>(45), "45"}, {static_cast<LogLevel>(255), "255"},
    };
    for (const auto& c : cases) {
        char scratch[4];
        EXPECT_EQ(levelName(c.level, scratch), c.text);
        std::ostringstream stream;
        stream << c.level;
        EXPECT_EQ(stream.str(), c.text);
    }
}

TEST(LoggerTest, MinimumLevelFilters) {
    LoggerCommonBase logger("filter", nullptr);
    EXPECT_TRUE(logger.shouldLog(LogLevel::kDebug));
    setMinimumLevel(LogLevel::kWarning);
    EXPECT_FALSE(logger.shouldLog(LogLevel::kInfo));
    EXPECT_FALSE(logger.shouldLog(static_cast<LogLevel>(59)));
    EXPECT_TRUE(logger.shouldLog(LogLevel::kWarning));
    EXPECT_TRUE(logger.shouldLog(LogLevel::kFault));
    setMinimumLevel(LogLevel::kDebug);
    EXPECT_EQ(minimumLevel(), LogLevel::kDebug);
}

TEST(LoggerTest, MessageBufferFormatsShortAndLong) {
    EXPECT_EQ(LogMessageBuffer::createWithFormat("%s=%d", "x", 42).text(), "x=42");
    const std::string longText(5000, 'y');
    EXPECT_EQ(LogMessageBuffer::createWithFormat("<%s>", longText.c_str()).text(),
              "<" + longText + ">");
}

TEST(LoggerTest, StaticLoggersNameRecordsAndHandles) {
    auto server = LogServer::create("names");
    ASSERT_NE(server, nullptr);
    auto writer = std::make_shared<RecordingWriter>();
    server->addWriter(writer);
    server->start();

    StaticLogger byName("Radio", server);
    EXPECT_EQ(byName.handle(), systemlog::create(kTelephonySubsystem, "Radio"));
    StaticLogger byContext(OsLogContext("org.kel.other", "Sim"), server);
    EXPECT_EQ(byContext.name(), "Sim");
    EXPECT_EQ(byContext.handle(), systemlog::create("org.kel.other", "Sim"));

    byName.forceLog(LogLevel::kInfo, LogMessageBuffer::createWithFormat("one"));
    byContext.forceLog(LogLevel::kError, LogMessageBuffer::createWithFormat("two"));
    StaticLogger().forceLog(LogLevel::kError, LogMessageBuffer::createWithFormat("dropped"));
    auto seen = writer->waitFor(2);
    EXPECT_EQ(seen[0].first, "Radio");
    EXPECT_EQ(seen[0].second, "one");
    EXPECT_EQ(seen[1].first, "Sim");
    EXPECT_EQ(seen[1].second, "two");
}

TEST(LogServerTest, EveryWriterGetsEveryRecordOnceInOrderOffTheCallersThread) {
    auto server = LogServer::create("order");
    ASSERT_NE(server, nullptr);
    EXPECT_EQ(server->name(), "order");
    std::vector<std::shared_ptr<RecordingWriter>> writers = {std::make_shared<RecordingWriter>(),
                                                             std::make_shared<RecordingWriter>()};
    for (const auto& writer : writers) {
        server->addWriter(writer);
    }
    constexpr int kThreads = 4;
    constexpr int kPerThread = 500;
    const int64_t before = nowNs();
    server->start();
    server->start();
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kPerThread; ++i) {
                server->submit(LogLevel::kInfo, std::to_string(t), std::to_string(i));
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    waitAndRelease(server->flush());
    const int64_t after = nowNs();

    for (const auto& writer : writers) {
        const auto seen = writer->seen();
        ASSERT_EQ(seen.size(), size_t{kThreads * kPerThread});
        std::vector<int> nextPerThread(kThreads, 0);
        for (size_t i = 0; i < seen.size(); ++i) {
            EXPECT_EQ(seen[i].sequence, seen[0].sequence + i);
            EXPECT_EQ(seen[i].second, std::to_string(nextPerThread[std::stoi(seen[i].first)]++));
            EXPECT_EQ(seen[i].thread, seen[0].thread);
            EXPECT_TRUE(seen[i].signalsBlocked);
            EXPECT_GE(seen[i].timestampNs, before);
            EXPECT_LE(seen[i].timestampNs, after);
        }
        EXPECT_NE(seen[0].thread, std::this_thread::get_id());
        for (const auto& writer2 : writers) {
            EXPECT_EQ(writer2->seen()[0].thread, seen[0].thread);
        }
    }
}

TEST(LogServerTest, WriterAddedLaterSeesOnlyLaterRecords) {
    auto server = LogServer::create("late");
    auto early = std::make_shared<RecordingWriter>();
    auto late = std::make_shared<RecordingWriter>();
    server->addWriter(early);
    server->submit(LogLevel::kInfo, "t", "before");
    server->addWriter(late);
    server->submit(LogLevel::kInfo, "t", "after");
    server->start();
    waitAndRelease(server->flush());
    EXPECT_EQ(early->seen().size(), 2u);
    ASSERT_EQ(late->seen().size(), 1u);
    EXPECT_EQ(late->seen()[0].second, "after");
}

TEST(LogServerTest, FlushWaitsForEarlierRecordsAndWriterSessions) {
    auto server = LogServer::create("flush");
    auto gate = std::make_shared<GateWriter>();
    server->addWriter(gate);
    server->start();
    server->submit(LogLevel::kInfo, "t", "blocked");
    dispatch_group_t group = server->flush();
    ASSERT_NE(group, nullptr);
    EXPECT_FALSE(completed(group));
    gate->release();
    gate->waitFor(1);
    gate->waitForSessions(1);
    EXPECT_FALSE(completed(group));
    gate->endSessions();
    waitAndRelease(group);
}

TEST(LogServerTest, FlushBeforeStartCompletesOnceStarted) {
    auto server = LogServer::create("early");
    auto writer = std::make_shared<RecordingWriter>();
    server->addWriter(writer);
    server->submit(LogLevel::kInfo, "t", "queued");
    dispatch_group_t group = server->flush();
    ASSERT_NE(group, nullptr);
    EXPECT_FALSE(completed(group));
    server->start();
    waitAndRelease(group);
    EXPECT_EQ(writer->seen().size(), 1u);
}

TEST(LogServerTest, CloseDeliversPendingThenDropsWriters) {
    // Never started: close still hands over what was accepted, from a thread
    // that is not the caller's.
    for (bool started : {false, true}) {
        auto server = LogServer::create("close");
        auto writer = std::make_shared<RecordingWriter>();
        server->addWriter(writer);
        if (started) {
            server->start();
        }
        for (int i = 0; i < 3; ++i) {
            server->submit(LogLevel::kNotice, "t", std::to_string(i));
        }
        dispatch_group_t pendingFlush = server->flush();
        server->close();
        waitAndRelease(pendingFlush);
        const auto seen = writer->seen();
        ASSERT_EQ(seen.size(), 3u);
        EXPECT_NE(seen[0].thread, std::this_thread::get_id());
        EXPECT_EQ(writer->closes(), 1);
        EXPECT_EQ(writer.use_count(), 1);

        server->submit(LogLevel::kError, "t", "after close");
        EXPECT_EQ(server->flush(), nullptr);
        server->close();
        EXPECT_EQ(writer->seen().size(), 3u);
        EXPECT_EQ(writer->closes(), 1);
    }
}

TEST(LogServerTest, DestructionCloses) {
    auto writer = std::make_shared<RecordingWriter>();
    {
        auto server = LogServer::create("destroy");
        server->addWriter(writer);
        server->start();
        server->submit(LogLevel::kInfo, "t", "last");
    }
    EXPECT_EQ(writer->seen().size(), 1u);
    EXPECT_EQ(writer->closes(), 1);
    EXPECT_EQ(writer.use_count(), 1);
}

}  // namespace
}  // namespace lum
