#include "platform/dispatch/dispatch.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <thread>

#include "platform/dispatch/dispatch_internal.h"
#include "platform/posix/clock.h"
#include "platform/posix/futex.h"
#include "platform/posix/thread.h"
#include "platform/posix/unique_fd.h"

using dispatch::internal::Work;
using dispatch::internal::WorkList;

namespace dispatch::internal {

void WorkList::push(Work* work) {
    work->next = nullptr;
    if (tail_) {
        tail_->next = work;
    } else {
        head_ = work;
    }
    tail_ = work;
}

Work* WorkList::pop() {
    Work* work = head_;
    if (work) {
        head_ = work->next;
        if (!head_) {
            tail_ = nullptr;
        }
    }
    return work;
}

WorkList WorkList::take() {
    WorkList taken = *this;
    head_ = tail_ = nullptr;
    return taken;
}

bool startDetachedThread(const char* name, std::function<void()> body) {
    std::optional<std::thread> thread = platform::startThread(name, std::move(body));
    if (thread) {
        thread->detach();
    }
    return thread.has_value();
}

}  // namespace dispatch::internal

namespace {

using platform::futexWait;
using platform::futexWake;

// Work submitted with dispatch_async_f.
struct FunctionWork : Work {
    FunctionWork(void* context, dispatch_function_t function)
        : context(context), function(function) {
        run = [](Work* self) {
            auto* work = static_cast<FunctionWork*>(self);
            work->function(work->context);
            delete work;
        };
    }
    void* context;
    dispatch_function_t function;
};

// Work submitted with dispatch_async.
struct BlockWork : Work {
    explicit BlockWork(dispatch_block_t block) : block(std::move(block)) {
        run = [](Work* self) {
            auto* work = static_cast<BlockWork*>(self);
            work->block();
            delete work;
        };
    }
    dispatch_block_t block;
};

// Work whose submitter waits, on its own stack, until a queue thread ran it.
struct WaitedWork : Work {
    WaitedWork(void* context, dispatch_function_t function) : context(context), function(function) {
        run = [](Work* self) {
            auto* work = static_cast<WaitedWork*>(self);
            work->function(work->context);
            work->done.store(1, std::memory_order_release);
            futexWake(work->done, 1);
        };
    }
    void wait() {
        while (done.load(std::memory_order_acquire) == 0) {
            futexWait(done, 0, DISPATCH_TIME_FOREVER);
        }
    }
    void* context;
    dispatch_function_t function;
    std::atomic<uint32_t> done{0};
};

// A dispatch_sync caller queued behind asynchronous work; the serial queue is
// handed to it when its turn comes, and it runs its work on its own thread.
struct SyncWaiter : Work {
    std::atomic<uint32_t> ready{0};
};

// The default-priority global queue: a pool of worker threads, started as work
// arrives and capped at twice the CPU count (at least 4). Idle workers sleep
// on a condition variable without time-out.
class GlobalQueue final : public dispatch_queue_s {
  public:
    GlobalQueue()
        : dispatch_queue_s(Kind::kGlobalQueue, true),
          maxThreads_(std::max(4, 2 * static_cast<int>(std::thread::hardware_concurrency()))) {}

    void enqueue(Work* work) {
        bool notify = false;
        bool spawn = false;
        {
            std::lock_guard lock(mutex_);
            items_.push(work);
            // Each wake token is claimed by a distinct idle worker, so
            // idle_ - wakeTokens_ workers are still free to take new work.
            if (idle_ > wakeTokens_) {
                ++wakeTokens_;
                notify = true;
            } else if (threads_ < maxThreads_) {
                ++threads_;
                spawn = true;
            }
        }
        if (notify) {
            wakeup_.notify_one();
        }
        if (spawn &&
            !dispatch::internal::startDetachedThread("kel-dispatch", [this] { serve(); })) {
            std::lock_guard lock(mutex_);
            --threads_;
        }
    }

  private:
    void serve() {
        std::unique_lock lock(mutex_);
        for (;;) {
            if (Work* work = items_.pop()) {
                lock.unlock();
                work->run(work);
                lock.lock();
                continue;
            }
            ++idle_;
            wakeup_.wait(lock, [this] { return wakeTokens_ > 0; });
            --wakeTokens_;
            --idle_;
        }
    }

