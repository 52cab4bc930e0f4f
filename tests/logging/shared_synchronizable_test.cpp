#include "logging/shared_synchronizable.h"

#include <future>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

// Adds "destroyed" to the events and notes the thread; the queue and the
// promises order every access to them.
class Probe : public lum::SharedSynchronizable<Probe> {
  public:
    Probe(std::vector<std::string>* events, std::thread::id* destroyedOn)
        : SharedSynchronizable("probe", DISPATCH_QUEUE_SERIAL, nullptr),
          events_(events),
          destroyedOn_(destroyedOn) {}
    virtual ~Probe() {
        events_->push_back("destroyed");
        *destroyedOn_ = std::this_thread::get_id();
    }
    using SharedSynchronizable::queue_;

  private:
    std::vector<std::string>* events_;
    std::thread::id* destroyedOn_;
};

// An idle queue runs execute_sync inline. Whichever thread drops the last
// reference never waits for other work: on an idle queue it destroys the
// object at once itself; while another thread holds the queue busy it returns
// at once, and the destruction runs on the queue after the busy work and
// before work queued later.
TEST(SharedSynchronizableTest, IsDestroyedOnItsQueueAfterEarlierWorkWithoutWaitingForIt) {
    for (const bool busy : {false, true}) {
        for (const bool dropElsewhere : {false, true}) {
            SCOPED_TRACE(testing::Message()
                         << (busy ? "busy" : "idle") << (dropElsewhere ? ", other thread" : ""));
            std::vector<std::string> events;
            std::thread::id ranOn, droppedOn, destroyedOn;
            auto probe = Probe::make_shared_ptr(new Probe(&events, &destroyedOn));
            probe->execute_sync([&] { ranOn = std::this_thread::get_id(); });
            EXPECT_EQ(ranOn, std::this_thread::get_id());

            std::promise<void> entered, release;
            std::jthread busyWork;
            // Only a busy queue is kept for later work: an idle one goes with
            // the object, during its destruction.
            dispatch::Owned<dispatch_queue_t> queue;
            if (busy) {
                queue = dispatch::Owned<dispatch_queue_t>::retain(probe->queue_);
                busyWork = std::jthread([&, raw = probe.get()] {
                    raw->execute_sync([&] {
                        entered.set_value();
                        release.get_future().wait();
                        events.push_back("busy work");
                    });
                });
                entered.get_future().wait();
            }
            auto drop = [&] {
                droppedOn = std::this_thread::get_id();
                probe.reset();
                events.push_back("dropped");
            };
            if (dropElsewhere) {
                std::jthread(drop).join();
            } else {
                drop();
            }
            release.set_value();
            if (busy) {
                dispatch_sync(queue.get(), [&] { events.push_back("later work"); });
                busyWork = {};
                EXPECT_EQ(events, (std::vector<std::string>{"dropped", "busy work", "destroyed",
                                                            "later work"}));
            } else {
                EXPECT_EQ(events, (std::vector<std::string>{"destroyed", "dropped"}));
                EXPECT_EQ(destroyedOn, droppedOn);
            }
        }
    }
}

}  // namespace
