#include "fs/watchdog_guard.h"

#include "platform/watchdog/watchdog.h"

namespace fsutil {

WatchdogGuard::WatchdogGuard() : reason_(kWatchdogReason), handle_(0) {
    TelephonyBasebandWatchdogStartWithStackshot(&handle_, kWatchdogTimeoutMs, reason_);
}

WatchdogGuard::~WatchdogGuard() noexcept {
    TelephonyBasebandWatchdogStop(&handle_);
}

}  // namespace fsutil
