// spdlog's mutex-guarded file sink, flushing after every record, with a
// pattern that gives lines of the same shape and length as the writer's.
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>

#include <benchmark/benchmark.h>

#include "bench/logging/bench_files.h"

namespace {

constexpr int64_t kSpdlogLineLength = 71;

std::shared_ptr<spdlog::logger> makeLogger(const std::string& path) {
    auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(path, true);
    auto logger = std::make_shared<spdlog::logger>(kBenchFirstText, std::move(sink));
    logger->set_pattern("%E.%e:%l:%n:%v");
    logger->flush_on(spdlog::level::trace);
    return logger;
}

void BM_Spdlog(benchmark::State& state) {
    const std::string path = benchFile("spdlog");
    {
        auto logger = makeLogger(path);
        for (auto _ : state) {
            logger->info(kBenchSecondText);
        }
    }
    checkFileSize(state, path, state.iterations(), kSpdlogLineLength);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Spdlog)->UseRealTime();

std::shared_ptr<spdlog::logger> sSharedLogger;

void BM_SpdlogThreads(benchmark::State& state) {
    static std::string path;
    if (state.thread_index() == 0) {
        path = benchFile("spdlog-threads");
        sSharedLogger = makeLogger(path);
    }
    for (auto _ : state) {
        sSharedLogger->info(kBenchSecondText);
    }
    if (state.thread_index() == 0) {
        sSharedLogger.reset();
        checkFileSize(state, path, state.iterations() * state.threads(), kSpdlogLineLength);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SpdlogThreads)->Threads(4)->UseRealTime();

}  // namespace
