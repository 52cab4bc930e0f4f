#include "platform/posix/thread.h"

#include <sys/prctl.h>

#include <system_error>

#include "platform/posix/signal_mask.h"

namespace platform {

std::optional<std::thread> startThread(const char* name, std::function<void()> body) {
    const ScopedThreadSignalMask mask;
    std::optional<std::thread> thread;
    try {
        // The thread names itself: one call of its own, where naming it from
        // here would open and write its /proc entry on the caller's time.
        thread.emplace([name, body = std::move(body)] {
            prctl(PR_SET_NAME, name);
            body();
        });
    } catch (const std::system_error&) {
        return std::nullopt;
    }
    return thread;
}

}  // namespace platform
