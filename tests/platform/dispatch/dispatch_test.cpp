#include "platform/dispatch/dispatch.h"

#include <signal.h>
#include <string.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/posix/signal_mask.h"

namespace {

using Queue = dispatch::Owned<dispatch_queue_t>;
using Source = dispatch::Owned<dispatch_source_t>;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

Queue makeQueue(dispatch_queue_t target = nullptr) {
    return Queue::adopt(dispatch_queue_create_with_target("test", DISPATCH_QUEUE_SERIAL, target));
}

// Every thread's items run in its submission order, one at a time across all
// the queues, and none is lost.
TEST(SerialQueueTest, KeepsEachThreadsOrderAndRunsOneItemAtATime) {
    const struct {
        const char* name;
        int threads, perThread;
        int asyncEvery;     // of each so many items a thread submits, one is async
        bool sharedTarget;  // threads spread over a queue and two queues targeting it
    } kMixes[] = {
        {"mixed", 4, 2000, 2, false},
        {"mostly sync", 8, 20000, 100, false},
        {"shared target", 3, 2000, 2, true},
    };
    for (const auto& mix : kMixes) {
        SCOPED_TRACE(mix.name);
        const Queue target = makeQueue();
        const Queue first = makeQueue(target.get()), second = makeQueue(target.get());
        const auto lanes = mix.sharedTarget ? std::vector{first.get(), second.get(), target.get()}
                                            : std::vector{target.get()};
        std::vector<int> next(mix.threads);  // not atomic: the queues must order access
        std::atomic<int> inside{0};
        std::atomic<bool> broken{false};
        std::vector<std::jthread> threads;
        for (int t = 0; t < mix.threads; ++t) {
            threads.emplace_back([&, t] {
                dispatch_queue_t queue = lanes[t % lanes.size()];
                for (int i = 0; i < mix.perThread; ++i) {
                    auto record = [&, t, i] {
                        broken = broken || inside++ != 0 || next[t]++ != i;
                        --inside;
                    };
                    if (i % mix.asyncEvery == 0) {
                        dispatch_async(queue, record);
                    } else if (i % 16 == 1) {
                        dispatch_async_and_wait(queue, record);
                    } else {
                        dispatch_sync(queue, record);
                    }
                }
            });
        }
        threads.clear();  // each thread's last item waits, so all it queued has run
        EXPECT_FALSE(broken);
        EXPECT_EQ(next, std::vector<int>(mix.threads, mix.perThread));
    }
}

// dispatch_sync runs the work on the caller's thread, at once on an idle queue
// and after the work queued before it on a busy one; dispatch_async_and_wait
// always runs it on a queue thread.
TEST(SerialQueueTest, SyncRunsOnTheCallerAfterEarlierWorkAndAsyncAndWaitOnAQueueThread) {
    for (const bool waitForQueueThread : {false, true}) {
        for (const int earlier : {0, 2000}) {
            SCOPED_TRACE(testing::Message() << (waitForQueueThread ? "async_and_wait" : "sync")
                                            << " after " << earlier);
            const Queue queue = makeQueue();
            int ran = 0;  // not atomic: the queue orders access
            for (int i = 0; i < earlier; ++i) {
                dispatch_async(queue.get(), [&] { ++ran; });
            }
            int ranBefore = -1;
            std::thread::id ranOn;
            auto work = [&] {
                ranBefore = ran;
                ranOn = std::this_thread::get_id();
            };
            if (waitForQueueThread) {
                dispatch_async_and_wait(queue.get(), work);
            } else {
                dispatch_sync(queue.get(), work);
            }
            EXPECT_EQ(ranBefore, earlier);
            EXPECT_EQ(ranOn == std::this_thread::get_id(), !waitForQueueThread);
        }
    }
}

// A time-out is reported no earlier than asked; a wait without one ends at
// the last leave, whether it comes from dispatch_group_leave or a session.
TEST(GroupTest, WaitEndsAtTheLastLeaveOrReportsItsTimeOut) {
    const auto group = dispatch::Owned<dispatch_group_t>::adopt(dispatch_group_create());
    EXPECT_EQ(dispatch_group_wait(group.get(), DISPATCH_TIME_NOW), 0);
    dispatch_group_enter(group.get());
    dispatch::group_session session(group.get());
    EXPECT_NE(dispatch_group_wait(group.get(), DISPATCH_TIME_NOW), 0);
    const auto start = Clock::now();
    EXPECT_NE(dispatch_group_wait(group.get(), dispatch_time(DISPATCH_TIME_NOW, 50'000'000)), 0);
    EXPECT_GE(Clock::now() - start, 50ms);
    EXPECT_LT(Clock::now() - start, 5s);

    std::atomic<int> left{0};
    std::jthread leaver([&, session = std::move(session)]() mutable {
        ++left;
        dispatch_group_leave(group.get());
        std::this_thread::sleep_for(20ms);  // gives a wait that ends too early time to show
        ++left;
        session = {};
    });
    EXPECT_EQ(dispatch_group_wait(group.get(), DISPATCH_TIME_FOREVER), 0);
    EXPECT_EQ(left, 2);
}

// A timer fires again and again, one firing at a time and serialised with the
// other work of its queue, until it is cancelled: by its own handler, from
// another thread while a firing runs (which finishes), or while a firing waits
// for its busy queue (which then does not run). No firing starts once
// dispatch_source_cancel has returned, and the handler is let go after the
// last firing.
TEST(SourceTest, TimerRepeatsOneFiringAtATimeUntilCancelled) {
    enum Cancel { kByHandler, kDuringFiring, kWhileQueued };
    const struct {
        const char* name;
        bool onSerialQueue;
        Cancel cancel;
    } kCases[] = {
        {"global, by handler", false, kByHandler},
        {"global, during a firing", false, kDuringFiring},
        {"serial, by handler", true, kByHandler},
        {"serial, during a firing", true, kDuringFiring},
        {"serial, while queued", true, kWhileQueued},
    };
    for (const auto& test : kCases) {
        SCOPED_TRACE(test.name);
        const Queue queue = test.onSerialQueue ? makeQueue() : Queue();
        const auto timer =
            Source::adopt(dispatch_source_create(DISPATCH_SOURCE_TYPE_TIMER, 0, 0, queue.get()));
        ASSERT_TRUE(timer);
        std::atomic<int> firings{0}, inside{0};
        std::atomic<bool> overlapped{false}, cancelled{false}, firedLate{false};
        std::promise<void> thirdFiring, unblock, handlerGone;
        // The deleter runs when the source lets go of its last copy of the handler.
        std::shared_ptr<void> handlerLife(nullptr, [&](void*) { handlerGone.set_value(); });
        auto enter = [&] { overlapped = overlapped || inside++ != 0; };
        dispatch_source_set_event_handler(timer.get(), [&, life = std::move(handlerLife)] {
            firedLate = firedLate || cancelled;
            enter();
            if (++firings == 3 && test.cancel == kByHandler) {
                dispatch_source_cancel(timer.get());
                cancelled = true;
            } else if (firings == 3) {
                thirdFiring.set_value();
                if (test.cancel == kDuringFiring) {
                    unblock.get_future().wait();
                }
            }
            --inside;
        });
        dispatch_source_set_timer(timer.get(), DISPATCH_TIME_NOW, 1'000'000, 0);
        dispatch_activate(timer.get());
        while (test.onSerialQueue && test.cancel == kByHandler && firings < 3) {
            dispatch_sync(queue.get(), [&] {
                enter();
                --inside;
            });
        }
        if (test.cancel != kByHandler) {
            thirdFiring.get_future().wait();
            if (test.cancel == kWhileQueued) {
                dispatch_async(queue.get(), [&] { unblock.get_future().wait(); });
                std::this_thread::sleep_for(20ms);  // the next firings queue up behind
            }
            dispatch_source_cancel(timer.get());
            cancelled = true;
            unblock.set_value();
        }
        handlerGone.get_future().wait();
        EXPECT_EQ(firings, 3);
        EXPECT_EQ(inside, 0);
        EXPECT_FALSE(overlapped);
        EXPECT_FALSE(firedLate);
    }
}

// A queue keeps its target, a source its queue, queued work its queue: each
// may be released by its creator while still in use. The main and global
// queues ignore releases.
TEST(DispatchObjectTest, LivesWhileAnythingStillHoldsIt) {
    dispatch_release(dispatch_get_global_queue(DISPATCH_QUEUE_PRIORITY_DEFAULT, 0));
    dispatch_release(dispatch_get_main_queue());
    dispatch_queue_t target = dispatch_queue_create("target", DISPATCH_QUEUE_SERIAL);
    dispatch_queue_t queue = dispatch_queue_create_with_target("queue", nullptr, target);
    dispatch_release(target);
    dispatch_source_t timer = dispatch_source_create(DISPATCH_SOURCE_TYPE_TIMER, 0, 0, queue);
    dispatch_release(queue);
    std::promise<void> ran;
    dispatch_source_set_event_handler(timer, [&] {
        dispatch_source_cancel(timer);
        dispatch_release(timer);
        dispatch_async(queue, [&] { ran.set_value(); });
    });
    dispatch_source_set_timer(timer, DISPATCH_TIME_NOW, DISPATCH_TIME_FOREVER, 0);
    dispatch_activate(timer);
    ran.get_future().wait();
}

TEST(DispatchTimeTest, AddsToNowOrAnInstantAndSaturates) {
    const dispatch_time_t before = dispatch_time(DISPATCH_TIME_NOW, 0);
    EXPECT_GE(dispatch_time(DISPATCH_TIME_NOW, 1'000), before + 1'000);
    EXPECT_EQ(dispatch_time(5'000, -2'000), 3'000u);
    EXPECT_EQ(dispatch_time(5'000, -9'000), 1u);  // the past stays an instant, not NOW
    EXPECT_EQ(dispatch_time(DISPATCH_TIME_FOREVER - 5, 10), DISPATCH_TIME_FOREVER);
    EXPECT_EQ(dispatch_time(DISPATCH_TIME_FOREVER, -10), DISPATCH_TIME_FOREVER);
}

// Every thread the library starts (queue workers and the thread that watches
// sources) blocks the process-directed signals, so that they only reach the
// main thread or a signal source, but not the stack-report signal the watchdog
// aims at one thread.
TEST(DispatchThreadsTest, BlockProcessDirectedSignals) {
    sigset_t workerMask, eventThreadMask;
    const Queue queue = makeQueue();
    dispatch_async_and_wait(queue.get(), [&] { pthread_sigmask(SIG_BLOCK, nullptr, &workerMask); });
    std::promise<void> fired;
    const auto timer =
        Source::adopt(dispatch_source_create(DISPATCH_SOURCE_TYPE_TIMER, 0, 0, nullptr));
    dispatch_source_set_event_handler(timer.get(), [&] {
        pthread_sigmask(SIG_BLOCK, nullptr, &eventThreadMask);
        fired.set_value();
    });
    dispatch_source_set_timer(timer.get(), DISPATCH_TIME_NOW, DISPATCH_TIME_FOREVER, 0);
    dispatch_activate(timer.get());
    fired.get_future().wait();
    dispatch_source_cancel(timer.get());
    for (const sigset_t* mask : {&workerMask, &eventThreadMask}) {
        for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGUSR1, SIGCHLD}) {
            EXPECT_EQ(sigismember(mask, signal), 1) << strsignal(signal);
        }
        EXPECT_EQ(sigismember(mask, platform::stackReportSignal()), 0);
    }
}

}  // namespace