    const int maxThreads_;
    std::mutex mutex_;
    std::condition_variable wakeup_;
    WorkList items_;
    int threads_ = 0;
    int idle_ = 0;
    int wakeTokens_ = 0;
};

GlobalQueue* globalQueue() {
    static GlobalQueue* const sQueue = new GlobalQueue;
    return sQueue;
}

bool onMainThread() {
    return gettid() == getpid();
}

// The main queue: work waits in a list until the main run loop drains it. An
// eventfd is readable exactly while the list is non-empty (both change under
// the same lock). The run loop sleeps on an epoll instance that holds the
// eventfd and the fds of the main queue's sources; each drain first turns the
// sources' events into firings in the list.
class MainQueue final : public dispatch_queue_s {
  public:
    MainQueue()
        : dispatch_queue_s(Kind::kMainQueue, true),
          eventFd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
          pollFd_(epoll_create1(EPOLL_CLOEXEC)) {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.u64 = dispatch::internal::kMainQueueWakeupId;
        if (!eventFd_.valid() ||
            epoll_ctl(pollFd_.get(), EPOLL_CTL_ADD, eventFd_.get(), &event) != 0) {
            pollFd_.reset();
        }
    }

    int pollFd() const { return pollFd_.get(); }
    int wakeupFd() const { return pollFd_.valid() ? pollFd_.get() : eventFd_.get(); }

    void enqueue(Work* work) {
        std::lock_guard lock(mutex_);
        const bool wasEmpty = items_.empty();
        items_.push(work);
        // Neither this write nor the drain's read can fail: the counter is 1
        // at most, and it is read only while the list holds work.
        if (wasEmpty && eventFd_.valid()) {
            static_cast<void>(eventfd_write(eventFd_.get(), 1));
        }
    }

    int drain() {
        if (pollFd_.valid()) {
            dispatch::internal::queueMainQueueSourceFirings(pollFd_.get());
        }
        WorkList batch;
        {
            std::lock_guard lock(mutex_);
            if (items_.empty()) {
                return 0;
            }
            batch = items_.take();
            eventfd_t count;
            static_cast<void>(eventfd_read(eventFd_.get(), &count));
        }
        int ran = 0;
        while (Work* work = batch.pop()) {
            work->run(work);
            ++ran;
        }
        return ran;
    }

  private:
    const platform::UniqueFd eventFd_;
    platform::UniqueFd pollFd_;
    std::mutex mutex_;
    WorkList items_;
};

MainQueue* mainQueue() {
    static MainQueue* const sQueue = new MainQueue;
    return sQueue;
}

}  // namespace

int dispatch::internal::mainQueuePollFd() {
    return mainQueue()->pollFd();
}

namespace {

// A serial queue.
//
// Exclusivity is one atomic word. dispatch_sync on an idle queue takes it with
// a single compare-and-swap, runs the work on the calling thread and gives it
// back with another: no hand-off, no allocation. Asynchronous work goes to a
// locked list; the thread that finds the queue free takes exclusivity on
// behalf of a drain task, which it submits to the target queue. Whoever gives
// exclusivity up while the list is non-empty passes it on: to a drain task, or
// directly to a dispatch_sync caller waiting at the head of the list.
//
// Ordering: a sync caller that finds asynchronous work queued takes a place in
// the list behind it and is handed the queue in turn. A sync caller that finds
// the queue merely busy (no queued work) behaves like a mutex waiter: it
// sleeps on the state word and competes again when woken, so concurrent sync
// callers do not convoy through a wake-up per item. Work that was queued before
// a sync call still runs before it, because queued work keeps the queue owned.
//
// The state word, bit by bit:
//
//   bit       set by                            cleared by
//   kOwned    sync(): the CAS that takes an     release(), when no work is
//             idle queue; enqueue(), for the    queued; otherwise ownership
//             drain task it schedules           passes on and the bit stays
//   kHasWork  enqueue(), under mutex_, always   whoever pops the last item,
//             together with kOwned              under mutex_ (drain() or
//                                               passToQueuedWork())
//   kSleepers a sync caller about to sleep on   release() of an idle queue;
//             the word; an acquirer that had    drain() after a full batch
//             slept (others may still sleep)
//
// Who wakes whom: release() of an idle queue with kSleepers wakes one sleeper,
// which competes again. release() with work queued passes ownership to the
// head of the list: a SyncWaiter is woken through its own `ready` word and
// runs its work on its own thread; asynchronous work gets a drain task on the
// target. A drain task that ran a full batch wakes every sleeper, so that they
// line up behind the queued work instead of waiting for an idle moment that
// may never come.
class SerialQueue final : public dispatch_queue_s {
  public:
    explicit SerialQueue(dispatch_queue_t target)
        : dispatch_queue_s(Kind::kSerialQueue, false), target_(target ? target : globalQueue()) {
        dispatch_retain(target_);
        drainWork_.queue = this;
    }
    ~SerialQueue() override { dispatch_release(target_); }

