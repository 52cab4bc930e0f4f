// Futex waits and wakes on a 32-bit atomic, for the platform layers' own
// blocking: a sleeper costs nothing until a waker touches its word.
#pragma once

#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>

#include "platform/posix/clock.h"

namespace platform {

// A deadline that never comes.
inline constexpr uint64_t kNoDeadline = ~uint64_t{0};

// Sleeps while `word` holds `expected`, until woken or until `deadlineNs`
// (absolute CLOCK_MONOTONIC nanoseconds, or kNoDeadline). May return early
// (a wake-up, a signal): callers re-check their condition. Returns false only
// when the deadline passed.
inline bool futexWait(std::atomic<uint32_t>& word, uint32_t expected, uint64_t deadlineNs) {
    static_assert(sizeof(std::atomic<uint32_t>) == sizeof(uint32_t));
    const timespec limit = toTimespec(deadlineNs);
    const timespec* limitPtr = deadlineNs != kNoDeadline ? &limit : nullptr;
    // FUTEX_WAIT_BITSET takes an absolute CLOCK_MONOTONIC deadline, so a wait
    // interrupted and restarted never stretches the time-out.
    const long rc = syscall(SYS_futex, reinterpret_cast<uint32_t*>(&word),
                            FUTEX_WAIT_BITSET | FUTEX_PRIVATE_FLAG, expected, limitPtr, nullptr,
                            FUTEX_BITSET_MATCH_ANY);
    return !(rc != 0 && errno == ETIMEDOUT);
}

// Wakes up to `count` sleepers on `word`.
inline void futexWake(std::atomic<uint32_t>& word, int count) {
    syscall(SYS_futex, reinterpret_cast<uint32_t*>(&word), FUTEX_WAKE | FUTEX_PRIVATE_FLAG, count,
            nullptr, nullptr, 0);
}

}  // namespace platform
