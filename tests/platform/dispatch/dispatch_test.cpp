#include "platform/dispatch/dispatch.h"
#include "platform/posix/signal_mask.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <latch>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using QueuePtr = std::unique_ptr<dispatch_queue_s, void (*)(dispatch_queue_t)>;

QueuePtr makeQueue(dispatch_queue_t target = nullptr) {
    return {dispatch_queue_create_with_target("test", DISPATCH_QUEUE_SERIAL, target),
            dispatch_release};
}

// Library threads block every asynchronous signal but the stack-report one,
// which the watchdog aims at a hung thread wherever it hangs.
void expectLibraryThreadSignalMask() {
    sigset_t mask;
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    for (int signal : {SIGHUP, SIGINT, SIGQUIT, SIGUSR1, SIGUSR2, SIGPIPE, SIGALRM, SIGTERM,
                       SIGCHLD, SIGCONT, SIGTSTP, SIGWINCH}) {
        EXPECT_TRUE(sigismember(&mask, signal)) << "signal " << signal;
    }
    for (int signal = SIGRTMIN; signal <= SIGRTMAX; ++signal) {
        EXPECT_EQ(sigismember(&mask, signal) == 1, signal != platform::stackReportSignal())
            << "signal " << signal;
    }
}

struct MixCase {
    const char* name;
    int threads, perThread;
    int asyncEvery;     // of each so many items a thread submits, one is async
    bool sharedTarget;  // threads spread over a queue and two queues targeting it
};

class SerialQueueMixTest : public ::testing::TestWithParam<MixCase> {};

// Every thread's items run in its submission order, one at a time across all
// the queues, and none is lost.
TEST_P(SerialQueueMixTest, KeepsEachThreadsOrderAndRunsOneItemAtATime) {
    const MixCase& param = GetParam();
    auto target = makeQueue();
    auto first = makeQueue(target.get()), second = makeQueue(target.get());
    const auto lanes = param.sharedTarget ? std::vector{first.get(), second.get(), target.get()}
                                          : std::vector{target.get()};
    std::vector<int> next(param.threads);  // not atomic: the queues must order access
    std::atomic<int> inside{0};
    std::atomic<bool> broken{false};
    std::vector<std::jthread> threads;
    for (int t = 0; t < param.threads; ++t) {
        threads.emplace_back([&, t] {
            dispatch_queue_t queue = lanes[t % lanes.size()];
            for (int i = 0; i < param.perThread; ++i) {
                auto record = [&, t, i] {
                    if (inside++ != 0 || next[t]++ != i) {
                        broken = true;
                    }
                    --inside;
                };
                if (i % param.asyncEvery == 0) {
                    dispatch_async(queue, record);
                } else {
                    dispatch_sync(queue, record);
                }
            }
        });
    }
    threads.clear();  // each thread's last item is sync, so all it queued has run
    EXPECT_FALSE(broken);
    EXPECT_EQ(next, std::vector<int>(param.threads, param.perThread));
}

