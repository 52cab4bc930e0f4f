#include "platform/posix/thread.h"

#include <pthread.h>

#include <system_error>

#include "platform/posix/signal_mask.h"

namespace platform {

std::optional<std::thread> startThread(const char* name, std::function<void()> body) {
    const ScopedThreadSignalMask mask;
    std::optional<std::thread> thread;
    try {
        thread.emplace(std::move(body));
    } catch (const std::system_error&) {
        return std::nullopt;
    }
    pthread_setname_np(thread->native_handle(), name);
    return thread;
}

}  // namespace platform
