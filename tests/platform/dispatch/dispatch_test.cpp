#include "platform/dispatch/dispatch.h"

#include <signal.h>

#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/posix/signal_mask.h"

namespace {

using Queue = dispatch::Owned<dispatch_queue_t>;

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
                    } else {
                        dispatch_sync(queue, record);
                    }
                }
            });
        }
        threads.clear();  // each thread's last item is sync, so all it queued has run
        EXPECT_FALSE(broken);
        EXPECT_EQ(next, std::vector<int>(mix.threads, mix.perThread));
    }
}

// The queues' threads block SIGTERM, so that it only reaches the main thread
// or a signal source, but not the stack-report signal the watchdog aims at
// them.
TEST(SerialQueueTest, WorkRunsOnThreadsThatBlockSigterm) {
    const Queue queue = makeQueue();
    dispatch_async_and_wait(queue.get(), [] {
        sigset_t mask;
        pthread_sigmask(SIG_BLOCK, nullptr, &mask);
        EXPECT_EQ(sigismember(&mask, SIGTERM), 1);
        EXPECT_EQ(sigismember(&mask, platform::stackReportSignal()), 0);
    });
}

}  // namespace
