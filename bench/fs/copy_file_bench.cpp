// fsutil::copyFile of a 64 MiB file beside cp(1) on the same file (a whole
// process, as a user would run it) and beside the plain 1 KiB read/write loop.
// Every run overwrites the same destination; both files stay in the page
// cache, so the figures are those of the copy itself, not of the disk.
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include <benchmark/benchmark.h>

#include "bench/fs/run_tool.h"
#include "fs/file_contents.h"

namespace {

constexpr size_t kFileSize = size_t{64} << 20;

// A scratch folder holding the 64 MiB source, removed at exit.
class Files {
  public:
    Files() {
        char pattern[] = "/tmp/kel-bench-copy-XXXXXX";
        folder_ = mkdtemp(pattern) != nullptr ? pattern : "";
        std::string block(1 << 20, '\0');
        std::ofstream out(source(), std::ios::binary);
        for (size_t written = 0; written < kFileSize; written += block.size()) {
            for (size_t i = 0; i < block.size(); ++i) {
                block[i] = static_cast<char>((written + i) * 2654435761u >> 24);
            }
            out.write(block.data(), static_cast<std::streamsize>(block.size()));
        }
    }
    ~Files() { std::filesystem::remove_all(folder_); }
    std::string source() const { return folder_ + "/source"; }
    std::string destination() const { return folder_ + "/destination"; }

  private:
    std::string folder_;
};

const Files& files() {
    static const Files sFiles;
    return sFiles;
}

void checkCopy(benchmark::State& state) {
    if (std::filesystem::file_size(files().destination()) != kFileSize) {
        state.SkipWithError("the destination is not a whole copy");
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kFileSize));
}

void BM_CopyFile(benchmark::State& state) {
    for (auto _ : state) {
        if (!fsutil::copyFile(files().source(), files().destination(), /*copyMode=*/false)) {
            state.SkipWithError("copyFile failed");
        }
    }
    checkCopy(state);
}
BENCHMARK(BM_CopyFile)->UseRealTime()->Unit(benchmark::kMillisecond);

// Baseline: cp, started and waited for like any command.
void BM_Cp(benchmark::State& state) {
    for (auto _ : state) {
        if (!runTool({"cp", files().source(), files().destination()})) {
            state.SkipWithError("cp failed");
        }
    }
    checkCopy(state);
}
BENCHMARK(BM_Cp)->UseRealTime()->Unit(benchmark::kMillisecond);

// For scale: the same copy through a 1 KiB buffer, one read and one write per
// KiB.
void BM_BufferLoop(benchmark::State& state) {
    for (auto _ : state) {
        const int from = open(files().source().c_str(), O_RDONLY | O_CLOEXEC);
        const int to = open(files().destination().c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
        char buffer[1024];
        ssize_t got = 0;
        while ((got = read(from, buffer, sizeof buffer)) > 0 &&
               fsutil::writeAll(to, buffer, static_cast<size_t>(got))) {
        }
        close(to);
        close(from);
    }
    checkCopy(state);
}
BENCHMARK(BM_BufferLoop)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
