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

// Whoever drops the last reference never waits for other work. On an idle
// queue, execute_sync and the destruction run at once on the caller's thread
// (the queue goes with the object, during its destruction). While the queue
// is busy the drop returns at once, and the destruction runs on the queue
// after the busy work and before work queued later. The queue and the promise
// order every access to `events`.
TEST(SharedSynchronizableTest, IsDestroyedOnItsQueueAfterEarlierWorkWithoutWaitingForIt) {
    std::thread::id ranOn, destroyedOn;
    auto idle = Probe::make_shared_ptr(new Probe);
    idle->onDestroyed = [&] { destroyedOn = std::this_thread::get_id(); };
    idle->execute_sync([&] { ranOn = std::this_thread::get_id(); });
    idle.reset();
    EXPECT_EQ(ranOn, std::this_thread::get_id());
    EXPECT_EQ(destroyedOn, std::this_thread::get_id());

    std::vector<std::string> events;
    auto busy = Probe::make_shared_ptr(new Probe);
    busy->onDestroyed = [&] { events.push_back("destroyed"); };
    const auto queue = dispatch::Owned<dispatch_queue_t>::retain(busy->queue_);
    std::promise<void> release;
    dispatch_async(queue.get(), [&] {
        release.get_future().wait();
        events.push_back("busy work");
    });
    busy.reset();
    events.push_back("dropped");
    release.set_value();
    dispatch_sync(queue.get(), [&] { events.push_back("later work"); });
    EXPECT_EQ(events,
              (std::vector<std::string>{"dropped", "busy work", "destroyed", "later work"}));
}

}  // namespace
