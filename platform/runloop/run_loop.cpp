#include "platform/runloop/run_loop.h"

#include <poll.h>

#include <cmath>

#include "platform/dispatch/dispatch.h"

namespace runloop {
namespace {

// Sleeps until the main queue has work or `timeoutMs` passes. Returns whether
// there may be work. A poll of the main queue's wake-up descriptor needs no
// descriptor of its own, so the loop works however few the process may open.
// Without that descriptor the loop still sleeps (and drains at each slice's
// end) instead of spinning.
bool waitForWork(int timeoutMs) {
    pollfd wakeup{dispatch_main_queue_wakeup_fd(), POLLIN, 0};
    if (wakeup.fd < 0) {
        poll(nullptr, 0, timeoutMs);
        return true;
    }
    return poll(&wakeup, 1, timeoutMs) > 0;
}

}  // namespace

RunResult runInDefaultMode(double seconds, bool returnAfterSourceHandled) {
    // Clamp to a day; NaN and negative slices end at once.
    const double sliceNs = std::isgreater(seconds, 0.0) ? std::fmin(seconds, 86400.0) * 1e9 : 0.0;
    const dispatch_time_t deadline =
        dispatch_time(DISPATCH_TIME_NOW, static_cast<int64_t>(sliceNs));
    for (;;) {
        const dispatch_time_t now = dispatch_time(DISPATCH_TIME_NOW, 0);
        if (now >= deadline) {
            return RunResult::kTimedOut;
        }
        // Round up, so that a wait never ends just short of the deadline and
        // costs a second wake-up for the remainder.
        const uint64_t remainingMs = (deadline - now + 999'999) / 1'000'000;
        if (waitForWork(static_cast<int>(remainingMs)) && dispatch_main_queue_drain() > 0 &&
            returnAfterSourceHandled) {
            return RunResult::kHandledSource;
        }
    }
}

}  // namespace runloop
