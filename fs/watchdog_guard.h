// A scope that keeps the watchdog armed around one step of file-system work:
// if the step is still running after kWatchdogTimeoutMs, the watchdog service
// records a stack report of the thread, labelled kWatchdogReason. The step is
// not interrupted.
#pragma once

#include <stdint.h>

namespace fsutil {

inline constexpr int32_t kWatchdogTimeoutMs = 5000;

// One string for every guard, handed to the service by address.
inline constexpr char kWatchdogReason[] = "KEL: Watchdog timed out";

// Arms the watchdog when constructed and disarms it when destroyed. Whether
// arming succeeded is not examined: when the service cannot arm (its table is
// full) the step simply runs unguarded.
class [[nodiscard]] WatchdogGuard {
  public:
    WatchdogGuard();
    ~WatchdogGuard() noexcept;

    WatchdogGuard(const WatchdogGuard&) = delete;
    WatchdogGuard& operator=(const WatchdogGuard&) = delete;
    WatchdogGuard(WatchdogGuard&&) = delete;
    WatchdogGuard& operator=(WatchdogGuard&&) = delete;

  private:
    uint64_t handle_;
};

}  // namespace fsutil
