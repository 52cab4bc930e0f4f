// Pieces shared by the queue and source halves of the dispatch library. Not
// part of the public interface.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>

#include "platform/dispatch/dispatch.h"
#include "platform/posix/futex.h"

struct dispatch_object_s {
    enum class Kind : uint8_t { kSerialQueue, kMainQueue, kGlobalQueue, kGroup, kSource };

    dispatch_object_s(Kind kind, bool immortal) : kind_(kind), immortal_(immortal) {}
    dispatch_object_s(const dispatch_object_s&) = delete;
    dispatch_object_s& operator=(const dispatch_object_s&) = delete;
    virtual ~dispatch_object_s() = default;

    const Kind kind_;
    const bool immortal_;
    std::atomic<int32_t> refs_{1};
};

struct dispatch_queue_s : dispatch_object_s {
    using dispatch_object_s::dispatch_object_s;
};

namespace dispatch::internal {

// One unit of queued work. Items are linked intrusively so that queueing
// needs no allocation beyond the item itself (and none for the items that
// live inside a queue or a source).
struct Work {
    // Runs the item and disposes of it. Null marks a synchronous caller waiting
    // for its turn on a serial queue; such an entry is handed the queue instead
    // of being run.
    void (*run)(Work* self) = nullptr;
    Work* next = nullptr;
};

// FIFO of Work items; the owner provides the locking.
class WorkList {
  public:
    bool empty() const { return head_ == nullptr; }
    Work* front() const { return head_; }
    void push(Work* work);
    Work* pop();
    // Moves every item out, leaving this list empty.
    WorkList take();

  private:
    Work* head_ = nullptr;
    Work* tail_ = nullptr;
};

// Adds `work` to `queue` (any kind) as asynchronous work.
void enqueue(dispatch_queue_t queue, Work* work);

// The epoll instance behind the main queue's wake-up fd, or -1 when there is
// none (sources on the main queue are then watched by the event thread). It
// holds the main queue's eventfd under kMainQueueWakeupId and the fds of the
// main queue's sources under their ids.
int mainQueuePollFd();
inline constexpr uint64_t kMainQueueWakeupId = 0;  // source ids start at 1

// Turns the events that have arrived on `pollFd` for main-queue sources into
// firings queued on the main queue. The main queue's drain calls it first.
void queueMainQueueSourceFirings(int pollFd);

// Waits on futexes take DISPATCH_TIME_FOREVER as "no deadline".
static_assert(DISPATCH_TIME_FOREVER == platform::kNoDeadline);

// Starts a detached platform thread (platform/posix/thread.h) running `body`.
// Returns false when the thread could not be started.
[[nodiscard]] bool startDetachedThread(const char* name, std::function<void()> body);

}  // namespace dispatch::internal
