#include "platform/watchdog/watchdog.h"

#include <cxxabi.h>
#include <dlfcn.h>
#include <errno.h>
#include <execinfo.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "platform/posix/futex.h"
#include "platform/posix/signal_mask.h"
#include "platform/systemlog/system_log.h"
#include "platform/trace/trace.h"

namespace {

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
constexpr int64_t kNsPerMs = 1'000'000;

// The coarse clock is read through the vDSO without a system call and may lag
// the precise one by up to a tick (at least 100 Hz), so deadlines are pushed
// back by that much: a guard never expires early.
constexpr int64_t kCoarseLagNs = 10 * kNsPerMs;

// After guards came and went, the monitor rescans once after this long before
// it sleeps without a deadline. Without that pause an idle monitor would be
// woken by almost every arm of a stream of short guards.
constexpr int64_t kIdleRescanNs = 1000 * kNsPerMs;

// How long a hung thread has to answer the stack-report signal.
constexpr int64_t kCaptureTimeoutNs = 500 * kNsPerMs;

// When the monitor scans next; kNever while it scans or sleeps without a
// deadline. An arm whose deadline is earlier wakes it.
std::atomic<int64_t> sMonitorWakeAt{kNever};
// The futex word the monitor sleeps on; each wake bumps it.
std::atomic<uint32_t> sWakeSequence{0};
std::atomic<bool> sMonitorStarted{false};
std::atomic<bool> sForkHandlerInstalled{false};

__attribute__((tls_model("initial-exec"))) thread_local pid_t sThreadId = 0;

int64_t nowNs(clockid_t clock) {
    timespec ts;
    clock_gettime(clock, &ts);
    return ts.tv_sec * 1'000'000'000 + ts.tv_nsec;
}

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

// --- Capturing a thread's stack ---------------------------------------------

constexpr int kMaxFrames = 64;
constexpr pid_t kCapturing = -1;

// One capture at a time: only the monitor asks for stacks. `target` is the
// thread asked to fill in `frames`, kCapturing while it does, 0 otherwise. The
// handler itself sets it back to 0 when it has finished, so a capture that the
// monitor gave up on keeps the buffer to itself until it is over.
struct Capture {
    std::atomic<pid_t> target{0};
    std::atomic<uint32_t> done{0};
    void* frames[kMaxFrames];
    int depth = 0;
};
Capture sCapture;

void onStackReportSignal(int, siginfo_t*, void*) {
    const int savedErrno = errno;
    pid_t expected = static_cast<pid_t>(syscall(SYS_gettid));
    if (sCapture.target.compare_exchange_strong(expected, kCapturing)) {
        sCapture.depth = backtrace(sCapture.frames, kMaxFrames);
        sCapture.done.store(1, std::memory_order_release);
        sCapture.target.store(0);
        platform::futexWake(sCapture.done, INT_MAX);
    }
    errno = savedErrno;
}

// Asks `tid` for its stack and waits a bounded time; returns the number of
// frames in sCapture.frames, 0 when the thread did not answer in time (or an
// earlier capture that was given up on is still running).
int captureStack(pid_t tid) {
    if (sCapture.target.load() != 0) {
        return 0;
    }
    sCapture.done.store(0, std::memory_order_relaxed);
    sCapture.target.store(tid);
    if (tgkill(getpid(), tid, platform::stackReportSignal()) != 0) {
        sCapture.target.store(0);
        return 0;
    }
    // First the thread has to take the signal; once its handler runs, the
    // unwinding gets as long again before the report goes out without it.
    int64_t giveUpAt = nowNs(CLOCK_MONOTONIC) + kCaptureTimeoutNs;
    bool started = false;
    while (sCapture.done.load(std::memory_order_acquire) == 0) {
        const int64_t remaining = giveUpAt - nowNs(CLOCK_MONOTONIC);
        if (remaining <= 0) {
            pid_t expected = tid;
            if (started || sCapture.target.compare_exchange_strong(expected, 0)) {
                return 0;
            }
            started = true;
            giveUpAt = nowNs(CLOCK_MONOTONIC) + kCaptureTimeoutNs;
            continue;
        }
        platform::futexWait(sCapture.done, 0, static_cast<uint64_t>(giveUpAt));
    }
    return sCapture.depth;
}

void installSignalHandler() {
    struct sigaction action {};
    action.sa_sigaction = onStackReportSignal;
    action.sa_flags = SA_SIGINFO | SA_RESTART;
    sigemptyset(&action.sa_mask);
    sigaction(platform::stackReportSignal(), &action, nullptr);
}

// --- Writing a report ---------------------------------------------------------

std::string readProcFile(pid_t tid, const char* leaf) {
    char path[64];
    snprintf(path, sizeof path, "/proc/self/task/%d/%s", static_cast<int>(tid), leaf);
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return "?";
    }
    char buffer[1024];
    const ssize_t length = read(fd, buffer, sizeof buffer);
    close(fd);
    if (length <= 0) {
        return "?";
    }
    std::string text(buffer, static_cast<size_t>(length));
    while (!text.empty() && (text.back() == '\n' || text.back() == '\0')) {
        text.pop_back();
    }
    return text;
}

