// dispatch_sync against the alternatives it replaces: an inline call on an idle
// queue, and a std::mutex when several threads contend.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <mutex>

#include "platform/dispatch/dispatch.h"

namespace {

[[gnu::noinline]] void increment(void* context) {
    ++*static_cast<long*>(context);
}

void BM_InlineCall(benchmark::State& state) {
    long counter = 0;
    void (*volatile function)(void*) = &increment;
    for (auto _ : state) {
        function(&counter);
    }
    benchmark::DoNotOptimize(counter);
}
BENCHMARK(BM_InlineCall);

void BM_MutexLockUnlock(benchmark::State& state) {
    std::mutex mutex;
    long counter = 0;
    for (auto _ : state) {
        std::lock_guard lock(mutex);
        increment(&counter);
    }
    benchmark::DoNotOptimize(counter);
}
BENCHMARK(BM_MutexLockUnlock);

void BM_DispatchSyncIdleQueue(benchmark::State& state) {
    dispatch_queue_t queue = dispatch_queue_create("bench", DISPATCH_QUEUE_SERIAL);
    long counter = 0;
    for (auto _ : state) {
        dispatch_sync_f(queue, &counter, &increment);
    }
    benchmark::DoNotOptimize(counter);
    dispatch_release(queue);
}
BENCHMARK(BM_DispatchSyncIdleQueue);

// Contended: every thread runs a critical section, either a counter increment
// (lock overhead alone) or a short write(2) to /dev/null (a log record).
const char kLine[] = "2024-01-01 00:00:00.000 kelhelperd[1]: a log line of ordinary length\n";

struct Shared {
    std::mutex mutex;
    dispatch_queue_t queue = dispatch_queue_create("contended", DISPATCH_QUEUE_SERIAL);
    int devNull = open("/dev/null", O_WRONLY | O_CLOEXEC);
    long counter = 0;
};

Shared& shared() {
    static Shared* const sShared = new Shared;
    return *sShared;
}

void criticalSection(bool write, Shared& s) {
    if (write) {
        benchmark::DoNotOptimize(::write(s.devNull, kLine, sizeof kLine - 1));
    } else {
        ++s.counter;
    }
}

void BM_ContendedMutex(benchmark::State& state) {
    Shared& s = shared();
    const bool write = state.range(0) != 0;
    for (auto _ : state) {
        std::lock_guard lock(s.mutex);
        criticalSection(write, s);
    }
}
BENCHMARK(BM_ContendedMutex)->Arg(0)->Arg(1)->ArgName("write")->Threads(4)->UseRealTime();

void BM_ContendedDispatchSync(benchmark::State& state) {
    Shared& s = shared();
    const bool write = state.range(0) != 0;
    for (auto _ : state) {
        dispatch_sync(s.queue, [&] { criticalSection(write, s); });
    }
}
BENCHMARK(BM_ContendedDispatchSync)->Arg(0)->Arg(1)->ArgName("write")->Threads(4)->UseRealTime();

}  // namespace
