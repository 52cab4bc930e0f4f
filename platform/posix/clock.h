// Clock readings in nanoseconds, and the timespec conversions that the platform
// layers' timers, futexes and time stamps share.
#pragma once

#include <time.h>

#include <cstdint>

namespace platform {

inline constexpr int64_t kNsPerSecond = 1'000'000'000;
inline constexpr int64_t kNsPerMs = 1'000'000;

inline constexpr int64_t toNs(const timespec& time) {
    return int64_t{time.tv_sec} * kNsPerSecond + time.tv_nsec;
}

// `ns` (not negative) as a timespec.
inline constexpr timespec toTimespec(uint64_t ns) {
    return {static_cast<time_t>(ns / kNsPerSecond), static_cast<long>(ns % kNsPerSecond)};
}

// The time of `clock` in nanoseconds; CLOCK_MONOTONIC unless asked otherwise.
inline int64_t nowNs(clockid_t clock = CLOCK_MONOTONIC) {
    timespec now{};
    clock_gettime(clock, &now);
    return toNs(now);
}

}  // namespace platform