    void sync(void* context, dispatch_function_t function) {
        uint32_t expected = 0;
        if (!state_.compare_exchange_strong(expected, kOwned, std::memory_order_acquire,
                                            std::memory_order_relaxed)) {
            acquireSlow();
        }
        Exclusivity held(this);
        if (target_->kind_ == Kind::kGlobalQueue) {
            function(context);
        } else {
            dispatch_sync_f(target_, context, function);
        }
    }

    // Runs the work inline if the queue is idle and targets the global queue,
    // which runs work on any thread; returns false, having done nothing,
    // otherwise.
    bool runIfIdle(void* context, dispatch_function_t function) {
        uint32_t expected = 0;
        if (target_->kind_ != Kind::kGlobalQueue ||
            !state_.compare_exchange_strong(expected, kOwned, std::memory_order_acquire,
                                            std::memory_order_relaxed)) {
            return false;
        }
        // Declared first, so released last: the work may drop the caller's
        // reference, and giving up exclusivity still touches the queue.
        const auto alive = dispatch::Owned<dispatch_queue_t>::retain(this);
        Exclusivity held(this);
        function(context);
        return true;
    }

    void enqueue(Work* work) {
        uint32_t previous;
        {
            std::lock_guard lock(mutex_);
            items_.push(work);
            previous = state_.fetch_or(kHasWork | kOwned, std::memory_order_acq_rel);
        }
        if (!(previous & kOwned)) {
            scheduleDrain();
        }
    }

  private:
    // State bits (see the table above the class). kHasWork is set exactly
    // while items_ is non-empty.
    static constexpr uint32_t kOwned = 1;
    static constexpr uint32_t kSleepers = 2;
    static constexpr uint32_t kHasWork = 4;
    // A drain task gives its thread back to the target after this many items.
    static constexpr int kDrainBatch = 32;

    struct DrainWork : Work {
        DrainWork() { run = &SerialQueue::drainEntry; }
        SerialQueue* queue = nullptr;
    };

    class Exclusivity {
      public:
        explicit Exclusivity(SerialQueue* queue) : queue_(queue) {}
        Exclusivity(const Exclusivity&) = delete;
        Exclusivity& operator=(const Exclusivity&) = delete;
        ~Exclusivity() { queue_->release(); }

      private:
        SerialQueue* const queue_;
    };

    void acquireSlow() {
        // A caller that has slept sets kSleepers when it acquires, however it
        // acquires: the wake-up it got cleared the bit, others may still be
        // asleep, and the release must then wake one of them.
        uint32_t sleptBit = 0;
        uint32_t state = state_.load(std::memory_order_relaxed);
        for (;;) {
            if (!(state & (kOwned | kHasWork))) {
                if (state_.compare_exchange_weak(state, state | kOwned | sleptBit,
                                                 std::memory_order_acquire,
                                                 std::memory_order_relaxed)) {
                    return;
                }
                continue;
            }
            if (state & kHasWork) {
                if (waitBehindQueuedWork()) {
                    // Handed the queue: carry the duty to wake the others.
                    state_.fetch_or(sleptBit, std::memory_order_relaxed);
                    return;
                }
                state = state_.load(std::memory_order_relaxed);
                continue;
            }
            if (!(state & kSleepers)) {
                if (!state_.compare_exchange_weak(state, state | kSleepers,
                                                  std::memory_order_relaxed)) {
                    continue;
                }
                state |= kSleepers;
            }
            futexWait(state_, state, DISPATCH_TIME_FOREVER);
            sleptBit = kSleepers;
            state = state_.load(std::memory_order_relaxed);
        }
    }

