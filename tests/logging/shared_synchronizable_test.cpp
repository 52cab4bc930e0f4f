#include "logging/shared_synchronizable.h"

#include <functional>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

struct Probe : lum::SharedSynchronizable<Probe> {
    Probe() : SharedSynchronizable("probe", DISPATCH_QUEUE_SERIAL, nullptr) {}
    ~Probe() { onDestroyed(); }
    using SharedSynchronizable::queue_;
    std::function<void()> onDestroyed;
};

// An idle queue runs execute_sync inline. Whoever drops the last reference
// never waits for other work: on an idle queue it destroys the object at once
// itself; while the queue is busy it returns at once, and the destruction runs
// on the queue after the busy work and before work queued later. The queue and
// the promise order every access to `events`.
TEST(SharedSynchronizableTest, IsDestroyedOnItsQueueAfterEarlierWorkWithoutWaitingForIt) {
    for (const bool busy : {false, true}) {
        SCOPED_TRACE(busy ? "busy" : "idle");
        std::vector<std::string> events;
        std::thread::id ranOn, destroyedOn;
        auto probe = Probe::make_shared_ptr(new Probe);
        probe->onDestroyed = [&] {
            events.push_back("destroyed");
            destroyedOn = std::this_thread::get_id();
        };
        probe->execute_sync([&] { ranOn = std::this_thread::get_id(); });
        EXPECT_EQ(ranOn, std::this_thread::get_id());

        // Only a busy queue is kept for later work: an idle one goes with the
        // object, during its destruction.
        dispatch::Owned<dispatch_queue_t> queue;
        std::promise<void> release;
        if (busy) {
            queue = dispatch::Owned<dispatch_queue_t>::retain(probe->queue_);
            dispatch_async(queue.get(), [&] {
                release.get_future().wait();
                events.push_back("busy work");
            });
        }
        probe.reset();
        events.push_back("dropped");
        release.set_value();
        if (busy) {
            dispatch_sync(queue.get(), [&] { events.push_back("later work"); });
            EXPECT_EQ(events, (std::vector<std::string>{"dropped", "busy work", "destroyed",
                                                        "later work"}));
        } else {
            EXPECT_EQ(events, (std::vector<std::string>{"destroyed", "dropped"}));
            EXPECT_EQ(destroyedOn, std::this_thread::get_id());
        }
    }
}

}  // namespace
