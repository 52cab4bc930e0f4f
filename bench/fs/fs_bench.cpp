// The watchdog guard against the ways a deadline registry is commonly built,
// and the guarded existence test against a bare stat(2).
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>

#include <benchmark/benchmark.h>

#include "fs/paths.h"
#include "fs/watchdog_guard.h"

namespace {

void BM_WatchdogGuardPair(benchmark::State& state) {
    for (auto _ : state) {
        fsutil::WatchdogGuard guard;
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_WatchdogGuardPair)->Threads(1)->Threads(2)->UseRealTime();

// Baseline: deadlines in a multimap behind one mutex.
std::mutex sRegistryMutex;
std::multimap<std::chrono::steady_clock::time_point, const char*> sRegistry;

void BM_MutexMultimapPair(benchmark::State& state) {
    for (auto _ : state) {
        std::multimap<std::chrono::steady_clock::time_point, const char*>::iterator entry;
        {
            std::lock_guard<std::mutex> lock(sRegistryMutex);
            entry = sRegistry.emplace(std::chrono::steady_clock::now() + std::chrono::seconds(5),
                                      fsutil::kWatchdogReason);
        }
        benchmark::ClobberMemory();
        std::lock_guard<std::mutex> lock(sRegistryMutex);
        sRegistry.erase(entry);
    }
}
BENCHMARK(BM_MutexMultimapPair)->Threads(1)->Threads(2)->UseRealTime();

// Baseline: one kernel timer per thread, armed and disarmed around the step.
void BM_TimerfdPair(benchmark::State& state) {
    const int fd = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
    const itimerspec arm{{0, 0}, {5, 0}};
    const itimerspec disarm{};
    for (auto _ : state) {
        timerfd_settime(fd, 0, &arm, nullptr);
        benchmark::ClobberMemory();
        timerfd_settime(fd, 0, &disarm, nullptr);
    }
    close(fd);
}
BENCHMARK(BM_TimerfdPair)->Threads(1)->Threads(2)->UseRealTime();

void BM_ExistsGuarded(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(fsutil::exists("/tmp"));
    }
}
BENCHMARK(BM_ExistsGuarded);

void BM_StatBare(benchmark::State& state) {
    for (auto _ : state) {
        struct stat status;
        benchmark::DoNotOptimize(stat("/tmp", &status) == 0);
    }
}
BENCHMARK(BM_StatBare);

}  // namespace
