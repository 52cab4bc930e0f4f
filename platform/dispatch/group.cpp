// Groups: a count of work in flight, waited on with a futex.
#include <climits>

#include "platform/dispatch/dispatch.h"
#include "platform/dispatch/dispatch_internal.h"
#include "platform/posix/futex.h"

using platform::futexWait;
using platform::futexWake;

struct dispatch_group_s : dispatch_object_s {
    dispatch_group_s() : dispatch_object_s(Kind::kGroup, false) {}

    std::atomic<uint32_t> count_{0};
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
    // it alive for the wake-up.
    dispatch_retain(group);
    if (group->count_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        futexWake(group->count_, INT_MAX);
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
