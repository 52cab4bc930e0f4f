#include "platform/dispatch/dispatch.h"
#include "platform/threads/signal_mask.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <fstream>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

// A one-shot flag that threads can wait on.
class Latch {
  public:
    void open() {
        std::lock_guard lock(mutex_);
        open_ = true;
        changed_.notify_all();
    }
    void wait() {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return open_; });
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool open_ = false;
};

struct QueueDeleter {
    void operator()(dispatch_queue_s* queue) const { dispatch_release(queue); }
};
using QueuePtr = std::unique_ptr<dispatch_queue_s, QueueDeleter>;

QueuePtr makeQueue(dispatch_queue_t target = nullptr) {
    return QueuePtr(dispatch_queue_create_with_target("test", DISPATCH_QUEUE_SERIAL, target));
}

// Runs on `queue` and waits until everything queued before has run.
void flush(dispatch_queue_t queue) {
    dispatch_async_and_wait(queue, [] {});
}

TEST(SerialQueueTest, KeepsEachThreadsOrderUnderMixedSyncAndAsync) {
    // Each thread submits a sequence alternating sync, async and barrier work;
    // the queue must run each thread's items in submission order and run them
    // one at a time.
    constexpr int kThreads = 4;
    constexpr int kPerThread = 2000;
    auto queue = makeQueue();
    std::vector<std::vector<int>> seen(kThreads);
    std::atomic<int> inside{0};
    std::atomic<bool> overlapped{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kPerThread; ++i) {
                auto record = [&, t, i] {
                    if (inside.fetch_add(1) != 0) {
                        overlapped = true;
                    }
                    seen[t].push_back(i);
                    inside.fetch_sub(1);
                };
                switch (i % 3) {
                    case 0:
                        dispatch_sync(queue.get(), record);
                        break;
                    case 1:
                        dispatch_async(queue.get(), record);
                        break;
                    default: {
                        auto* heapRecord = new std::function<void()>(record);
                        dispatch_barrier_async_f(queue.get(), heapRecord, [](void* context) {
                            auto* work = static_cast<std::function<void()>*>(context);
                            (*work)();
                            delete work;
                        });
                    }
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    flush(queue.get());
    EXPECT_FALSE(overlapped);
    for (int t = 0; t < kThreads; ++t) {
        ASSERT_EQ(seen[t].size(), static_cast<size_t>(kPerThread));
        for (int i = 0; i < kPerThread; ++i) {
            ASSERT_EQ(seen[t][i], i) << "thread " << t;
        }
    }
}

TEST(SerialQueueTest, SyncWaitsForQueuedAsyncWorkAndRunsOnCaller) {
    auto queue = makeQueue();
    Latch gate;
    std::vector<std::string> order;
    dispatch_async(queue.get(), [&] { gate.wait(); });
    dispatch_async(queue.get(), [&] { order.push_back("async"); });
    std::thread::id ranOn;
    std::thread caller([&] {
        dispatch_sync(queue.get(), [&] {
            order.push_back("sync");
            ranOn = std::this_thread::get_id();
        });
        EXPECT_EQ(ranOn, std::this_thread::get_id());
    });
    gate.open();
    caller.join();
    EXPECT_EQ(order, (std::vector<std::string>{"async", "sync"}));
}

TEST(SerialQueueTest, ConcurrentSyncCallersAreMutuallyExclusive) {
    constexpr int kThreads = 8;
    constexpr int kPerThread = 20000;
    auto queue = makeQueue();
    long counter = 0;  // deliberately not atomic: the queue must serialise
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kPerThread; ++i) {
                if (t == 0 && i % 100 == 0) {
                    dispatch_async(queue.get(), [&] { ++counter; });
                } else {
                    dispatch_sync(queue.get(), [&] { ++counter; });
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    long total = 0;
    dispatch_sync(queue.get(), [&] { total = counter; });
    EXPECT_EQ(total, long{kThreads} * kPerThread);
}

TEST(SerialQueueTest, AsyncAndWaitRunsOnAQueueThreadAfterEarlierWork) {
    for (dispatch_queue_t queue : {makeQueue().release(), dispatch_get_global_queue(0, 0)}) {
        bool earlierRan = false;
        dispatch_async(queue, [&] { earlierRan = true; });
        std::thread::id ranOn;
        bool sawEarlier = false;
        dispatch_async_and_wait(queue, [&] {
            ranOn = std::this_thread::get_id();
            sawEarlier = earlierRan;
        });
        EXPECT_NE(ranOn, std::this_thread::get_id());
        if (queue != dispatch_get_global_queue(0, 0)) {
            EXPECT_TRUE(sawEarlier);
        }
        dispatch_release(queue);
    }
}

TEST(SerialQueueTest, QueuesSharingASerialTargetNeverOverlapWithIt) {
    auto target = makeQueue();
    auto first = makeQueue(target.get());
    auto second = makeQueue(target.get());
    std::atomic<int> inside{0};
    std::atomic<bool> overlapped{false};
    std::atomic<int> ran{0};
    auto work = [&] {
        if (inside.fetch_add(1) != 0) {
            overlapped = true;
        }
        ++ran;
        inside.fetch_sub(1);
    };
    std::vector<std::thread> threads;
    for (dispatch_queue_t queue : {target.get(), first.get(), second.get()}) {
        threads.emplace_back([&, queue] {
            for (int i = 0; i < 500; ++i) {
                if (i % 2) {
                    dispatch_async(queue, work);
                } else {
                    dispatch_sync(queue, work);
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    flush(first.get());
    flush(second.get());
    flush(target.get());
    EXPECT_FALSE(overlapped);
    EXPECT_EQ(ran, 1500);
}

TEST(SerialQueueTest, PendingWorkKeepsAReleasedQueueAlive) {
    Latch gate;
    Latch ran;
    auto queue = makeQueue();
    dispatch_async(queue.get(), [&] { gate.wait(); });
    dispatch_async(queue.get(), [&] { ran.open(); });
    queue.reset();
    gate.open();
    ran.wait();
}

TEST(GroupTest, WaitReturnsWhenEveryEnterIsMatched) {
    auto group = dispatch_group_create();
    std::atomic<int> done{0};
    for (int i = 0; i < 16; ++i) {
        dispatch_group_enter(group);
        dispatch_async(dispatch_get_global_queue(0, 0), [&, group] {
            ++done;
            dispatch_group_leave(group);
        });
    }
    EXPECT_EQ(dispatch_group_wait(group, DISPATCH_TIME_FOREVER), 0);
    EXPECT_EQ(done, 16);
    dispatch_release(group);
}

TEST(GroupTest, WaitTimesOutWhileEntered) {
    auto group = dispatch_group_create();
    dispatch_group_enter(group);
    EXPECT_NE(dispatch_group_wait(group, DISPATCH_TIME_NOW), 0);
    EXPECT_NE(dispatch_group_wait(group, dispatch_time(DISPATCH_TIME_NOW, 2'000'000)), 0);
    dispatch_group_leave(group);
    EXPECT_EQ(dispatch_group_wait(group, DISPATCH_TIME_NOW), 0);
    dispatch_release(group);
}

TEST(GroupTest, NotifyRunsOnceTheLastSessionEnds) {
    auto group = dispatch_group_create();
    auto queue = makeQueue();
    Latch notified;
    std::atomic<bool> sessionsEnded{false};
    bool endedBeforeNotify = false;
    {
        dispatch::group_session session(group);
        dispatch::group_session copy = session;
        dispatch_group_notify(group, queue.get(), [&] {
            endedBeforeNotify = sessionsEnded;
            notified.open();
        });
        dispatch_async(dispatch_get_global_queue(0, 0), [copy] {});
        sessionsEnded = true;
    }
    notified.wait();
    EXPECT_TRUE(endedBeforeNotify);
    // Notifying an empty group runs the work at once.
    Latch immediate;
    dispatch_group_notify(group, queue.get(), [&] { immediate.open(); });
    immediate.wait();
    dispatch_release(group);
}

TEST(TimeTest, SaturatesAndKeepsForever) {
    EXPECT_EQ(dispatch_time(DISPATCH_TIME_FOREVER, -5), DISPATCH_TIME_FOREVER);
    EXPECT_EQ(dispatch_time(100, INT64_MAX), 100 + uint64_t{INT64_MAX});
    EXPECT_EQ(dispatch_time(DISPATCH_TIME_FOREVER - 10, 20), DISPATCH_TIME_FOREVER);
    EXPECT_EQ(dispatch_time(100, -50), 50u);
    EXPECT_EQ(dispatch_time(100, -500), 1u);
    EXPECT_GT(dispatch_time(DISPATCH_TIME_NOW, 0), 0u);
}

// Sets a flag when the handler's captures are destroyed.
struct ReleaseProbe {
    explicit ReleaseProbe(Latch* latch) : latch(latch) {}
    ~ReleaseProbe() { latch->open(); }
    Latch* latch;
};

struct TimerCase {
    const char* name;
    bool serialQueue;
};

class TimerTest : public ::testing::TestWithParam<TimerCase> {
  protected:
    void SetUp() override {
        if (GetParam().serialQueue) {
            queue_ = makeQueue();
        }
    }
    dispatch_queue_t queue() const { return queue_.get(); }

    QueuePtr queue_;
};

TEST_P(TimerTest, FiresRepeatedlyAndCountsExpirations) {
    auto timer = dispatch_source_create(DISPATCH_SOURCE_TYPE_TIMER, 0, 0, queue());
    ASSERT_NE(timer, nullptr);
    std::mutex mutex;
    std::condition_variable changed;
    int firings = 0;
    uintptr_t expirations = 0;
    dispatch_source_set_event_handler(timer, [&, timer] {
        std::lock_guard lock(mutex);
        ++firings;
        expirations += dispatch_source_get_data(timer);
        changed.notify_all();
    });
    const dispatch_time_t start = dispatch_time(DISPATCH_TIME_NOW, 0);
    dispatch_source_set_timer(timer, start, 1'000'000, 0);
    dispatch_activate(timer);
    dispatch_activate(timer);
    {
        std::unique_lock lock(mutex);
        changed.wait(lock, [&] { return firings >= 5; });
    }
    dispatch_source_cancel(timer);
    const uint64_t elapsedMs = (dispatch_time(DISPATCH_TIME_NOW, 0) - start) / 1'000'000;
    std::lock_guard lock(mutex);
    EXPECT_GE(expirations, static_cast<uintptr_t>(firings));
    EXPECT_LE(expirations, elapsedMs + 1);
    dispatch_release(timer);
}

TEST_P(TimerTest, NoHandlerStartsAfterCancelAndTheHandlerIsReleased) {
    auto timer = dispatch_source_create(DISPATCH_SOURCE_TYPE_TIMER, 0, 0, queue());
    ASSERT_NE(timer, nullptr);
    Latch released;
    Latch cancelled;
    std::atomic<int> firings{0};
    std::atomic<bool> cancelReturned{false};
    std::atomic<bool> firedAfterCancel{false};
    auto probe = std::make_shared<ReleaseProbe>(&released);
    const bool serial = GetParam().serialQueue;
    dispatch_source_set_event_handler(timer, [&, timer, probe] {
        if (cancelReturned) {
            firedAfterCancel = true;
        }
        // On the global queue cancel from inside the handler, where no other
        // firing can run concurrently; on a serial queue cancel from outside,
        // through the queue.
        if (++firings == 3) {
            if (!serial) {
                dispatch_source_cancel(timer);
                cancelReturned = true;
            }
            cancelled.open();
        }
    });
    probe.reset();
    dispatch_source_set_timer(timer, DISPATCH_TIME_NOW, 1'000'000, 0);
    dispatch_activate(timer);
    cancelled.wait();
    if (serial) {
        dispatch_sync(queue(), [&] {
            dispatch_source_cancel(timer);
            cancelReturned = true;
        });
    }
    EXPECT_TRUE(dispatch_source_testcancel(timer));
    released.wait();
    EXPECT_FALSE(firedAfterCancel);
    dispatch_release(timer);
}

INSTANTIATE_TEST_SUITE_P(Targets, TimerTest,
                         ::testing::Values(TimerCase{"global", false}, TimerCase{"serial", true}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(SourceTest, CancellingAnInactiveSourceReleasesItsHandler) {
    auto timer = dispatch_source_create(DISPATCH_SOURCE_TYPE_TIMER, 0, 0, nullptr);
    ASSERT_NE(timer, nullptr);
    Latch released;
    auto probe = std::make_shared<ReleaseProbe>(&released);
    dispatch_source_set_event_handler(timer, [probe] {});
    probe.reset();
    dispatch_source_cancel(timer);
    released.wait();
    dispatch_release(timer);
    EXPECT_EQ(dispatch_source_create(DISPATCH_SOURCE_TYPE_SIGNAL, 0, 0, nullptr), nullptr);
}

// The asynchronous signals a library thread must block.
std::vector<int> asyncSignals() {
    std::vector<int> signals = {SIGHUP,  SIGINT,  SIGQUIT, SIGUSR1, SIGUSR2, SIGPIPE,
                                SIGALRM, SIGTERM, SIGCHLD, SIGCONT, SIGTSTP, SIGWINCH};
    for (int signal = SIGRTMIN; signal <= SIGRTMAX; ++signal) {
        if (signal != platform::stackReportSignal()) {
            signals.push_back(signal);
        }
    }
    return signals;
}

uint64_t blockedMaskOf(pid_t tid) {
    std::ifstream status("/proc/self/task/" + std::to_string(tid) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("SigBlk:", 0) == 0) {
            return std::stoull(line.substr(7), nullptr, 16);
        }
    }
    return 0;
}

TEST(ThreadsTest, EveryLibraryThreadBlocksAsyncSignals) {
    std::mutex mutex;
    std::set<pid_t> tids;
    auto record = [&] {
        std::lock_guard lock(mutex);
        tids.insert(gettid());
    };
    // Pool workers: several at once, each held until all have started.
    constexpr int kWorkers = 3;
    auto group = dispatch_group_create();
    std::atomic<int> started{0};
    for (int i = 0; i < kWorkers; ++i) {
        dispatch_group_enter(group);
        dispatch_async(dispatch_get_global_queue(0, 0), [&, group] {
            record();
            ++started;
            while (started < kWorkers) {
                std::this_thread::yield();
            }
            dispatch_group_leave(group);
        });
    }
    // The event thread runs global-queue handlers.
    Latch fired;
    auto timer = dispatch_source_create(DISPATCH_SOURCE_TYPE_TIMER, 0, 0, nullptr);
    dispatch_source_set_event_handler(timer, [&] {
        record();
        fired.open();
    });
    dispatch_source_set_timer(timer, DISPATCH_TIME_NOW, DISPATCH_TIME_FOREVER, 0);
    dispatch_activate(timer);
    fired.wait();
    ASSERT_EQ(dispatch_group_wait(group, DISPATCH_TIME_FOREVER), 0);
    dispatch_source_cancel(timer);
    dispatch_release(timer);
    dispatch_release(group);

    ASSERT_GE(tids.size(), static_cast<size_t>(kWorkers));
    for (pid_t tid : tids) {
        const uint64_t mask = blockedMaskOf(tid);
        for (int signal : asyncSignals()) {
            EXPECT_TRUE(mask & (uint64_t{1} << (signal - 1)))
                << "thread " << tid << " does not block signal " << signal;
        }
        // The watchdog aims this one at a hung thread, wherever it hangs.
        EXPECT_FALSE(mask & (uint64_t{1} << (platform::stackReportSignal() - 1)))
            << "thread " << tid << " blocks the stack-report signal";
    }
}

}  // namespace
