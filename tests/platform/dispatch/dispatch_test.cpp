#include "platform/dispatch/dispatch.h"

#include <signal.h>

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
using namespace std::chrono_literals;

Queue makeQueue(dispatch_queue_t target = nullptr) {
    return Queue::adopt(dispatch_queue_create_with_target("test", DISPATCH_QUEUE_SERIAL, target));
}

// Every thread's items run in its submission order, one at a time across a
// queue and two queues that target it, and none is lost. dispatch_sync runs
// the work on the caller's thread, dispatch_async_and_wait never does.
TEST(SerialQueueTest, KeepsEachThreadsOrderAndRunsOneItemAtATime) {
    constexpr int kThreads = 6, kPerThread = 5000;
    const Queue target = makeQueue();
    const Queue first = makeQueue(target.get()), second = makeQueue(target.get());
    const dispatch_queue_t lanes[] = {target.get(), first.get(), second.get()};
    std::vector<int> next(kThreads);  // not atomic: the queues must order access
    std::atomic<int> inside{0};
    std::atomic<bool> broken{false};
    std::vector<std::jthread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            dispatch_queue_t queue = lanes[t % 3];
            for (int i = 0; i < kPerThread; ++i) {
                const int kind = i % 3;  // async, sync, async and wait
                auto record = [&, t, i, kind, caller = std::this_thread::get_id()] {
                    const bool onCaller = std::this_thread::get_id() == caller;
                    broken = broken || inside++ != 0 || next[t]++ != i ||
                             (kind == 1 && !onCaller) || (kind == 2 && onCaller);
                    std::this_thread::yield();  // widens the window in which an overlap shows
                    --inside;
                };
                if (kind == 0) {
                    dispatch_async(queue, record);
                } else if (kind == 1) {
                    dispatch_sync(queue, record);
                } else {
                    dispatch_async_and_wait(queue, record);
                }
            }
        });
    }
    threads.clear();  // each thread's last item waits, so all it queued has run
    EXPECT_FALSE(broken);
    EXPECT_EQ(next, std::vector<int>(kThreads, kPerThread));
}

// A wait ends once every enter has been matched, by dispatch_group_leave or
// by the end of a session, also when the last one comes from another thread
// while it sleeps; a time-out is reported no earlier than asked.
TEST(GroupTest, WaitEndsAtTheLastLeaveOrReportsItsTimeOut) {
    const auto group = dispatch::Owned<dispatch_group_t>::adopt(dispatch_group_create());
    dispatch_group_enter(group.get());
    dispatch::group_session session(group.get());
    const auto start = std::chrono::steady_clock::now();
    EXPECT_NE(dispatch_group_wait(group.get(), dispatch_time(DISPATCH_TIME_NOW, 50'000'000)), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 50ms);
    dispatch_group_leave(group.get());
    std::jthread ender([session = std::move(session)]() mutable {
        std::this_thread::sleep_for(20ms);  // lets the wait below fall asleep first
        session = {};
    });
    EXPECT_EQ(dispatch_group_wait(group.get(), DISPATCH_TIME_FOREVER), 0);
}

// A timer fires again and again until it is cancelled: by its own handler, or
// while a firing waits for its busy queue (which then does not run). No firing
// starts once dispatch_source_cancel has returned, and the handler is let go
// after the last firing. The handler runs on a thread the library started (the
// one that watches sources for the global queue, a queue worker for a serial
// queue): like every such thread, it blocks the process-directed signals, so
// that they only reach the main thread or a signal source, but not the
// stack-report signal the watchdog aims at one thread.
TEST(SourceTest, TimerRepeatsUntilCancelledAndNoFiringStartsAfterwards) {
    for (const bool whileQueued : {false, true}) {
        SCOPED_TRACE(whileQueued ? "serial queue, while a firing is queued" : "global, by handler");
        const Queue queue = whileQueued ? makeQueue() : Queue();
        const auto timer = dispatch::Owned<dispatch_source_t>::adopt(
            dispatch_source_create(DISPATCH_SOURCE_TYPE_TIMER, 0, 0, queue.get()));
        std::atomic<int> firings{0};
        std::atomic<bool> signalsReachIt{false};
        std::promise<void> thirdFiring, unblock, handlerGone;
        // The deleter runs when the source lets go of its last copy of the handler.
        std::shared_ptr<void> handlerLife(nullptr, [&](void*) { handlerGone.set_value(); });
        dispatch_source_set_event_handler(timer.get(), [&, life = std::move(handlerLife)] {
            sigset_t mask;
            pthread_sigmask(SIG_BLOCK, nullptr, &mask);
            signalsReachIt = signalsReachIt || sigismember(&mask, SIGTERM) != 1 ||
                             sigismember(&mask, platform::stackReportSignal()) != 0;
            if (++firings != 3) {
                return;
            }
            if (whileQueued) {
                // Holds the queue, so that the next firings wait behind it.
                dispatch_async(queue.get(), [&] { unblock.get_future().wait(); });
                thirdFiring.set_value();
            } else {
                dispatch_source_cancel(timer.get());
            }
        });
        dispatch_source_set_timer(timer.get(), DISPATCH_TIME_NOW, 1'000'000, 0);
        dispatch_activate(timer.get());
        if (whileQueued) {
            thirdFiring.get_future().wait();
            std::this_thread::sleep_for(20ms);  // the next firing queues up
            dispatch_source_cancel(timer.get());
            unblock.set_value();
        }
        handlerGone.get_future().wait();
        EXPECT_EQ(firings, 3);  // none after the cancel
        EXPECT_FALSE(signalsReachIt);
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

}  // namespace
