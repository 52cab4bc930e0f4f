// One preference read from a store of 50 keys: with the file unchanged, and
// the first read after a change, beside parsing the file on every read.
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include <benchmark/benchmark.h>

#include "platform/telephony/preferences.h"

namespace {

constexpr const char* kDomain = "org.kel.bench";
constexpr const char* kKey = "Key25";

// A store of 50 keys in a fresh folder, KEL_PREFERENCES_DIR pointing at it:
// numbers, booleans and texts, each key read as it would be in use.
class BenchStore {
  public:
    BenchStore() {
        char pattern[] = "/dev/shm/kel-bench-preferences-XXXXXX";
        folder_ = mkdtemp(pattern);
        setenv("KEL_PREFERENCES_DIR", folder_.c_str(), 1);
        path_ = lum::preferencesFilePath(kDomain);
        write(0);
    }
    ~BenchStore() { std::filesystem::remove_all(folder_); }

    // Rewrites the file in place; `version` changes the value of kKey only.
    void write(int version) const {
        std::ofstream out(path_);
        out << "{\n";
        for (int i = 0; i < 50; ++i) {
            out << "    \"Key" << (i < 10 ? "0" : "") << i << "\": ";
            if (i == 25) {
                out << version % 10;
            } else if (i % 3 == 0) {
                out << "\"/var/tmp/kel/some/path/" << i << "\"";
            } else if (i % 3 == 1) {
                out << (i % 2 == 0 ? "true" : "false");
            } else {
                out << i * 1000;
            }
            out << (i < 49 ? ",\n" : "\n");
        }
        out << "}\n";
    }

    const std::string& path() const { return path_; }

  private:
    std::string folder_;
    std::string path_;
};

void BM_ReadUnchanged(benchmark::State& state) {
    const BenchStore store;
    const lum::PreferencesAdapter adapter(kDomain, lum::kPreferencesScopeCurrentUser);
    // The file must have aged past the clock tick it was written in.
    usleep(20'000);
    for (auto _ : state) {
        benchmark::DoNotOptimize(adapter.copyValue(kKey));
    }
}
BENCHMARK(BM_ReadUnchanged);

// Baseline: read and parse the whole file for every read.
void BM_ParseEveryRead(benchmark::State& state) {
    const BenchStore store;
    for (auto _ : state) {
        lum::PreferenceMap values;
        std::string error;
        benchmark::DoNotOptimize(lum::loadPreferencesFile(store.path(), values, error));
        benchmark::DoNotOptimize(values.find(kKey));
    }
}
BENCHMARK(BM_ParseEveryRead);

// The first read after the file changed (same size, in place); only the read
// is timed.
void BM_FirstReadAfterChange(benchmark::State& state) {
    const BenchStore store;
    const lum::PreferencesAdapter adapter(kDomain, lum::kPreferencesScopeCurrentUser);
    int version = 0;
    for (auto _ : state) {
        store.write(++version);
        const auto start = std::chrono::steady_clock::now();
        const std::optional<lum::PreferenceValue> value = adapter.copyValue(kKey);
        state.SetIterationTime(
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
        if (!value || std::get<int64_t>(*value) != version % 10) {
            state.SkipWithError("the change was not seen");
            break;
        }
    }
}
BENCHMARK(BM_FirstReadAfterChange)->UseManualTime();

// Baseline: read and parse the whole file after it changed, timed alike.
void BM_ParseAfterChange(benchmark::State& state) {
    const BenchStore store;
    int version = 0;
    for (auto _ : state) {
        store.write(++version);
        const auto start = std::chrono::steady_clock::now();
        lum::PreferenceMap values;
        std::string error;
        benchmark::DoNotOptimize(lum::loadPreferencesFile(store.path(), values, error));
        benchmark::DoNotOptimize(values.find(kKey));
        state.SetIterationTime(
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }
}
BENCHMARK(BM_ParseAfterChange)->UseManualTime();

// For scale: the one stat(2) every read makes.
void BM_StatAlone(benchmark::State& state) {
    const BenchStore store;
    struct stat status {};
    for (auto _ : state) {
        benchmark::DoNotOptimize(stat(store.path().c_str(), &status));
    }
}
BENCHMARK(BM_StatAlone);

}  // namespace
