// What the logging benchmarks share: the record they write and the scratch
// folder under /tmp that their files go to.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>

#include <benchmark/benchmark.h>

#include "platform/logserver/log.h"

// About 70 bytes once formatted.
inline constexpr int64_t kBenchTimestampNs = 1700000000123456789;
inline constexpr lum::LogLevel kBenchLevel = lum::LogLevel::kInfo;
inline constexpr const char* kBenchFirstText = "telephony.registration";
inline constexpr const char* kBenchSecondText = "state changed to home, 4711";

// A fresh path in the process's scratch folder, which goes away at exit.
std::string benchFile(const std::string& name);

// Marks the run failed unless `path` holds exactly `lines` lines of
// `lineLength` bytes: nothing lost, nothing torn.
inline void checkFileSize(benchmark::State& state, const std::string& path, int64_t lines,
                          int64_t lineLength) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0 || status.st_size != lines * lineLength) {
        state.SkipWithError("the file does not hold every record whole");
    }
}
