#include "platform/watchdog/watchdog.h"

#include <pthread.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <optional>
#include <thread>

#include "platform/posix/clock.h"
#include "platform/posix/futex.h"
#include "platform/posix/thread.h"
#include "platform/watchdog/stack_report.h"

namespace {

using platform::kNsPerMs;
using platform::nowNs;

// A slot's state word keeps the slot's generation above the low bits and its
// state in them. The generation grows each time the slot is freed, so a
// handle (generation, slot index) names one arming, and a stale stop finds a
// different generation and changes nothing.
enum SlotState : uint64_t {
    kFree = 0,
    kClaiming = 1,  // the arming thread is filling in the fields
    kArmed = 2,
    kExpired = 3,    // the monitor is reporting it
    kAbandoned = 4,  // stopped while being reported; the monitor frees it
    kReported = 5,   // report written; the stop frees it
};
constexpr int kStateBits = 3;
constexpr uint64_t kStateMask = (uint64_t{1} << kStateBits) - 1;
constexpr int kSlotBits = 8;
constexpr uint64_t kSlotMask = kTelephonyBasebandWatchdogCapacity - 1;
static_assert(kTelephonyBasebandWatchdogCapacity == 1 << kSlotBits);

constexpr uint64_t makeWord(uint64_t generation, uint64_t state) {
    return generation << kStateBits | state;
}
constexpr uint64_t generationOf(uint64_t word) {
    return word >> kStateBits;
}
constexpr uint64_t stateOf(uint64_t word) {
    return word & kStateMask;
}

// One cache line per slot, so that threads arming on different cores do not
// contend. The fields other than `word` belong to whoever moved the slot out
// of kFree; they are atomics only because the monitor reads them while
// checking deadlines.
struct alignas(64) Slot {
    std::atomic<uint64_t> word{makeWord(1, kFree)};
    std::atomic<int64_t> deadlineNs{0};
    std::atomic<int32_t> timeoutMs{0};
    std::atomic<pid_t> tid{0};
    std::atomic<const char*> reason{nullptr};
};

Slot sSlots[kTelephonyBasebandWatchdogCapacity];

constexpr int64_t kNever = INT64_MAX;

// The coarse clock is read through the vDSO without a system call and may lag
// the precise one by up to a tick (at least 100 Hz), so deadlines are pushed
// back by that much: a guard never expires early.
constexpr int64_t kCoarseLagNs = 10 * kNsPerMs;

// After guards came and went, the monitor rescans once after this long before
// it sleeps without a deadline. Without that pause an idle monitor would be
// woken by almost every arm of a stream of short guards.
constexpr int64_t kIdleRescanNs = 1000 * kNsPerMs;

// When the monitor scans next; kNever while it scans or sleeps without a
// deadline. An arm whose deadline is earlier wakes it.
std::atomic<int64_t> sMonitorWakeAt{kNever};
// The futex word the monitor sleeps on; each wake bumps it.
std::atomic<uint32_t> sWakeSequence{0};
std::atomic<bool> sMonitorStarted{false};
std::atomic<bool> sForkHandlerInstalled{false};

__attribute__((tls_model("initial-exec"))) thread_local pid_t sThreadId = 0;

pid_t currentThreadId() {
    if (sThreadId == 0) {
        sThreadId = gettid();
    }
    return sThreadId;
}

void wakeMonitor() {
    sWakeSequence.fetch_add(1);
    platform::futexWake(sWakeSequence, INT_MAX);
}

// --- The monitor ------------------------------------------------------------

void expire(Slot& slot, uint64_t armedWord) {
    const uint64_t generation = generationOf(armedWord);
    const int32_t timeoutMs = slot.timeoutMs.load(std::memory_order_relaxed);
    const int64_t armedAgoMs = (nowNs(CLOCK_MONOTONIC_COARSE) -
                                (slot.deadlineNs.load(std::memory_order_relaxed) - kCoarseLagNs)) /
                                   kNsPerMs +
                               timeoutMs;
    watchdog::writeStackReport(slot.tid.load(std::memory_order_relaxed),
                               slot.reason.load(std::memory_order_relaxed), timeoutMs, armedAgoMs);
    uint64_t expected = makeWord(generation, kExpired);
    if (!slot.word.compare_exchange_strong(expected, makeWord(generation, kReported))) {
        slot.word.store(makeWord(generation + 1, kFree), std::memory_order_release);
    }
}

void monitorMain() {
    watchdog::prepareStackReports();
    timespec resolution{};
    clock_getres(CLOCK_MONOTONIC_COARSE, &resolution);
    const int64_t tickNs = platform::toNs(resolution);

    uint64_t previousActivity = 0;
    for (;;) {
        // While it scans, the monitor may miss an arm; kNever makes every such
        // arm wake it, and the sequence read before the scan makes that wake
        // end the sleep below at once.
        sMonitorWakeAt.store(kNever);
        const uint32_t sequence = sWakeSequence.load();
        const int64_t now = nowNs(CLOCK_MONOTONIC_COARSE);
        int64_t next = kNever;
        uint64_t activity = 0;
        for (Slot& slot : sSlots) {
            // Sequentially consistent, like the arm's store and the wake-time
            // store above: the pairing only holds if all four are.
            uint64_t word = slot.word.load();
            activity += word;
            if (stateOf(word) != kArmed) {
                continue;
            }
            const int64_t deadline = slot.deadlineNs.load(std::memory_order_relaxed);
            if (deadline > now) {
                next = std::min(next, deadline);
            } else if (slot.word.compare_exchange_strong(word,
                                                         makeWord(generationOf(word), kExpired))) {
                expire(slot, word);
            }
        }
        if (next == kNever && activity != previousActivity) {
            next = now + kIdleRescanNs;
        }
        previousActivity = activity;
        sMonitorWakeAt.store(next);
        if (next == kNever) {
            platform::futexWait(sWakeSequence, sequence, platform::kNoDeadline);
        } else {
            // `next` is on the coarse clock, the wait on the precise one.
            const int64_t sleepNs =
                std::max<int64_t>(next - nowNs(CLOCK_MONOTONIC_COARSE), 0) + tickNs;
            platform::futexWait(sWakeSequence, sequence,
                                static_cast<uint64_t>(nowNs(CLOCK_MONOTONIC) + sleepNs));
        }
    }
}

// A forked child has none of the parent's other threads and a new thread id:
// it starts with an empty table and starts its own monitor on its first arm.
void resetAfterFork() {
    sThreadId = 0;
    for (Slot& slot : sSlots) {
        const uint64_t word = slot.word.load(std::memory_order_relaxed);
        slot.word.store(makeWord(generationOf(word) + 1, kFree), std::memory_order_relaxed);
    }
    watchdog::resetStackReportsAfterFork();
    sMonitorWakeAt.store(kNever);
    sMonitorStarted.store(false);
}

void startMonitor() {
    if (!sForkHandlerInstalled.exchange(true)) {
        pthread_atfork(nullptr, nullptr, resetAfterFork);
    }
    std::optional<std::thread> thread = platform::startThread("kel-watchdog", monitorMain);
    if (thread) {
        thread->detach();
    }
}

}  // namespace

