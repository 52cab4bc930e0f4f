// Groups: a count of work in flight, waited on with a futex, and the work to
// run once the count drops to zero.
#include <climits>
#include <mutex>
#include <vector>

#include "platform/dispatch/dispatch.h"
#include "platform/dispatch/dispatch_internal.h"
#include "platform/posix/futex.h"

using platform::futexWait;
using platform::futexWake;

struct dispatch_group_s : dispatch_object_s {
    dispatch_group_s() : dispatch_object_s(Kind::kGroup, false) {}

    struct Notification {
        dispatch_queue_t queue;
        dispatch_block_t work;
    };

    std::atomic<uint32_t> count_{0};
    std::mutex mutex_;
    std::vector<Notification> notifications_;
};

dispatch_object_t dispatch_object_of(dispatch_group_t group) {
    return group;
}

dispatch_group_t dispatch_group_create() {
    return new dispatch_group_s;
}

void dispatch_group_enter(dispatch_group_t group) {
    group->count_.fetch_add(1, std::memory_order_relaxed);
}

void dispatch_group_leave(dispatch_group_t group) {
    // A waiter may release the group as soon as the count reaches zero; keep
    // it alive for the wake-up and the notifications.
    dispatch_retain(group);
    if (group->count_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        futexWake(group->count_, INT_MAX);
        std::vector<dispatch_group_s::Notification> due;
        {
            std::lock_guard lock(group->mutex_);
            // Someone may have entered again meanwhile; the notifications then
            // wait for the next time the group empties.
            if (group->count_.load(std::memory_order_acquire) == 0) {
                due.swap(group->notifications_);
            }
        }
        for (auto& notification : due) {
            dispatch_async(notification.queue, std::move(notification.work));
            dispatch_release(notification.queue);
        }
    }
    dispatch_release(group);
}

long dispatch_group_wait(dispatch_group_t group, dispatch_time_t timeout) {
    for (;;) {
        const uint32_t count = group->count_.load(std::memory_order_acquire);
        if (count == 0) {
            return 0;
        }
        if (timeout == DISPATCH_TIME_NOW || !futexWait(group->count_, count, timeout)) {
            return group->count_.load(std::memory_order_acquire) == 0 ? 0 : 1;
        }
    }
}

void dispatch_group_notify(dispatch_group_t group, dispatch_queue_t queue, dispatch_block_t work) {
    {
        std::lock_guard lock(group->mutex_);
        if (group->count_.load(std::memory_order_acquire) != 0) {
            dispatch_retain(queue);
            group->notifications_.push_back({queue, std::move(work)});
            return;
        }
    }
    dispatch_async(queue, std::move(work));
}

namespace dispatch {

group_session::group_session(dispatch_group_t group) : group_(group) {
    if (group_) {
        dispatch_retain(group_);
        dispatch_group_enter(group_);
    }
}

group_session::group_session(const group_session& other) : group_session(other.group_) {}

group_session::~group_session() {
    if (group_) {
        dispatch_group_leave(group_);
        dispatch_release(group_);
    }
}

}  // namespace dispatch