INSTANTIATE_TEST_SUITE_P(Mixes, SerialQueueMixTest,
                         ::testing::Values(MixCase{"Mixed", 4, 2000, 2, false},
                                           MixCase{"MostlySync", 8, 20000, 100, false},
                                           MixCase{"SharedTarget", 3, 2000, 2, true}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(SerialQueueTest, SyncAndAsyncAndWaitRunAfterQueuedWork) {
    const auto mainThread = std::this_thread::get_id();
    auto queue = makeQueue();
    std::latch gate(1);
    std::string order;
    dispatch_async(queue.get(), [&] { gate.wait(); });
    dispatch_async(queue.get(), [&] { order += 'a'; });
    // dispatch_sync waits for its turn, then runs on the caller's thread.
    std::thread caller([&] {
        const auto self = std::this_thread::get_id();
        dispatch_sync(queue.get(), [&] {
            EXPECT_EQ(std::this_thread::get_id(), self);
            order += 's';
        });
    });
    gate.count_down();
    caller.join();
    dispatch_async(queue.get(), [&] { order += 'a'; });
    // dispatch_async_and_wait runs on a queue thread, never on the caller's.
    for (dispatch_queue_t target : {queue.get(), dispatch_get_global_queue(0, 0)}) {
        dispatch_async_and_wait(target, [&] {
            EXPECT_NE(std::this_thread::get_id(), mainThread);
            order += 'w';
        });
    }
    EXPECT_EQ(order, "asaww");
}

TEST(GroupTest, WaitAndNotifyFollowEntersLeavesAndSessions) {
    auto group = dispatch_group_create();
    std::atomic<int> done{0};
    for (int i = 0; i < 16; ++i) {
        dispatch_group_enter(group);
        dispatch_async(dispatch_get_global_queue(0, 0), [&, group] {
            expectLibraryThreadSignalMask();  // on the pool's workers
            ++done;
            dispatch_group_leave(group);
        });
    }
    EXPECT_EQ(dispatch_group_wait(group, DISPATCH_TIME_FOREVER), 0);
    EXPECT_EQ(done, 16);
    dispatch_group_enter(group);
    EXPECT_NE(dispatch_group_wait(group, DISPATCH_TIME_NOW), 0);
    EXPECT_NE(dispatch_group_wait(group, dispatch_time(DISPATCH_TIME_NOW, 2'000'000)), 0);
    dispatch_group_leave(group);
    EXPECT_EQ(dispatch_group_wait(group, DISPATCH_TIME_NOW), 0);

    // On an empty group the work is enqueued before dispatch_group_notify returns.
    dispatch_queue_t queue = dispatch_queue_create("notify", DISPATCH_QUEUE_SERIAL);
    bool immediate = false;
    dispatch_group_notify(group, queue, [&] { immediate = true; });
    dispatch_async_and_wait(queue, [] {});
    EXPECT_TRUE(immediate);
    std::latch notified(1);
    std::atomic<bool> sessionsEnded{false};
    {
        dispatch::group_session session(group);
        dispatch_group_notify(group, queue, [&] {
            EXPECT_TRUE(sessionsEnded);
            notified.count_down();
        });
        // The pending notification, then the work it enqueues, keep the queue.
        dispatch_release(queue);
        dispatch_async(dispatch_get_global_queue(0, 0), [copy = session] {});
        sessionsEnded = true;
    }
    notified.wait();
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

// Global-queue handlers run on the event thread, others are posted to their
// queue: both paths, by whether the timer gets a serial queue.
class TimerTest : public ::testing::TestWithParam<bool> {};

TEST_P(TimerTest, FiresRepeatedlyCountsExpirationsAndStopsOnCancel) {
    const bool serial = GetParam();
    auto queue = makeQueue();
    auto timer =
        dispatch_source_create(DISPATCH_SOURCE_TYPE_TIMER, 0, 0, serial ? queue.get() : nullptr);
    ASSERT_NE(timer, nullptr);
    std::latch released(1);  // counted down when the source drops its handler copy
    std::shared_ptr<std::latch> probe(&released, [](std::latch* latch) { latch->count_down(); });
    std::atomic<int> firings{0};
    std::atomic<uintptr_t> expirations{0};
    std::atomic<bool> coalesced{false}, cancelReturned{false};
    // Longer than the period: expirations accumulate meanwhile.
    const auto holdThreePeriods = [] { std::this_thread::sleep_for(std::chrono::milliseconds(3)); };
    auto cancel = [&, timer] {
        dispatch_source_cancel(timer);
        cancelReturned = true;
    };
    dispatch_source_set_event_handler(timer, [&, timer, probe = std::move(probe)] {
        expectLibraryThreadSignalMask();  // on the event thread or a pool worker
        EXPECT_FALSE(cancelReturned) << "fired after cancel returned";
        const uintptr_t data = dispatch_source_get_data(timer);
        expirations += data;
        coalesced = coalesced || data > 1;
        if (++firings == 3) {
            holdThreePeriods();  // the next firing reports what expired meanwhile
        } else if (firings == 5) {
            // Cancel where no firing overlaps: in this one on the global queue;
            // on a serial queue from work that holds it until a firing queues up.
            serial ? dispatch_async(queue.get(), [&] { holdThreePeriods(), cancel(); }) : cancel();
        }
    });
    const dispatch_time_t start = dispatch_time(DISPATCH_TIME_NOW, 0);
    dispatch_source_set_timer(timer, start, 1'000'000, 0);
    dispatch_activate(timer);
    dispatch_activate(timer);
    released.wait();
    dispatch_async_and_wait(queue.get(), [] {});  // lets any cancelling work finish
    EXPECT_TRUE(dispatch_source_testcancel(timer));
    EXPECT_TRUE(coalesced);
    EXPECT_GE(expirations, static_cast<uintptr_t>(firings));
    EXPECT_LE(expirations, (dispatch_time(DISPATCH_TIME_NOW, 0) - start) / 1'000'000 + 1);
    dispatch_release(timer);
}

INSTANTIATE_TEST_SUITE_P(Queues, TimerTest, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "Serial" : "Global"; });

}  // namespace
