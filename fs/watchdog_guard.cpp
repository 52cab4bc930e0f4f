#include "fs/watchdog_guard.h"

#include "platform/watchdog/watchdog.h"

namespace fsutil {

WatchdogGuard::WatchdogGuard() : handle_(0) {
    TelephonyBasebandWatchdogStartWithStackshot(&handle_, kWatchdogTimeoutMs, kWatchdogReason);
}

WatchdogGuard::~WatchdogGuard() noexcept {
    TelephonyBasebandWatchdogStop(&handle_);
}

}  // namespace fsutil