extern "C" int TelephonyBasebandWatchdogStartWithStackshot(uint64_t* handle, int32_t timeoutMs,
                                                           const char* reason) {
    if (handle == nullptr) {
        return -1;
    }
    *handle = 0;
    if (timeoutMs < 0 || reason == nullptr) {
        return -1;
    }
    if (!sMonitorStarted.load(std::memory_order_relaxed) && !sMonitorStarted.exchange(true)) {
        startMonitor();
    }
    const pid_t tid = currentThreadId();
    // Each thread starts looking at its own place in the table, so threads on
    // different cores rarely touch the same slots.
    const uint64_t home = (static_cast<uint32_t>(tid) * 0x9E3779B1u) >> (32 - kSlotBits);
    for (uint64_t i = 0; i < kTelephonyBasebandWatchdogCapacity; ++i) {
        const uint64_t index = (home + i) & kSlotMask;
        Slot& slot = sSlots[index];
        uint64_t word = slot.word.load(std::memory_order_relaxed);
        if (stateOf(word) != kFree || !slot.word.compare_exchange_strong(
                                          word, makeWord(generationOf(word), kClaiming),
                                          std::memory_order_acquire, std::memory_order_relaxed)) {
            continue;
        }
        const uint64_t generation = generationOf(word);
        const int64_t deadline =
            nowNs(CLOCK_MONOTONIC_COARSE) + timeoutMs * kNsPerMs + kCoarseLagNs;
        slot.deadlineNs.store(deadline, std::memory_order_relaxed);
        slot.timeoutMs.store(timeoutMs, std::memory_order_relaxed);
        slot.tid.store(tid, std::memory_order_relaxed);
        slot.reason.store(reason, std::memory_order_relaxed);
        // Sequentially consistent with the monitor's store of its wake time:
        // either the monitor's scan sees this guard, or this load sees a wake
        // time that tells whether the monitor must be woken.
        slot.word.store(makeWord(generation, kArmed));
        *handle = generation << kSlotBits | index;
        if (deadline < sMonitorWakeAt.load()) {
            wakeMonitor();
        }
        return 0;
    }
    return -1;
}

extern "C" int TelephonyBasebandWatchdogStop(uint64_t* handle) {
    if (handle == nullptr) {
        return -1;
    }
    const uint64_t generation = *handle >> kSlotBits;
    Slot& slot = sSlots[*handle & kSlotMask];
    uint64_t word = slot.word.load(std::memory_order_relaxed);
    while (generationOf(word) == generation) {
        uint64_t next;
        switch (stateOf(word)) {
            case kArmed:
            case kReported:
                next = makeWord(generation + 1, kFree);
                break;
            case kExpired:
                next = makeWord(generation, kAbandoned);
                break;
            default:
                return -1;
        }
        if (slot.word.compare_exchange_weak(word, next, std::memory_order_release,
                                            std::memory_order_relaxed)) {
            return 0;
        }
    }
    return -1;
}
