#include "logging/shared_synchronizable.h"

#include <future>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

// Adds "destroyed" to the events; the queue and the promises order every
// access to them.
class Probe : public lum::SharedSynchronizable<Probe> {
  public:
    explicit Probe(std::vector<std::string>* events)
        : SharedSynchronizable("probe", DISPATCH_QUEUE_SERIAL, nullptr), events_(events) {}
    virtual ~Probe() { events_->push_back("destroyed"); }
    using SharedSynchronizable::queue_;

  private:
    std::vector<std::string>* events_;
};

// An idle queue runs execute_sync inline. The last reference, dropped while
// another thread holds the queue busy, returns at once, and the destruction
// runs on the queue after the busy work and before work queued later.
TEST(SharedSynchronizableTest, RunsOnItsQueueAndIsDestroyedThere) {
    std::vector<std::string> events;
    std::shared_ptr<Probe> probe = Probe::make_shared_ptr(new Probe(&events));
    const auto queue = dispatch::Owned<dispatch_queue_t>::retain(probe->queue_);
    std::thread::id ranOn;
    probe->execute_sync([&] { ranOn = std::this_thread::get_id(); });
    EXPECT_EQ(ranOn, std::this_thread::get_id());

    std::promise<void> entered, release;
    std::thread busy([&, raw = probe.get()] {
        raw->execute_sync([&] {
            entered.set_value();
            release.get_future().wait();
            events.push_back("busy work");
        });
    });
    entered.get_future().wait();
    probe.reset();
    events.push_back("dropped");
    release.set_value();
    dispatch_sync(queue.get(), [&] { events.push_back("later work"); });
    busy.join();
    EXPECT_EQ(events,
              (std::vector<std::string>{"dropped", "busy work", "destroyed", "later work"}));
}

}  // namespace
