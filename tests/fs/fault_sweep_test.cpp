// Every operation of the library with each of its calls failing in turn (see
// sweepFailures): no failure leaves a descriptor open or a guard armed, the
// calls that must run under a guard do, and no operation reports success for
// work it left half done.
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>

#include <gtest/gtest.h>

#include "fs/directories.h"
#include "fs/file_contents.h"
#include "fs/locks.h"
#include "fs/ownership.h"
#include "fs/paths.h"
#include "tests/fs/trees.h"
#include "tests/support/call_recorder.h"
#include "tests/support/log_recording.h"
#include "tests/support/temp_dir.h"

namespace kel::testing {
namespace {

// Whether the entries under `path` that `keep` accepts are all `count` of them
// or none: a tree operation that reports success has done all of its work, or
// none of it when the path tested as missing or could not be listed.
bool allOrNone(const std::string& path, size_t count, bool (*keep)(const struct stat&)) {
    const size_t kept = treeContents(path, keep).size();
    return kept == 0 || kept == count;
}

bool isFile(const struct stat& status) {
    return !S_ISDIR(status.st_mode);
}

TEST(FaultSweepTest, EveryFailureIsAResult) {
    const CapturedSystemLog quiet;
    const TempDir root;
    const std::string r = root.file("r");
    // As root the owner changes to one that shows; otherwise to the same one.
    static const uid_t sOwner = geteuid() == 0 ? 4242 : geteuid();
    const std::string data(3000, 'd');
    const struct {
        // Files made in r before each run, with their folders; "d/" is a folder.
        std::vector<std::string> scene;
        std::function<bool()> run;
        std::set<std::string> guarded;
        std::function<bool()> done = [] { return true; };
    } kOperations[] = {
        {{"d/", "s"},
         [&] {
             Tree names;
             fsutil::listDirectory(r, names);
             return names.size() == 4 && fsutil::makeDirectory(r + "/d", 0755, false) &&
                    fsutil::makeDirectory(r + "/n", 0755, false) &&
                    fsutil::makeDirectory(r + "/a/b", 0755, true) &&
                    fsutil::changeOwner(r + "/s", getuid(), getgid()) &&
                    fsutil::changeMode(r + "/s", 0700) && fsutil::renamePath(r + "/s", r + "/m") &&
                    fsutil::removePath(r + "/m");
         },
         {"opendir", "readdir", "closedir", "stat", "mkdir", "chown", "chmod", "rename", "remove"}},
        {{"t/s/a", "t/s/b", "t/c"},
         [&] { return fsutil::removeRecursive(r + "/t"); },
         {"stat", "openat", "fdopendir", "readdir", "unlinkat", "remove"},
         [&] { return allOrNone(r, 3, isFile); }},
        {{"s/a", "s/b"},
         [&] { return fsutil::removeOlderThan(r, 0); },
         {"openat", "fdopendir", "readdir", "unlinkat"},
         [&] { return allOrNone(r, 2, isFile); }},
        {{"t/s/a", "t/b"},
         [&] { return fsutil::changeOwnerRecursive(r + "/t", sOwner, sOwner); },
         {"stat", "openat", "fdopendir", "readdir", "fchownat"},
         [&] {
             return allOrNone(r + "/t", 3, [](auto& status) { return status.st_uid == sOwner; });
         }},
        {{},
         [&] {
             return fsutil::copyFile(root.file("data"), r + "/copy", /*copyMode=*/true) &&
                    fsutil::unlockAndClose(fsutil::lockShared(root.file("data")));
         },
         {"open", "close", "fcntl"},
         [&] { return readFile(r + "/copy") == data; }},
    };
    std::ofstream(root.file("data")) << data;
    for (const auto& operation : kOperations) {
        SCOPED_TRACE(&operation - kOperations);
        sweepFailures(operation.run, operation.guarded, operation.done, [&] {
            std::filesystem::remove_all(r);
            std::filesystem::create_directory(r);
            for (const std::string& path : operation.scene) {
                std::filesystem::create_directories(
                    std::filesystem::path(r + "/" + path).parent_path());
                std::ofstream{r + "/" + path};
            }
        });
    }
}

// With no descriptor left, a walk cannot open the folder at its top or one
// below: either is a failure, never a file to change or remove alone.
TEST(FaultSweepTest, AFolderThatCannotBeOpenedFailsTheWalk) {
    const TempDir root;
    makeTree(root.path(), "mkdir -p t/d/d");
    for (const int failing : {1, 2}) {
        const CallRecorder recorder(InjectedFailure{"openat", failing, EMFILE});
        EXPECT_FALSE(fsutil::changeOwnerRecursive(root.file("t"), getuid(), getgid())) << failing;
    }
    const CallRecorder recorder(InjectedFailure{"openat", 1, EMFILE});
    EXPECT_FALSE(fsutil::removeRecursive(root.file("t")));
    EXPECT_TRUE(fsutil::exists(root.file("t/d/d")));
}

}  // namespace
}  // namespace kel::testing
