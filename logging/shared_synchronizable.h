// SharedSynchronizable: a base that gives an object a serial dispatch queue of
// its own and ties the object's life to that queue.
//
// What derived classes and their users may rely on:
//  - execute_sync(closure) runs the closure on the object's queue, serialised
//    with everything else run there, and returns once it has run. Without a
//    target queue an idle queue runs the closure inline on the caller's
//    thread; with a target it always runs on one of the target's threads.
//  - Objects owned through make_shared_ptr are destroyed on their own queue,
//    after the work queued before the last reference went away and never
//    alongside other work there. Whoever drops that reference never waits for
//    other work: without a target queue, an idle queue runs the destruction at
//    once on the dropping thread (as execute_sync would); a busy queue, or one
//    with a target, runs it later on one of its own threads.
//
//   class Journal : public lum::SharedSynchronizable<Journal> { ... };
//   std::shared_ptr<Journal> journal = Journal::make_shared_ptr(new Journal(...));
#pragma once

#include <memory>

#include "platform/dispatch/dispatch.h"

namespace lum {

template <typename T>
class SharedSynchronizable : public std::enable_shared_from_this<T> {
  public:
    SharedSynchronizable(const SharedSynchronizable&) = delete;
    SharedSynchronizable& operator=(const SharedSynchronizable&) = delete;

    // Takes ownership of `object` (not null). The object's weak self reference
    // (shared_from_this) is seeded with the new owner unless it still refers
    // to a live owner: std::shared_ptr's raw-pointer constructor does exactly
    // that. If the owner's bookkeeping cannot be allocated, the constructor
    // applies the deleter at once (so the object is destroyed on its queue)
    // and rethrows std::bad_alloc.
    static std::shared_ptr<T> make_shared_ptr(T* object) {
        return std::shared_ptr<T>(object, &destroyOnOwnQueue);
    }

    // Runs `closure` on the object's queue by reference (no copy, no
    // allocation) and returns when it has run. Must not be called from the
    // object's queue: it would wait for itself.
    template <typename F>
    void execute_sync(F&& closure) const {
        if (targetQueue_ != nullptr) {
            dispatch_async_and_wait(queue_, closure);
        } else {
            dispatch_sync(queue_, closure);
        }
    }

  protected:
    // A serial queue for `label`'s work; with a `target`, the queue runs its work on the
    // target's threads and holds a reference to the target for its own life.
    SharedSynchronizable(const char* label, dispatch_queue_attr_t attributes,
                         dispatch_queue_t target)
        : queue_(nullptr), targetQueue_(target) {
        if (target != nullptr) {
            dispatch_retain(target);
            queue_ = dispatch_queue_create_with_target(label, attributes, target);
        } else {
            queue_ = dispatch_queue_create(label, attributes);
        }
    }

    ~SharedSynchronizable() {
        if (targetQueue_ != nullptr) {
            dispatch_release(targetQueue_);
        }
        dispatch_release(queue_);
    }

    dispatch_queue_t queue_;
    dispatch_queue_t targetQueue_;

  private:
    // Runs on whichever thread drops the last strong reference. Destruction on
    // an idle queue needs no other thread; starting one would cost a wake-up
    // or a thread start on every teardown. The work item keeps the queue alive
    // while it runs, so the destructor may give back the object's own
    // reference to that queue.
    static void destroyOnOwnQueue(T* object) {
        dispatch_barrier_inline_or_async_f(static_cast<SharedSynchronizable*>(object)->queue_,
                                           object,
                                           [](void* context) { delete static_cast<T*>(context); });
    }
};

}  // namespace lum