// The one-letter scheduler state from /proc/.../stat; the thread name before
// it is in parentheses and may itself contain ')' or spaces.
std::string schedulerState(pid_t tid) {
    const std::string stat = readProcFile(tid, "stat");
    const size_t close = stat.rfind(')');
    return close != std::string::npos && close + 2 < stat.size() ? stat.substr(close + 2, 1) : "?";
}

std::string describeFrame(void* address) {
    char line[1024];
    Dl_info info{};
    if (dladdr(address, &info) == 0) {
        snprintf(line, sizeof line, "%p ??", address);
        return line;
    }
    const char* object = info.dli_fname != nullptr ? info.dli_fname : "??";
    if (info.dli_sname == nullptr) {
        snprintf(
            line, sizeof line, "%p (%s+%#zx)", address, object,
            static_cast<size_t>(static_cast<char*>(address) - static_cast<char*>(info.dli_fbase)));
        return line;
    }
    int status = 0;
    char* demangled = abi::__cxa_demangle(info.dli_sname, nullptr, nullptr, &status);
    snprintf(line, sizeof line, "%p %s+%#zx (%s)", address,
             status == 0 && demangled != nullptr ? demangled : info.dli_sname,
             static_cast<size_t>(static_cast<char*>(address) - static_cast<char*>(info.dli_saddr)),
             object);
    free(demangled);
    return line;
}

std::string wallClockNow() {
    timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    tm utc;
    gmtime_r(&ts.tv_sec, &utc);
    char text[64];
    const size_t length = strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
    snprintf(text + length, sizeof text - length, ".%03ldZ", ts.tv_nsec / kNsPerMs);
    return text;
}

// Creates `folder` and its missing parents with mode 0755.
void makeFolder(const std::string& folder) {
    for (size_t slash = folder.find('/', 1); slash != std::string::npos;
         slash = folder.find('/', slash + 1)) {
        mkdir(folder.substr(0, slash).c_str(), 0755);
    }
    mkdir(folder.c_str(), 0755);
}

// Writes `lines` to a new file in the snapshot folder; returns its path, or a
// note saying why there is none.
std::string writeSnapshotFile(pid_t tid, const std::vector<std::string>& lines) {
    static unsigned sSequence = 0;
    const std::string folder = kel::trace::kSnapshotFolder;
    makeFolder(folder);
    char name[96];
    snprintf(name, sizeof name, "stackshot-%d-%d-%u.txt", static_cast<int>(getpid()),
             static_cast<int>(tid), ++sSequence);
    const std::string path = folder + name;
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) {
        return "(not written: " + std::string(strerror(errno)) + ")";
    }
    std::string text;
    for (const std::string& line : lines) {
        text += line;
        text += '\n';
    }
    int error = 0;
    for (size_t written = 0; written < text.size();) {
        const ssize_t n = write(fd, text.data() + written, text.size() - written);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            // A zero-length write sets no errno; call it what it is.
            error = n < 0 ? errno : ENOSPC;
            break;
        }
        written += static_cast<size_t>(n);
    }
    close(fd);
    return error == 0 ? path : path + " (incomplete: " + strerror(error) + ")";
}