    // Queues the caller behind the asynchronous work and waits to be handed
    // the queue. Returns false when the work drained before the caller got in
    // line.
    bool waitBehindQueuedWork() {
        SyncWaiter waiter;
        {
            std::lock_guard lock(mutex_);
            if (!(state_.load(std::memory_order_relaxed) & kHasWork)) {
                return false;
            }
            items_.push(&waiter);
        }
        while (waiter.ready.load(std::memory_order_acquire) == 0) {
            futexWait(waiter.ready, 0, DISPATCH_TIME_FOREVER);
        }
        return true;
    }

    void release() {
        uint32_t state = kOwned;
        if (state_.compare_exchange_strong(state, 0, std::memory_order_release,
                                           std::memory_order_relaxed)) {
            return;
        }
        for (;;) {
            if (state & kHasWork) {
                passToQueuedWork();
                return;
            }
            if (state_.compare_exchange_weak(state, 0, std::memory_order_release,
                                             std::memory_order_relaxed)) {
                if (state & kSleepers) {
                    futexWake(state_, 1);
                }
                return;
            }
        }
    }

    // Gives exclusivity to the head of the list, which only the owner can
    // empty, so it is still there.
    void passToQueuedWork() {
        Work* head;
        {
            std::lock_guard lock(mutex_);
            head = items_.front();
            if (head->run != nullptr) {
                head = nullptr;
            } else {
                items_.pop();
                if (items_.empty()) {
                    state_.fetch_and(~kHasWork, std::memory_order_relaxed);
                }
            }
        }
        if (head == nullptr) {
            scheduleDrain();
            return;
        }
        // The waiter may return and reuse its stack as soon as it sees the
        // flag; a wake-up aimed at that address afterwards is harmless.
        auto* waiter = static_cast<SyncWaiter*>(head);
        waiter->ready.store(1, std::memory_order_release);
        futexWake(waiter->ready, 1);
    }

    // The drain task holds exclusivity and a reference to the queue.
    void scheduleDrain() {
        dispatch_retain(this);
        dispatch::internal::enqueue(target_, &drainWork_);
    }

    static void drainEntry(Work* self) {
        SerialQueue* queue = static_cast<DrainWork*>(self)->queue;
        queue->drain();
        dispatch_release(queue);
    }

    void drain() {
        int ran = 0;
        for (; ran < kDrainBatch; ++ran) {
            Work* work;
            {
                std::lock_guard lock(mutex_);
                work = items_.front();
                if (work == nullptr || work->run == nullptr) {
                    break;
                }
                items_.pop();
                if (items_.empty()) {
                    state_.fetch_and(~kHasWork, std::memory_order_relaxed);
                }
            }
            work->run(work);
        }
        // Under an endless stream of asynchronous work the queue would never be
        // free for sleeping sync callers; wake them so that they see the queued
        // work and take their place in line.
        if (ran == kDrainBatch &&
            (state_.fetch_and(~kSleepers, std::memory_order_relaxed) & kSleepers)) {
            futexWake(state_, INT_MAX);
        }
        release();
    }

    dispatch_queue_t const target_;
    std::atomic<uint32_t> state_{0};
    std::mutex mutex_;
    WorkList items_;
    DrainWork drainWork_;
};

void waitForQueueThread(dispatch_queue_t queue, void* context, dispatch_function_t work) {
    WaitedWork waited(context, work);
    dispatch::internal::enqueue(queue, &waited);
    waited.wait();
}

}  // namespace

void dispatch::internal::enqueue(dispatch_queue_t queue, Work* work) {
    switch (queue->kind_) {
        case dispatch_object_s::Kind::kSerialQueue:
            static_cast<SerialQueue*>(queue)->enqueue(work);
            return;
        case dispatch_object_s::Kind::kMainQueue:
            static_cast<MainQueue*>(queue)->enqueue(work);
            return;
        default:
            static_cast<GlobalQueue*>(queue)->enqueue(work);
            return;
    }
}

