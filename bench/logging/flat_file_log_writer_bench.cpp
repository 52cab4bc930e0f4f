// FlatFileLogWriter against one write(2) per line, against an std::ofstream
// that formats through iostreams and flushes every line, and (spdlog_bench.cpp)
// against spdlog's file sink; single-threaded and with four threads at once.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iomanip>
#include <memory>
#include <mutex>

#include <benchmark/benchmark.h>

#include "bench/logging/bench_files.h"
#include "logging/flat_file_log_writer.h"
#include "logging/shared_synchronizable.h"
#include "tests/logging/scoped_writer.h"
#include "tests/support/temp_dir.h"

namespace {

lum::LogMessage benchMessage() {
    lum::LogMessage message;
    message.timestampNs = kBenchTimestampNs;
    message.level = kBenchLevel;
    message.firstText = kBenchFirstText;
    message.secondText = kBenchSecondText;
    return message;
}

// The bytes FlatFileLogWriter writes for benchMessage().
std::string benchLine() {
    char line[128];
    char scratch[4];
    const int length = std::snprintf(line, sizeof line, "%.3f:%s:%s:%s\n",
                                     static_cast<double>(kBenchTimestampNs) * 1e-9,
                                     std::string(lum::levelName(kBenchLevel, scratch)).c_str(),
                                     kBenchFirstText, kBenchSecondText);
    return std::string(line, length);
}

void BM_BareWrite(benchmark::State& state) {
    const std::string path = benchFile("bare");
    const std::string line = benchLine();
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    for (auto _ : state) {
        benchmark::DoNotOptimize(write(fd, line.data(), line.size()));
    }
    close(fd);
    checkFileSize(state, path, state.iterations(), line.size());
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_BareWrite)->UseRealTime();

void BM_FlatFileLogWriter(benchmark::State& state) {
    const std::string path = benchFile("writer");
    const lum::LogMessage message = benchMessage();
    {
        // Waits for the writer's destruction, so that the file is whole when
        // it is checked.
        ScopedWriter writer(path);
        writer->open("");
        for (auto _ : state) {
            writer->writeMessage(message);
        }
    }
    checkFileSize(state, path, state.iterations(), benchLine().size());
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FlatFileLogWriter)->UseRealTime();

void BM_OfstreamIostream(benchmark::State& state) {
    const std::string path = benchFile("ofstream");
    const lum::LogMessage message = benchMessage();
    {
        std::ofstream out(path);
        for (auto _ : state) {
            out << std::fixed << std::setprecision(3)
                << static_cast<double>(message.timestampNs) * 1e-9 << ':' << message.level << ':'
                << message.firstText << ':' << message.secondText << '\n';
            out.flush();
        }
    }
    checkFileSize(state, path, state.iterations(), benchLine().size());
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_OfstreamIostream)->UseRealTime();

// Four threads share one file; thread 0 sets it up before the timed loop,
// which every thread enters together, and checks it after.
int sSharedFd = -1;
std::mutex sSharedFdMutex;

void BM_BareWriteMutex(benchmark::State& state) {
    static std::string path;
    const std::string line = benchLine();
    if (state.thread_index() == 0) {
        path = benchFile("bare-mutex");
        sSharedFd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    }
    for (auto _ : state) {
        std::lock_guard lock(sSharedFdMutex);
        benchmark::DoNotOptimize(write(sSharedFd, line.data(), line.size()));
    }
    if (state.thread_index() == 0) {
        close(sSharedFd);
        checkFileSize(state, path, state.iterations() * state.threads(), line.size());
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_BareWriteMutex)->Threads(4)->UseRealTime();

std::unique_ptr<ScopedWriter> sSharedWriter;

void BM_FlatFileLogWriterThreads(benchmark::State& state) {
    static std::string path;
    const lum::LogMessage message = benchMessage();
    if (state.thread_index() == 0) {
        path = benchFile("writer-threads");
        sSharedWriter = std::make_unique<ScopedWriter>(path);
        (*sSharedWriter)->open("");
    }
    for (auto _ : state) {
        (*sSharedWriter)->writeMessage(message);
    }
    if (state.thread_index() == 0) {
        sSharedWriter.reset();
        checkFileSize(state, path, state.iterations() * state.threads(), benchLine().size());
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FlatFileLogWriterThreads)->Threads(4)->UseRealTime();

// The cost of serialising through the writer's queue when nobody competes.
class Counter : public lum::SharedSynchronizable<Counter> {
  public:
    Counter() : SharedSynchronizable("counter", DISPATCH_QUEUE_SERIAL, nullptr) {}
    virtual ~Counter() = default;
    int64_t value = 0;
};

void BM_ExecuteSyncIdle(benchmark::State& state) {
    std::shared_ptr<Counter> counter = Counter::make_shared_ptr(new Counter);
    for (auto _ : state) {
        counter->execute_sync([&] { ++counter->value; });
    }
    benchmark::DoNotOptimize(counter->value);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ExecuteSyncIdle);

void BM_MutexIdle(benchmark::State& state) {
    std::mutex mutex;
    int64_t value = 0;
    for (auto _ : state) {
        std::lock_guard lock(mutex);
        benchmark::DoNotOptimize(++value);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_MutexIdle);

}  // namespace

std::string benchFile(const std::string& name) {
    static kel::testing::TempDir folder;
    return folder.file(name + ".log");
}