void report(pid_t tid, const char* reason, int32_t timeoutMs, int64_t deadlineNs) {
    const int64_t armedAgoMs =
        (nowNs(CLOCK_MONOTONIC_COARSE) - (deadlineNs - kCoarseLagNs)) / kNsPerMs + timeoutMs;
    const int depth = captureStack(tid);

    std::vector<std::string> lines;
    lines.push_back(std::string("stack report: ") + reason);
    lines.push_back("time: " + wallClockNow());
    lines.push_back("process: " + std::to_string(getpid()));
    lines.push_back("thread: " + std::to_string(tid) + " \"" + readProcFile(tid, "comm") + "\"");
    lines.push_back("timeout: " + std::to_string(timeoutMs) + " ms, armed " +
                    std::to_string(armedAgoMs) + " ms ago");
    lines.push_back("state: " + schedulerState(tid) + ", wchan: " + readProcFile(tid, "wchan") +
                    ", syscall: " + readProcFile(tid, "syscall"));
    if (depth == 0) {
        lines.push_back("backtrace: unavailable (the thread did not answer)");
    } else {
        lines.push_back("backtrace:");
        // Frame 0 is the signal handler itself.
        for (int i = 1; i < depth; ++i) {
            lines.push_back("  #" + std::to_string(i - 1) + " " +
                            describeFrame(sCapture.frames[i]));
        }
    }
    const std::string file = writeSnapshotFile(tid, lines);

    static const systemlog::Handle sLog = systemlog::create("kel.watchdog", "stack-report");
    for (const std::string& line : lines) {
        systemlog::write(sLog, systemlog::Level::kError, "%s", line.c_str());
    }
    systemlog::write(sLog, systemlog::Level::kError, "stack report file: %s", file.c_str());
}

// --- The monitor ------------------------------------------------------------

void expire(Slot& slot, uint64_t armedWord) {
    const uint64_t generation = generationOf(armedWord);
    report(slot.tid.load(std::memory_order_relaxed), slot.reason.load(std::memory_order_relaxed),
           slot.timeoutMs.load(std::memory_order_relaxed),
           slot.deadlineNs.load(std::memory_order_relaxed));
    uint64_t expected = makeWord(generation, kExpired);
    if (!slot.word.compare_exchange_strong(expected, makeWord(generation, kReported))) {
        slot.word.store(makeWord(generation + 1, kFree), std::memory_order_release);
    }
}

void* monitorMain(void*) {
    // backtrace() loads the unwinder on its first call, which is not safe in
    // a signal handler: load it here, before any signal is sent.
    void* warmUp[1];
    backtrace(warmUp, 1);
    installSignalHandler();
    timespec resolution{};
    clock_getres(CLOCK_MONOTONIC_COARSE, &resolution);
    const int64_t tickNs = resolution.tv_sec * 1'000'000'000 + resolution.tv_nsec;

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
    sCapture.target.store(0);
    sMonitorWakeAt.store(kNever);
    sMonitorStarted.store(false);
}

void startMonitor() {
    if (!sForkHandlerInstalled.exchange(true)) {
        pthread_atfork(nullptr, nullptr, resetAfterFork);
    }
    platform::ScopedThreadSignalMask mask;
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_t thread;
    if (pthread_create(&thread, &attributes, monitorMain, nullptr) == 0) {
        pthread_setname_np(thread, "kel-watchdog");
    }
    pthread_attr_destroy(&attributes);
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