// --- Reference counting -----------------------------------------------------

dispatch_object_t dispatch_object_of(dispatch_queue_t queue) {
    return queue;
}

void dispatch_retain(dispatch_object_t object) {
    if (object && !object->immortal_) {
        object->refs_.fetch_add(1, std::memory_order_relaxed);
    }
}

void dispatch_release(dispatch_object_t object) {
    if (object && !object->immortal_ &&
        object->refs_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        delete object;
    }
}

// --- Time -------------------------------------------------------------------

dispatch_time_t dispatch_time(dispatch_time_t when, int64_t deltaNs) {
    if (when == DISPATCH_TIME_FOREVER) {
        return DISPATCH_TIME_FOREVER;
    }
    const uint64_t base =
        when == DISPATCH_TIME_NOW ? static_cast<uint64_t>(platform::nowNs()) : when;
    if (deltaNs >= 0) {
        const uint64_t delta = static_cast<uint64_t>(deltaNs);
        return delta >= DISPATCH_TIME_FOREVER - base ? DISPATCH_TIME_FOREVER : base + delta;
    }
    // Keep a time in the past a concrete instant rather than NOW.
    const uint64_t back = static_cast<uint64_t>(-(deltaNs + 1)) + 1;
    return back >= base ? 1 : base - back;
}

// --- Queues -----------------------------------------------------------------

dispatch_queue_t dispatch_queue_create(const char* label, dispatch_queue_attr_t attr) {
    return dispatch_queue_create_with_target(label, attr, nullptr);
}

dispatch_queue_t dispatch_queue_create_with_target(const char*, dispatch_queue_attr_t,
                                                   dispatch_queue_t target) {
    return new SerialQueue(target);
}

dispatch_queue_t dispatch_get_main_queue() {
    return mainQueue();
}

dispatch_queue_t dispatch_get_global_queue(intptr_t, uintptr_t) {
    return globalQueue();
}

void dispatch_sync_f(dispatch_queue_t queue, void* context, dispatch_function_t work) {
    switch (queue->kind_) {
        case dispatch_object_s::Kind::kSerialQueue:
            static_cast<SerialQueue*>(queue)->sync(context, work);
            return;
        case dispatch_object_s::Kind::kMainQueue:
            // Main-queue work runs only on the main thread, so the main thread
            // already holds the queue's exclusivity whenever it runs anything;
            // any other thread waits for the run loop to serve it.
            if (onMainThread()) {
                work(context);
            } else {
                waitForQueueThread(queue, context, work);
            }
            return;
        default:
            work(context);
            return;
    }
}

void dispatch_async_f(dispatch_queue_t queue, void* context, dispatch_function_t work) {
    dispatch::internal::enqueue(queue, new FunctionWork(context, work));
}

void dispatch_async_and_wait_f(dispatch_queue_t queue, void* context, dispatch_function_t work) {
    waitForQueueThread(queue, context, work);
}

// Serial queues run everything in order anyway, and the global queue has no
// barrier semantics: a barrier is ordinary asynchronous work on both.
void dispatch_barrier_async_f(dispatch_queue_t queue, void* context, dispatch_function_t work) {
    dispatch_async_f(queue, context, work);
}

void dispatch_barrier_inline_or_async_f(dispatch_queue_t queue, void* context,
                                        dispatch_function_t work) {
    if (queue->kind_ != dispatch_object_s::Kind::kSerialQueue ||
        !static_cast<SerialQueue*>(queue)->runIfIdle(context, work)) {
        dispatch_barrier_async_f(queue, context, work);
    }
}

void dispatch_async(dispatch_queue_t queue, dispatch_block_t work) {
    dispatch::internal::enqueue(queue, new BlockWork(std::move(work)));
}

// --- Main run loop hooks ------------------------------------------------------

int dispatch_main_queue_wakeup_fd() {
    return mainQueue()->wakeupFd();
}

int dispatch_main_queue_drain() {
    return mainQueue()->drain();
}
