// The tree operations against the tools and loops they replace, on the same
// trees in one run: removeRecursive against `rm -rf`, listDirectory against a
// bare opendir/readdir loop, changeOwnerRecursive against `chown -R`.
//
// Trees are built under $KEL_BENCH_DIR, else /dev/shm when it exists, else
// /tmp. A removal needs a fresh tree for every iteration; building it is not
// timed.
#include <dirent.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench/fs/run_tool.h"
#include "fs/directories.h"
#include "fs/ownership.h"

namespace {

std::string benchFolder() {
    const char* chosen = getenv("KEL_BENCH_DIR");
    if (chosen != nullptr) {
        return chosen;
    }
    struct stat status;
    return stat("/dev/shm", &status) == 0 ? "/dev/shm" : "/tmp";
}

// A fresh, empty scratch folder path for one tree.
std::string scratchPath(const char* name) {
    return benchFolder() + "/kelhelperd-bench-" + name + "-" + std::to_string(getpid());
}

// `folders` folders of `files` empty files each under `path`.
void buildTree(const std::string& path, int folders, int files) {
    mkdir(path.c_str(), 0755);
    for (int folder = 0; folder < folders; ++folder) {
        const std::string folderPath = path + "/folder" + std::to_string(folder);
        mkdir(folderPath.c_str(), 0755);
        for (int file = 0; file < files; ++file) {
            close(open((folderPath + "/file" + std::to_string(file)).c_str(),
                       O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
        }
    }
}

// 100,000 files in 100 folders, built anew before each timed removal.
template <typename Remove>
void removeFreshTrees(benchmark::State& state, const char* name, Remove remove) {
    const std::string path = scratchPath(name);
    for (auto _ : state) {
        state.PauseTiming();
        buildTree(path, 100, 1000);
        state.ResumeTiming();
        if (!remove(path)) {
            state.SkipWithError("removal failed");
        }
    }
}

void BM_RemoveRecursive(benchmark::State& state) {
    removeFreshTrees(state, "remove",
                     [](const std::string& path) { return fsutil::removeRecursive(path); });
}
BENCHMARK(BM_RemoveRecursive)->Iterations(5)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_RmRf(benchmark::State& state) {
    removeFreshTrees(state, "rm", [](const std::string& path) {
        return runTool({"rm", "-rf", path});
    });
}
BENCHMARK(BM_RmRf)->Iterations(5)->Unit(benchmark::kMillisecond)->UseRealTime();

// A tree kept for the whole run, in a scratch folder of its own (the owner
// change reaches the folder above the tree), removed at exit.
class KeptTree {
  public:
    KeptTree(const char* name, int folders, int files) : scratch_(scratchPath(name)) {
        mkdir(scratch_.c_str(), 0755);
        buildTree(path(), folders, files);
    }
    ~KeptTree() { static_cast<void>(fsutil::removeRecursive(scratch_)); }
    std::string path() const { return scratch_ + "/tree"; }

  private:
    std::string scratch_;
};

// One folder of 100,000 names.
const std::string& wideFolder() {
    static const KeptTree sTree("wide", 1, 100000);
    static const std::string sFolder = sTree.path() + "/folder0";
    return sFolder;
}

void BM_ListDirectory(benchmark::State& state) {
    wideFolder();
    for (auto _ : state) {
        std::vector<std::string> names;
        fsutil::listDirectory(wideFolder(), names);
        benchmark::DoNotOptimize(names.data());
    }
}
BENCHMARK(BM_ListDirectory)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ReaddirLoop(benchmark::State& state) {
    wideFolder();
    for (auto _ : state) {
        DIR* directory = opendir(wideFolder().c_str());
        while (const dirent* entry = readdir(directory)) {
            benchmark::DoNotOptimize(entry->d_name[0]);
        }
        closedir(directory);
    }
}
BENCHMARK(BM_ReaddirLoop)->Unit(benchmark::kMillisecond)->UseRealTime();

// 10,000 files in 100 folders, given to the current owner again: the same
// system work as a real change, repeatable without root.
const std::string& ownedTree() {
    static const KeptTree sTree("owned", 100, 100);
    static const std::string sPath = sTree.path();
    return sPath;
}

void BM_ChangeOwnerRecursive(benchmark::State& state) {
    ownedTree();
    for (auto _ : state) {
        if (!fsutil::changeOwnerRecursive(ownedTree(), getuid(), getgid())) {
            state.SkipWithError("owner change failed");
        }
    }
}
BENCHMARK(BM_ChangeOwnerRecursive)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ChownR(benchmark::State& state) {
    const std::string owner = std::to_string(getuid()) + ":" + std::to_string(getgid());
    ownedTree();
    for (auto _ : state) {
        if (!runTool({"chown", "-R", owner, ownedTree()})) {
            state.SkipWithError("chown -R failed");
        }
    }
}
BENCHMARK(BM_ChownR)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
