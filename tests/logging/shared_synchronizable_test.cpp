#include "logging/shared_synchronizable.h"

#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

// Records the order of events, its own destruction included.
class EventLog {
  public:
    void add(std::string event) {
        std::lock_guard lock(mutex_);
        events_.push_back(std::move(event));
    }
    std::vector<std::string> events() {
        std::lock_guard lock(mutex_);
        return events_;
    }

  private:
    std::mutex mutex_;
    std::vector<std::string> events_;
};

class Probe : public lum::SharedSynchronizable<Probe> {
  public:
    Probe(dispatch_queue_t target, EventLog* log)
        : SharedSynchronizable("probe", DISPATCH_QUEUE_SERIAL, target), log_(log) {}
    virtual ~Probe() {
        log_->add(std::this_thread::get_id() == droppingThread_ ? "destroyed by the dropper"
                                                                : "destroyed");
    }

    // A reference to the probe's own queue, which the caller releases.
    dispatch_queue_t retainQueue() {
        dispatch_retain(queue_);
        return queue_;
    }
    void setDroppingThread(std::thread::id id) { droppingThread_ = id; }

  private:
    EventLog* log_;
    std::thread::id droppingThread_;
};

TEST(SharedSynchronizableTest, WithoutTargetAnIdleQueueRunsInline) {
    EventLog log;
    std::shared_ptr<Probe> probe = Probe::make_shared_ptr(new Probe(nullptr, &log));
    EXPECT_EQ(probe->shared_from_this(), probe);
    dispatch_queue_t queue = probe->retainQueue();
    probe->setDroppingThread(std::this_thread::get_id());

    std::thread::id ranOn;
    probe->execute_sync([&] { ranOn = std::this_thread::get_id(); });
    EXPECT_EQ(ranOn, std::this_thread::get_id());

    // Even on an idle queue the destruction is queued, not run by the dropper.
    probe.reset();
    dispatch_sync(queue, [&] { EXPECT_EQ(log.events(), std::vector<std::string>{"destroyed"}); });
    dispatch_release(queue);
}

TEST(SharedSynchronizableTest, WithTargetRunsOnAQueueThreadAndKeepsTheTarget) {
    EventLog log;
    dispatch_queue_t target = dispatch_queue_create("target", DISPATCH_QUEUE_SERIAL);
    std::shared_ptr<Probe> probe = Probe::make_shared_ptr(new Probe(target, &log));
    dispatch_queue_t queue = probe->retainQueue();
    // The probe's reference keeps the target alive.
    dispatch_release(target);

    std::thread::id ranOn;
    probe->execute_sync([&] { ranOn = std::this_thread::get_id(); });
    EXPECT_NE(ranOn, std::this_thread::get_id());

    probe.reset();
    dispatch_sync(queue, [&] { EXPECT_EQ(log.events(), std::vector<std::string>{"destroyed"}); });
    dispatch_release(queue);
}

// The last reference is dropped while another thread holds the queue busy: the
// drop returns at once, and the destruction runs on the queue after the busy
// work and before work queued later.
TEST(SharedSynchronizableTest, DestructionRunsOnTheOwnQueueWithoutBlockingTheDropper) {
    EventLog log;
    std::shared_ptr<Probe> probe = Probe::make_shared_ptr(new Probe(nullptr, &log));
    Probe* raw = probe.get();
    raw->setDroppingThread(std::this_thread::get_id());
    dispatch_queue_t queue = raw->retainQueue();

    std::promise<void> entered;
    std::promise<void> release;
    std::thread busy([&] {
        raw->execute_sync([&] {
            entered.set_value();
            release.get_future().wait();
            log.add("busy work");
        });
    });
    entered.get_future().wait();
    probe.reset();
    log.add("dropped");
    release.set_value();

    dispatch_sync(queue, [&] { log.add("later work"); });
    busy.join();
    dispatch_release(queue);
    EXPECT_EQ(log.events(),
              (std::vector<std::string>{"dropped", "busy work", "destroyed", "later work"}));
}

}  // namespace
